package qoragent.testing;

import java.util.LinkedHashMap;
import java.util.Map;

/**
 * Threads that stand in frames with locals of the caller's choice, named "zoo-" and the part that they play.
 *
 * Frames are static methods, so that their arguments are the first locals. One caller at a time.
 */
public final class Stage {
    private static final int HOT = 300_000;
    private static final Map<String, Actor> actors = new LinkedHashMap<>();
    private static volatile Object seen;
    private static volatile Resident.Gate onlyGate;

    private Stage() {}

    /**
     * Starts a part: "three" stands in three(a, b, c); "nested" in the frames outer, middle, inner,
     * innermost, each with a; "recursion" in fall(a), fall(b), fall(c), with c on top; "leaver" in inside(a)
     * until leave(); "alone" in alone(a), without any other object; "hot" in a compiled frame whose only
     * object is a constant of its code: a.
     */
    public static void enter(String part, String name, Object a, Object b, Object c) throws Exception {
        Actor actor = new Actor(part, name, a, b, c);
        actors.put(name, actor);
        actor.start();
    }

    /** Makes the actor go from inside() to outside(), and waits until it stands there. */
    public static void leave(String name) throws Exception { actors.get(name).leave(); }

    /** Ends all parts. */
    public static void clear() throws Exception {
        for (Actor actor : actors.values())
            actor.release();
        for (Actor actor : actors.values())
            actor.awaitEnd();
        actors.clear();
    }

    private static final class Actor extends Resident.Parked {
        private final String part;
        private final Object[] props;
        private final Resident.Gate door = new Resident.Gate();
        private volatile boolean isOutside;

        Actor(String part, String name, Object... props) {
            super(name);
            this.part = part;
            this.props = props;
        }

        @Override
        void walk() {
            switch (part) {
            case "three":
                three(props[0], props[1], props[2], gate);
                break;
            case "nested":
                outer(props[0], gate);
                break;
            case "recursion":
                fall(props[0], props, 0, gate);
                break;
            case "leaver":
                inside(props[0], door);
                isOutside = true;
                outside(gate);
                break;
            case "hot":
                Hot.constant = props[0];
                warmUp();
                Hot.hot(gate::pass);
                break;
            case "alone":
                onlyGate = gate;
                alone(props[0]);
                break;
            default:
                throw new IllegalArgumentException(part);
            }
        }

        /** Ends of three classes, so that the call of the end is compiled as a call. */
        private void warmUp() {
            Runnable[] ends = {() -> seen = this, () -> seen = part, new Thread()};
            for (int i = 0; i < HOT; i++)
                Hot.hot(ends[i % ends.length]);
        }

        void leave() throws Exception {
            door.open(thread());
            while (!isOutside)
                Thread.sleep(1);
            awaitParked();
        }

        @Override
        void letGo() {
            door.open(thread());
            super.letGo();
        }
    }

    static void three(Object a, Object b, Object c, Resident.Gate gate) {
        gate.pass();
        seen = a;
        seen = b;
        seen = c;
    }

    static void alone(Object a) {
        onlyGate.pass();
        seen = a;
    }

    static void outer(Object a, Resident.Gate gate) {
        middle(a, gate);
        seen = a;
    }

    static void middle(Object a, Resident.Gate gate) {
        inner(a, gate);
        seen = a;
    }

    static void inner(Object a, Resident.Gate gate) {
        innermost(a, gate);
        seen = a;
    }

    static void innermost(Object a, Resident.Gate gate) {
        gate.pass();
        seen = a;
    }

    static void fall(Object mine, Object[] all, int depth, Resident.Gate gate) {
        if (depth + 1 < all.length)
            fall(all[depth + 1], all, depth + 1, gate);
        else
            gate.pass();
        seen = mine;
    }

    static void inside(Object a, Resident.Gate door) {
        door.pass();
        seen = a;
    }

    static void outside(Resident.Gate gate) { gate.pass(); }

    /** Its class is initialised with the object that its compiled code then holds. */
    static final class Hot {
        static Object constant;

        private Hot() {}

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
