package qoragent.testing;

import java.util.Arrays;
import java.util.List;

/** Residents that run, wait for a process, or are deep in a recursion. */
final class ZooRun {
    private static volatile long turns;

    private ZooRun() {}

    static List<Resident> all() {
        return Arrays.asList(
            new Resident("spin", Thread.State.RUNNABLE, "spin", self -> () -> spin(self)),
            new Resident("process-wait", Thread.State.WAITING, "wait wait0 park", ZooRun::awaitProcess),
            deep("deep", 60));
    }

    private static void spin(Resident self) {
        while (!self.released())
            turns++;
    }

    private static Resident.Work awaitProcess(Resident self) throws Exception {
        Process child = new ProcessBuilder("cat").start();
        self.onRelease(child.getOutputStream()::close); // the end of its input ends it
        return child::waitFor;
    }

    /** One that is `extra` calls deep below the frames that any of them has. */
    static Resident deep(String kind, int extra) {
        return Resident.parked(
            kind, gate -> descendUntilNoMoreCallIsLeftWithANameThatFillsStacksSooner(extra, gate));
    }

    private static void descendUntilNoMoreCallIsLeftWithANameThatFillsStacksSooner(int left,
                                                                                   Resident.Gate gate) {
        if (left > 0)
            descendUntilNoMoreCallIsLeftWithANameThatFillsStacksSooner(left - 1, gate);
        else
            gate.pass();
    }
}
