package qoragent.bench.heap;

import com.sun.management.HotSpotDiagnosticMXBean;
import com.sun.management.OperatingSystemMXBean;
import java.io.File;
import java.io.RandomAccessFile;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.stream.DoubleStream;
import java.util.stream.IntStream;
import javax.management.ObjectName;
import qoragent.Agent;

/**
 * The agent's class histogram and text dump beside bare walks and the JVM's own tools, in one process and in
 * turns. Arguments: turns, megabytes of live objects, directory of the dumps.
 */
public final class HeapBench {
    private static final int WALL = 0, PROCESSOR = 1;
    private static final String[] HISTOGRAM = {"bare IterateThroughHeap, counting by class tag",
                                               "histogram, whole call", "GC.class_histogram -all"};
    private static final String[] DUMP = {"bare FollowReferences, tagging all", "the same, tags given back",
                                          "text dump, whole call", "GC.heap_dump -all"};

    private final Map<String, List<double[]>> rows =
        new LinkedHashMap<>(); // {wall, processor} milliseconds a turn
    private final File directory;
    private long objects, dumpBytes, hprofBytes;

    private interface Work {
        void run() throws Exception;
    }

    private HeapBench(File directory) { this.directory = directory; }

    public static void main(String[] args) throws Exception {
        int turns = args.length > 0 ? Integer.parseInt(args[0]) : 5;
        int megabytes = args.length > 1 ? Integer.parseInt(args[1]) : 500;
        File directory = new File(args.length > 2 ? args[2] : "/tmp");
        System.load(System.getProperty("bench.library"));
        Object[] heap = fill(megabytes);
        Agent.start("relay=off,timeout=600");
        HeapBench bench = new HeapBench(directory);
        for (int turn = -1; turn < turns; turn++) {
            if (turn == 0)
                bench.rows.clear(); // the first one warms up
            bench.turn();
        }
        bench.print(System.getProperty("java.version"), heap.length);
        Agent.request("SHUTDOWN");
    }

    private static native long open();

    /** Objects seen, or -1. */
    private static native long iterate(long environment);

    private static native long follow(long environment);

    private static native void close(long environment);

    private void turn() throws Exception {
        System.gc();
        long counting = open();
        measure(HISTOGRAM[0], () -> objects = seen(iterate(counting)));
        close(counting);
        measure(HISTOGRAM[1], () -> ask("516|showmem|512|ClassHistogramOnly"));
        measure(HISTOGRAM[2], HeapBench::histogramOfTheJvm);
        System.gc();
        long tagging = open();
        double[] walk = measure(DUMP[0], () -> objects = seen(follow(tagging)));
        double[] disposal = measure(null, () -> close(tagging));
        note(DUMP[1], new double[] {walk[0] + disposal[0], walk[1] + disposal[1]});
        textDump();
        dumpOfTheJvm();
    }

    private static long seen(long count) {
        if (count < 0)
            throw new IllegalStateException("the JVM refuses the walk");
        return count;
    }

    private double[] measure(String row, Work work) throws Exception {
        OperatingSystemMXBean system = ManagementFactory.getPlatformMXBean(OperatingSystemMXBean.class);
        long start = System.nanoTime(), used = system.getProcessCpuTime();
        work.run();
        double[] figures = {(System.nanoTime() - start) / 1e6, (system.getProcessCpuTime() - used) / 1e6};
        if (row != null)
            note(row, figures);
        return figures;
    }

    private static void ask(String request) {
        String reply = Agent.request(request);
        if (reply == null || !reply.contains("Time spent in JVM"))
            throw new IllegalStateException("no answer to " + request + ": " + reply);
    }

    static void histogramOfTheJvm() throws Exception {
        ObjectName commands = new ObjectName("com.sun.management:type=DiagnosticCommand");
        ManagementFactory.getPlatformMBeanServer().invoke(commands, "gcClassHistogram",
                                                          new Object[] {new String[] {"-all"}},
                                                          new String[] {String[].class.getName()});
    }

