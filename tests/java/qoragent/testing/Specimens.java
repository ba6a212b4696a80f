package qoragent.testing;

import java.io.ByteArrayOutputStream;
import java.io.DataOutputStream;
import java.io.IOException;
import java.util.Arrays;

/** Objects to be looked into, and threads that stand still with known objects in their locals. */
public final class Specimens {
    private static volatile Resident.Gate gate;
    private static volatile int used;
    private static Thread thread;

    private Specimens() {}

    /** A field of every kind; what is shown of each is in the tests. */
    public static class Values {
        public static Object shared = new Object();
        private static long number = 64000000000L;
        static boolean flag = true;
        static String[] none;
        protected static char letter = 'z';
        static byte digit = '7';
        static short small = -3;
        static int plain = 12;
        static float half = 0.5f;
        static double quarter = -0.25;
        static String word = "static";
        static int[] list = {4, 5};

        public boolean yes = true;
        private boolean no;
        protected byte upper = 0x41;
        byte dash = 0x2d;
        char wide = '\u0141'; // its lower byte is a letter
        char lower = 'q';
        short aShort = -1500;
        int anInt = -310000;
        long aLong = -63000000000L;
        float aFloat = 0.75f;
        double aDouble = 1e300;
        String text = "a\u001db\u001f\u000e\u00e9";
        String empty = "";
        String missing;
        boolean[] booleans = {true, false};
        byte[] bytes = {0x41, -2, 0x39};
        char[] chars = {'a', '\u0141', 'Z'};
        short[] shorts = {3, -4};
        int[] ints = {5, -6};
        long[] longs = {7, 8589934597L};
        float[] floats = {1.5f, Float.NaN, 3e9f};
        double[] doubles = {-9.5, Double.NEGATIVE_INFINITY};
        int[] emptyInts = {};
        int[] noInts;
        int[][] grid = {{1}, {2}};
        Object any = new Fields();
        Object nothing;
        Values own;
    }

    /** Two classes above it, the first without a field. */
    public static class Leaf extends Bare { private int inLeaf = 1; }

    public static class Bare extends Base {}

    public static class Base { protected int inBase = 2; }

    /** Long texts and arrays, cut where a record ends. */
    public static class Long {
        String ascii = repeat('x', 2000);
        String accents = repeat('x', 1022) + repeat('\u00e9', 50);
        String wide = repeat('\u20ac', 2000);
        int[] ones = filled(301, 1);
        int[] many = filled(301, -100000000);
        boolean[] booleans = new boolean[301];

        private static String repeat(char c, int count) {
            char[] chars = new char[count];
            Arrays.fill(chars, c);
            return new String(chars);
        }

        private static int[] filled(int count, int value) {
            int[] numbers = new int[count];
            Arrays.fill(numbers, value);
            return numbers;
        }
    }

    /** A big array and a big text. */
    public static class Big {
        byte[] bytes = new byte[64 << 20];
        String text = new String(new char[16 << 20]);
    }

    /** An object whose class is still in its initialiser. */
    public static class Unfinished {
        static final Object FIRST = new Unfinished();
        static int later;
        int field = 3;

        static {
            keep(FIRST);
            later = 1;
        }
    }

    public static Object make(String kind) throws Exception {
        switch (kind) {
        case "Values":
            Values values = new Values();
            values.own = values;
            return values;
        case "plain":
            return new Object();
        case "ints":
            return new int[] {1, 2};
        case "pairs":
            return new Object[] {new Leaf(), new Base()};
        case "hole":
            return new Object[] {new Base(), null};
        case "empty":
            return new Object[0];
        case "single":
            return new Object[] {new Object()};
        case "rows":
            return new int[][] {{1}, {2}};
        case "forty":
            Object[] forty = new Object[40];
            Arrays.fill(forty, 0, 21, new Leaf());
            return forty;
        default:
            return Class.forName(Specimens.class.getName() + "$" + kind)
                .getDeclaredConstructor()
                .newInstance();
        }
    }

    // ---- threads

    /**
     * Starts a thread that stands in hold(), called by itself `again` times; returns when it stands there.
     */
    public static void startHolder(int again) throws Exception {
        gate = new Resident.Gate();
        gate.open(Thread.currentThread());
        hold(1, "warm", new int[0], new Object[0], new Values(), Values.class); // resolves what it refers to
        gate = new Resident.Gate();
        start(() -> hold(again, "a text", new int[] {1, 2, 3}, new Object[1], new Values(), Values.class));
    }

