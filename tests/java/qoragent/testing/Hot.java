package qoragent.testing;

/** A thread "zoo-hot" in a compiled frame whose code holds an object that none of its locals does. */
public final class Hot {
    private static final int TIMES = 300_000;
    private static Object constant;
    private static volatile Object seen;

    private Hot() {}

    public static void start(Object held) throws Exception {
        constant = held;
        Zoo.admit(Resident.parked("hot", Hot::stay));
    }

    private static void stay(Resident.Gate gate) {
        Runnable[] ends = {
            () -> seen = constant, () -> seen = gate, new Thread()}; // so that the end stays a call
        for (int i = 0; i < TIMES; i++)
            hot(ends[i % ends.length]);
        hot(gate::pass);
    }

    private static void hot(Runnable end) {
        if (seen == Constant.VALUE)
            seen = null;
        end.run();
    }

    /** Initialised with the object that the compiled code then holds. */
    private static final class Constant { static final Object VALUE = Hot.constant; }
}
