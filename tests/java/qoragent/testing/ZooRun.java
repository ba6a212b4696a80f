package qoragent.testing;

import java.util.List;

/** Residents that run, wait in a class's initialiser or for a process, or are deep in a recursion. */
final class ZooRun {
    private static volatile long turns;

    private ZooRun() {}

    static void addTo(List<Resident> all) {
        all.add(new Resident("spin", Thread.State.RUNNABLE, "qoragent.testing.ZooRun.spin",
                             self -> () -> spin(self)));
        all.add(Resident.parked("initialiser", gate -> {
            SlowStart.gate = gate;
            Class.forName(Stuck.class.getName(), true, new OwnCopyLoader(Stuck.class));
        }));
        all.add(new Resident(
            "process-wait", Thread.State.WAITING, ZooLocks.WAITING + " " + Resident.PARKED, self -> {
                Process child = new ProcessBuilder("cat").start();
                self.onRelease(child.getOutputStream()::close); // the end of its input ends it
                return child::waitFor;
            }));
        all.add(deep("deep", 60));
    }

    private static void spin(Resident self) {
        long n = 0;
        while (!self.released())
            n++;
        turns = n;
    }

    /** The class whose initialiser doesn't end; each zoo loads it anew. */
    static final class Stuck {
        static { SlowStart.pass(); }

        private Stuck() {}
    }

    /** What it waits for; public, as copies of Stuck are in packages of their own. */
    public static final class SlowStart {
        private static volatile Resident.Gate gate;

        private SlowStart() {}

        public static void pass() { gate.pass(); }
    }

    /** One that is `extra` calls deep below the frames that any of them has. */
    static Resident deep(String kind, int extra) {
        return Resident.parked(kind, gate -> descend(extra, gate));
    }

    private static void descend(int left, Resident.Gate gate) {
        if (left > 0)
            descend(left - 1, gate);
        else
            gate.pass();
    }

    /** One that is 500 calls deep in a class whose name makes its stack rows long. */
    static Resident wide(String kind) {
        return Resident.parked(
            kind,
            gate
            -> WithANameSoLongThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHas
                   .descend(500, gate));
    }

    static final class
        WithANameSoLongThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHas {
        static void descend(int left, Resident.Gate gate) {
            if (left > 0)
                descend(left - 1, gate);
            else
                gate.pass();
        }
    }
}
