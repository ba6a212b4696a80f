package qoragent.testing;

import java.util.Arrays;
import java.util.List;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/** Residents that sleep, park, wait, and hold or want locks. */
final class ZooLocks {
    static final class Outer {}

    static final class Other {}

    private static final Object OUTER = new Outer();
    private static final Object MIDDLE = new byte[0];
    private static final Object TWIN = new String[0][];
    private static final Object INNER = new Other();
    private static final Object WANTING = new Other();
    private static final Object REENTERED = new Outer();
    private static final Object[] SWAPPED = {new Outer(), new Other()};
    private static final ReentrantLock LOCK = new ReentrantLock();
    private static volatile int wanted;
    private static volatile int held = -1;

    private ZooLocks() {}

    static List<Resident> all() {
        return Arrays.asList(
            new Resident("sleep", Thread.State.TIMED_WAITING, "sleep sleep0 sleepNanos0", ZooLocks::sleep),
            Resident.parked("park", Resident.Gate::pass),
            new Resident("swapper", Thread.State.WAITING, "park", ZooLocks::keepSwapping),
            new Resident("wait", Thread.State.WAITING, "wait wait0", ZooLocks::await),
            Resident.parked("holder", ZooLocks::takeOuter),
            new Resident("blocked", Thread.State.BLOCKED, "wantInner", self -> ZooLocks::takeWanting),
            new Resident("blocked-second", Thread.State.BLOCKED, "takeWanting",
                         self -> ZooLocks::takeWanting),
            Resident.parked("reentrant", gate -> takeTwice(1, gate)),
            Resident.parked("lock-holder", gate -> lock(gate::pass)),
            new Resident("lock-waiter", Thread.State.WAITING, "park", self -> () -> lock(() -> {})));
    }

    private static Resident.Work sleep(Resident self) {
        self.onRelease(() -> self.thread().interrupt());
        return () -> Thread.sleep(3_600_000);
    }

    /** Waits for a monitor, which it gives up for that, inside another, which it keeps. */
    private static Resident.Work await(Resident self) {
        Object monitor = new Object();
        self.onRelease(() -> notifyAll(monitor));
        return () -> awaitInside(self, monitor);
    }

    private static void awaitInside(Resident self, Object monitor) throws InterruptedException {
        synchronized (self) {
            synchronized (monitor) {
                while (!self.released())
                    monitor.wait();
            }
        }
    }

    private static void notifyAll(Object monitor) {
        synchronized (monitor) {
            monitor.notifyAll();
        }
    }

    private static void lock(Runnable inside) {
        LOCK.lock();
        inside.run();
        LOCK.unlock();
    }

    private static Resident.Work keepSwapping(Resident self) {
        self.onRelease(() -> LockSupport.unpark(self.thread()));
        return () -> {
            while (!self.released())
                hold(wanted, self);
        };
    }

    /** Parks at one place with one of two monitors, until it is to take the other. */
    private static void hold(int mine, Resident self) {
        synchronized (SWAPPED[mine]) {
            held = mine;
            while (wanted == mine && !self.released())
                LockSupport.park(SWAPPED[mine]);
        }
    }

    static void swap(Resident swapper) throws InterruptedException {
        wanted = 1 - wanted;
        LockSupport.unpark(swapper.thread());
        while (held != wanted)
            Thread.sleep(1);
        swapper.awaitParked();
    }

    /** Four monitors in three frames. */
    private static void takeOuter(Resident.Gate gate) {
        synchronized (OUTER) {
            takeMiddleAndTwin(gate);
        }
    }

    private static void takeMiddleAndTwin(Resident.Gate gate) {
        synchronized (MIDDLE) {
            synchronized (TWIN) {
                takeInner(gate);
            }
        }
    }

    private static void takeInner(Resident.Gate gate) {
        synchronized (INNER) {
            gate.pass();
        }
    }

    /** Holds one monitor, if it gets it, and wants the innermost of the holder's. */
    private static void takeWanting() {
        synchronized (WANTING) {
            wantInner();
        }
    }

    private static void wantInner() {
        synchronized (INNER) {
            Thread.yield();
        }
    }

    /** One monitor twice, in two frames. */
    private static void takeTwice(int more, Resident.Gate gate) {
        synchronized (REENTERED) {
            if (more > 0)
                takeTwice(more - 1, gate);
            else
                gate.pass();
        }
    }
}