    private void textDump() throws Exception {
        Agent.request("516|NoProcessing|qorheapdir|" + directory);
        File file = new File(directory, "bench-heap.txt");
        measure(DUMP[2], () -> ask("516|showmem|256|" + file.getName() + "|1"));
        dumpBytes = file.length();
        byte[] end = new byte[64];
        try (RandomAccessFile dump = new RandomAccessFile(file, "r")) {
            dump.seek(dumpBytes - end.length);
            dump.readFully(end);
        }
        if (!new String(end, StandardCharsets.US_ASCII).matches("(?s).* Finished [0-9]+ secs"))
            throw new IllegalStateException("the dump has no trailer");
        delete(file);
    }

    private void dumpOfTheJvm() throws Exception {
        File file = new File(directory, "bench-heap.hprof");
        HotSpotDiagnosticMXBean bean = ManagementFactory.getPlatformMXBean(HotSpotDiagnosticMXBean.class);
        measure(DUMP[3], () -> bean.dumpHeap(file.getPath(), false));
        hprofBytes = file.length();
        delete(file);
    }

    private static void delete(File file) {
        if (!file.delete())
            throw new IllegalStateException("can't delete " + file);
    }

    private void note(String row, double[] figures) {
        rows.computeIfAbsent(row, n -> new ArrayList<>()).add(figures);
    }

    static double median(DoubleStream values) {
        double[] sorted = values.sorted().toArray();
        int middle = sorted.length / 2;
        return sorted.length % 2 == 1 ? sorted[middle] : (sorted[middle - 1] + sorted[middle]) / 2;
    }

    private double median(String row, int kind) {
        return median(rows.get(row).stream().mapToDouble(figures -> figures[kind]));
    }

    /** The median of the ratios of each turn, so that what slows a whole turn cancels out. */
    private double ratio(String over, String under, int kind) {
        List<double[]> a = rows.get(over), b = rows.get(under);
        return median(IntStream.range(0, a.size()).mapToDouble(i -> a.get(i)[kind] / b.get(i)[kind]));
    }

    private void print(String version, int roots) {
        System.out.printf("Java %s, %s: %d objects live (%d chains), text dump %d MB, Hprof %d MB%n", version,
                          ManagementFactory.getGarbageCollectorMXBeans().get(0).getName(), objects, roots,
                          dumpBytes >> 20, hprofBytes >> 20);
        table("class histogram", HISTOGRAM, HISTOGRAM[0]);
        table("heap dump", DUMP, DUMP[1]);
    }

    private void table(String title, String[] names, String base) {
        System.out.printf(
            "%n| %s | ms | ms per million objects | of the bare walk | CPU ms | of the bare walk |%n"
                + "|---|---|---|---|---|---|%n",
            title);
        for (String row : names)
            System.out.printf("| %s | %.0f | %.0f | %.2f | %.0f | %.2f |%n", row, median(row, WALL),
                              median(row, WALL) * 1e6 / objects, ratio(row, base, WALL),
                              median(row, PROCESSOR), ratio(row, base, PROCESSOR));
    }

    /** Orders as a shop would have them: strings, maps, lists and arrays, some 50 bytes an object. */
    static Object[] fill(int megabytes) {
        Object[] shelves = new Object[megabytes];
        for (int i = 0; i < megabytes; i++) {
            Map<Long, Order> orders = new HashMap<>();
            long id = i * 10_000L;
            for (int k = 0; k < 1300; k++, id++)
                orders.put(id, new Order(id));
            shelves[i] = orders;
        }
        return shelves;
    }

    /** Changes one of the orders, chosen by a number. */
    static void touch(Object[] shelves, long number) {
        int shelf = (int)Long.remainderUnsigned(number, shelves.length);
        @SuppressWarnings("unchecked") Map<Long, Order> orders = (Map<Long, Order>)shelves[shelf];
        Order order = orders.get(shelf * 10_000L + Long.remainderUnsigned(number >>> 20, 1300));
        order.history[(int)(number & 7)]++;
    }

    private static final class Order {
        final long id;
        final String customer;
        final List<Item> items = new ArrayList<>(4);
        final int[] history = new int[8];
        Order(long id) {
            this.id = id;
            customer = "customer " + id;
            for (int i = 0; i < 4; i++)
                items.add(new Item(this, "article " + (id + i)));
        }
    }

    private static final class Item {
        final Order order;
        final String name;
        final Integer amount;
        final Object[] tags;
        Item(Order order, String name) {
            this.order = order;
            this.name = name;
            amount = 1000 + name.length();
            tags = new Object[] {name, amount, null};
        }
    }
}
