package qoragent.testing;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/** Residents that run, stand in a class's initialiser, stand deep in a recursion, or stand below a lambda. */
final class ZooRun {
    private ZooRun() {}

    static List<Resident> residents() {
        return new ArrayList<>(Arrays.asList(new Spin(), new Lambda(), new Initialiser(), new ProcessWait(),
                                             new Deep("deep", 60)));
    }

    private static final class Spin extends Resident {
        private volatile boolean stop;
        private volatile long turns;

        Spin() { super("spin", Thread.State.RUNNABLE, "qoragent.testing.ZooRun$Spin.spin"); }

        @Override
        void live() {
            spin();
        }

        private void spin() {
            long n = 0;
            while (!stop)
                n++;
            turns = n;
        }

        @Override
        void letGo() {
            stop = true;
        }
    }

    /** Its stack holds frames of a class that the JVM made at run time. */
    private static final class Lambda extends Resident.Parked {
        Lambda() { super("lambda"); }

        @Override
        void walk() {
            Runnable step = () -> gate.pass();
            step.run();
        }
    }

    /** The class whose initialiser stands still; each zoo loads it anew. */
    static final class Stuck {
        static final long BORN;

        static {
            SlowStart.pass();
            BORN = System.nanoTime();
        }

        private Stuck() {}

        static long born() { return BORN; }
    }

    /** What the stuck initialiser waits on; public, as copies of Stuck live in packages of their own. */
    public static final class SlowStart {
        private static volatile Resident.Gate gate;

        private SlowStart() {}

        public static void pass() { gate.pass(); }
    }

    private static final class Initialiser extends Resident {
        Initialiser() { super("initialiser", Thread.State.WAITING, PARKED); }

        @Override
        void prepare() {
            SlowStart.gate = new Resident.Gate();
        }

        @Override
        void live() throws Exception {
            Class.forName(Stuck.class.getName(), true, new OwnCopyLoader(Stuck.class));
        }

        @Override
        void letGo() {
            SlowStart.gate.open(thread());
        }
    }

    private static final class ProcessWait extends Resident {
        private Process child;

        ProcessWait() {
            super("process-wait", Thread.State.WAITING, "java.lang.Object.wait", "java.lang.Object.wait0",
                  "sun.misc.Unsafe.park", "jdk.internal.misc.Unsafe.park");
        }

        @Override
        void prepare() throws Exception {
            child = new ProcessBuilder("cat").start();
        }

        @Override
        void live() throws Exception {
            child.waitFor();
        }

        /** The end of its input ends the child. */
        @Override
        void letGo() throws Exception {
            child.getOutputStream().close();
        }
    }

    /** Stands 500 calls deep in a class whose name makes its stack rows long. */
    static final class
        WithANameSoLongThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHas
        extends Resident.Parked {
        WithANameSoLongThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHas(
            String kind) {
            super(kind);
        }

        @Override
        void walk() {
            descend(500);
        }

        private void descend(int left) {
            if (left > 0)
                descend(left - 1);
            else
                gate.pass();
        }
    }

    /** Stands `extra` calls deep below the frames that any Deep has. */
    static final class Deep extends Resident.Parked {
        private final int extra;

        Deep(String kind, int extra) {
            super(kind);
            this.extra = extra;
        }

        @Override
        void walk() {
            descend(extra);
        }

        private void descend(int left) {
            if (left > 0)
                descend(left - 1);
            else
                gate.pass();
        }
    }
}