    private static void hold(int again, String text, int[] numbers, Object[] some, Values values,
                             Class<?> kind) {
        Object nothing = null;
        if (again > 0)
            hold(again - 1, text + again, numbers.clone(), null, null, null);
        else
            gate.pass();
        used = Arrays.asList(text, numbers, some, values, kind, nothing).hashCode();
    }

    /** Starts a thread that stands in the initialiser of Unfinished. */
    public static void startInitialiser() throws Exception {
        gate = new Resident.Gate();
        start(() -> used = Unfinished.later);
    }

    private static void keep(Object kept) {
        gate.pass();
        used = kept.hashCode();
    }

    /** Starts a thread that stands in rest(), which the test implements: it passes the gate. */
    public static void startResting() throws Exception {
        gate = new Resident.Gate();
        start(() -> rest(gate));
    }

    private static native void rest(Resident.Gate gate);

    private static void start(Runnable task) throws InterruptedException {
        thread = new Thread(task, "specimen");
        thread.setDaemon(true);
        thread.start();
        while (thread.getState() != Thread.State.WAITING)
            Thread.sleep(1);
    }

    static Thread thread() { return thread; }

    public static long id() { return thread.getId(); }

    public static void end() throws InterruptedException {
        if (gate != null)
            gate.open(thread);
        thread.join();
    }

    // ---- classes made at run time

    /** The last of `depth` classes that extend each other, the first one Object; each has `fields` ints. */
    public static Object chain(int depth, int fields) throws Exception {
        Maker maker = new Maker();
        Class<?> last = null;
        for (int i = 0; i < depth; i++)
            last = maker.define("made/C" + i, i == 0 ? "java/lang/Object" : "made/C" + (i - 1), fields, 0);
        return last;
    }

    /** That many classes, for as long as the result is held. */
    public static Object manyClasses(int count) throws Exception { return make(count, 0); }

    /** That many classes of a thousand methods each. */
    public static Object manyMethods(int count) throws Exception { return make(count, 1000); }

    private static Object[] make(int count, int methods) throws Exception {
        Maker maker = new Maker();
        Object[] all = new Object[count];
        for (int i = 0; i < count; i++)
            all[i] = maker.define("made/M" + i, "java/lang/Object", 0, methods);
        return all;
    }

    private static final class Maker extends ClassLoader {
        /** A class of ints "f0" and up and abstract methods "m0" and up. */
        Class<?> define(String name, String parent, int fields, int methods) throws Exception {
            ByteArrayOutputStream bytes = new ByteArrayOutputStream();
            DataOutputStream out = new DataOutputStream(bytes);
            out.writeInt(0xcafebabe);
            out.writeInt(52);
            out.writeShort(7 + fields +
                           methods); // constants: 1 + 2 the class, 3 + 4 its parent, 5, 6 types, names
            for (String text : new String[] {name, parent}) {
                text(out, text);
                out.writeByte(7);
                out.writeShort(text.equals(name) ? 1 : 3);
            }
            text(out, "I");
            text(out, "()V");
            for (int i = 0; i < fields; i++)
                text(out, "f" + i);
            for (int i = 0; i < methods; i++)
                text(out, "m" + i);
            for (int word : new int[] {methods > 0 ? 0x421 : 0x21, 2, 4, 0})
                out.writeShort(word);
            members(out, 1, 7, 5, fields);
            members(out, 0x401, 7 + fields, 6, methods);
            out.writeShort(0); // no attributes
            return Class.forName(
                defineClass(name.replace('/', '.'), bytes.toByteArray(), 0, bytes.size()).getName(), true,
                this);
        }

        private static void text(DataOutputStream out, String text) throws IOException {
            out.writeByte(1);
            out.writeUTF(text);
        }

        private static void members(DataOutputStream out, int flags, int name, int type, int count)
            throws IOException {
            out.writeShort(count);
            for (int i = 0; i < count; i++)
                for (int word : new int[] {flags, name + i, type, 0})
                    out.writeShort(word);
        }
    }
}
