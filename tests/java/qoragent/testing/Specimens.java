package qoragent.testing;

import java.util.Arrays;

/** Objects to be looked into, and a thread with known objects in its locals. */
public final class Specimens {
    private static volatile Resident.Gate gate;
    private static volatile int used;

    private Specimens() {}

    /** A field of every kind; what is shown of each is in the tests. */
    public static class Values {
        public static Object shared = new Object();
        static boolean flag = true;
        static String[] none;
        static double quarter = -0.25;
        static String word = "static";
        static int[] list = {4, 5};

        public boolean yes = true;
        private boolean no;
        protected byte upper = 0x41;
        char wide = '\u0141'; // its lower byte is a letter
        short aShort = -1500;
        int anInt = -310000;
        long aLong = -63000000000L;
        float aFloat = 0.75f;
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
        String ascii = new String(new char[2000]).replace('\0', 'x');
        String accents = ascii.substring(0, 1022) + "\u00e9\u00e9";
        int[] many = new int[301];

        Long() { Arrays.fill(many, -100000000); }
    }

    public static class Big {
        byte[] bytes = new byte[64 << 20];
        String text = new String(new char[16 << 20]);
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
        case "hole":
            return new Object[] {new Base(), null};
        case "empty":
            return new Object[0];
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

    private static void hold(int again, String text, int[] numbers, Object[] some, Values values,
                             Class<?> kind) {
        Object nothing = null;
        if (again > 0)
            hold(again - 1, text + again, numbers.clone(), null, null, null);
        else
            gate.pass();
        used = Arrays.asList(text, numbers, some, values, kind, nothing).hashCode();
    }

    /** Starts "zoo-specimen", which is in hold(), called by itself. */
    public static void startHolder() throws Exception {
        gate = new Resident.Gate();
        gate.open(Thread.currentThread());
        hold(1, "warm", new int[0], new Object[0], new Values(), Values.class); // resolves what it refers to
        Zoo.admit(Resident.parked("specimen", toPass -> {
            gate = toPass;
            hold(1, "a text", new int[] {1, 2, 3}, new Object[1], new Values(), Values.class);
        }));
    }
}
