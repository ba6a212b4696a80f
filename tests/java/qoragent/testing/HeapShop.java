package qoragent.testing;

import java.lang.management.GarbageCollectorMXBean;
import java.lang.management.ManagementFactory;
import java.lang.ref.WeakReference;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.locks.LockSupport;

/** Objects of known numbers, sizes and references, for what looks at the whole heap. */
public final class HeapShop {
    static Node first;
    static Object[] shelf;
    static List<Object> held = new ArrayList<>();
    private static WeakReference<ClassLoader> dropped;

    private HeapShop() {}

    public static class Node {
        Node next;
        Object self;
        int number;
    }

    public static final class Leaf extends Node { String name; }

    /** Loaded, never made. */
    public static final class Unused { Object field; }

    static void fill() {
        new Unused(); // loaded and initialised; the one object is garbage
        for (int i = 0; i < 1234; i++) {
            Node node = new Node();
            node.next = first;
            node.self = node;
            node.number = i;
            first = node;
        }
        for (int i = 0; i < 77; i++) {
            Leaf leaf = new Leaf();
            leaf.name = "leaf " + i;
            held.add(leaf);
        }
        Node[] nodes = new Node[30];
        Arrays.fill(nodes, 3, 30, first); // three are null
        shelf = new Object[] {nodes, new Leaf[5], new int[12345], new int[12345], new byte[54321]};
    }

    /** Held by the own field of a Class instance, and by nothing else. */
    static final class ByClass {}

    /** Has a Class instance, and no other. */
    static final class Unheld {}

    private static final class Maker extends ClassValue<ByClass> {
        @Override
        protected ByClass computeValue(Class<?> type) {
            return new ByClass();
        }
    }

    private static final List<Maker> makers = new ArrayList<>();
    private static final List<Thread> parked = new ArrayList<>();

    /** Leaves `count` objects of ByClass with the Class instance of Unheld. */
    static void holdByClass(int count) {
        for (int i = 0; i < count; i++) {
            makers.add(new Maker());
            makers.get(i).get(Unheld.class);
        }
    }

    /** Parks `count` virtual threads; 0 where there are none. */
    static long parkVirtual(int count) throws Exception {
        Runnable park = () -> {
            for (;;)
                LockSupport.park();
        };
        for (int i = 0; i < count; i++)
            parked.add(Hang.startVirtual(park));
        if (parked.contains(null))
            return 0;
        for (Thread thread : parked)
            while (thread.getState() != Thread.State.WAITING)
                Thread.sleep(1);
        return count;
    }

    /** An object whose class has a separate loader, which nothing else holds. */
    static void loadOwn() throws Exception {
        ClassLoader loader = Churn.newLoader();
        held.add(loader.loadClass(Unused.class.getName()).getConstructor().newInstance());
        dropped = new WeakReference<>(loader);
    }

    /** 1 when that loader can be collected. */
    static long dropOwn() {
        held.clear();
        for (int i = 0; i < 20 && dropped.get() != null; i++)
            System.gc();
        return dropped.get() == null ? 1 : 0;
    }

    /** Collectors in the JVM's order: count, milliseconds, name, a line each. */
    static String collectors() {
        String all = "";
        for (GarbageCollectorMXBean bean : ManagementFactory.getGarbageCollectorMXBeans())
            all += bean.getCollectionCount() + " " + bean.getCollectionTime() + " " + bean.getName() + "\n";
        return all;
    }

    /** Makes garbage, several times the heap of a test. */
    static void litter() {
        for (int i = 0; i < 4000; i++)
            shelf = new Object[] {new byte[100000]};
    }

    /** Instances of a class and their bytes as "count bytes", by the JVM's own histogram; dead objects count. */
    static String histogramRow(String name) throws Exception {
        String text = JvmCounts.command("gcClassHistogram", "-all");
        for (String line : text.split("\n")) {
            String[] columns = line.trim().split("\\s+"); // number, instances, bytes, class, module
            if (columns.length >= 4 && columns[3].equals(name))
                return columns[1] + " " + columns[2];
        }
        return "";
    }
}
