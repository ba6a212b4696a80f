package qoragent.testing;

import java.util.HashMap;
import java.util.Map;

/**
 * Threads that stand in frames with locals of the caller's choice, named "zoo-" and the part that they play.
 *
 * Frames are static methods, so that their arguments are the first locals. One caller at a time.
 */
public final class Stage {
    private static final int HOT = 300_000;
    private static volatile Object seen;

    private Stage() {}

    /**
     * Starts a part: "three" is in three(a, b, c); "nested" in the frames inner and innermost, both with a;
     * "hot" in a compiled frame whose only object is a constant of its code: a.
     */
    public static void enter(String part, String name, Object a, Object b, Object c) throws Exception {
        Map<String, Resident.Walk> parts = new HashMap<>();
        parts.put("three", gate -> three(a, b, c, gate));
        parts.put("nested", gate -> inner(a, gate));
        parts.put("hot", gate -> Hot.stay(a, gate));
        Zoo.admit(Resident.parked(name, parts.get(part)));
    }

    static void three(Object a, Object b, Object c, Resident.Gate gate) {
        gate.pass();
        seen = a;
        seen = b;
        seen = c;
    }

    static void inner(Object a, Resident.Gate gate) {
        innermost(a, gate);
        seen = a;
    }

    static void innermost(Object a, Resident.Gate gate) {
        gate.pass();
        seen = a;
    }

    /** Its class is initialised with the object that its compiled code then holds. */
    static final class Hot {
        static Object constant;

        private Hot() {}

        static void stay(Object a, Resident.Gate gate) {
            constant = a;
            Runnable[] ends = {
                () -> seen = a, () -> seen = gate, new Thread()}; // so that the end stays a call
            for (int i = 0; i < HOT; i++)
                hot(ends[i % ends.length]);
            hot(gate::pass);
        }

        static void hot(Runnable end) {
            if (seen == Constant.VALUE)
                seen = null;
            end.run();
        }

        static final class Constant {
            static final Object VALUE = Hot.constant;

            private Constant() {}
        }
    }
}
