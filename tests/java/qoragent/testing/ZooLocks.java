package qoragent.testing;

import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
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
    private static final long HOUR_MILLIS = 3_600_000;
    private static final String SLEEPING =
        "java.lang.Thread.sleep java.lang.Thread.sleep0 java.lang.Thread.sleepNanos0";
    static final String WAITING = "java.lang.Object.wait java.lang.Object.wait0";
    private static volatile int wanted;
    private static volatile int held = -1;

    private ZooLocks() {}

    static void addTo(List<Resident> all) {
        all.add(new Resident("sleep", Thread.State.TIMED_WAITING, SLEEPING, self -> {
            self.onRelease(() -> self.thread().interrupt());
            return () -> Thread.sleep(HOUR_MILLIS);
        }));
        all.add(Resident.parked("park", Resident.Gate::pass));
        all.add(new Resident("park-timed", Thread.State.TIMED_WAITING, Resident.PARKED,
                             self -> unparked(self, () -> LockSupport.parkNanos(TimeUnit.HOURS.toNanos(1)))));
        all.add(new Resident("latch", Thread.State.WAITING, Resident.PARKED, self -> {
            CountDownLatch latch = new CountDownLatch(1);
            self.onRelease(latch::countDown);
            return latch::await;
        }));
        all.add(new Resident("swapper", Thread.State.WAITING, Resident.PARKED,
                             self -> unparked(self, () -> hold(wanted, self))));
        all.add(waiting("wait", new Object(), 0));
        all.add(waiting("wait-timed", new Object(), HOUR_MILLIS));
        all.add(waiting("wait-inside", new Outer(), 0));
        all.add(new Resident("join", Thread.State.WAITING, WAITING, self -> {
            Resident joined = Resident.parked("joined", Resident.Gate::pass);
            joined.start();
            self.onRelease(joined::release);
            return joined.thread()::join;
        }));
        all.add(Resident.parked("holder", ZooLocks::takeOuter));
        all.add(new Resident("blocked", Thread.State.BLOCKED, "qoragent.testing.ZooLocks.wantInner",
                             self -> ZooLocks::takeWanting));
        all.add(new Resident("blocked-second", Thread.State.BLOCKED, "qoragent.testing.ZooLocks.takeWanting",
                             self -> ZooLocks::takeWanting));
        all.add(Resident.parked("reentrant", gate -> takeTwice(1, gate)));
        all.add(Resident.parked("lock-holder", gate -> {
            LOCK.lock();
            gate.pass();
            LOCK.unlock();
        }));
        all.add(new Resident("lock-waiter", Thread.State.WAITING, Resident.PARKED, self -> () -> {
            LOCK.lock();
            LOCK.unlock();
        }));
        all.add(new Resident("lock-waiter-timed", Thread.State.TIMED_WAITING, Resident.PARKED, self -> () -> {
            if (LOCK.tryLock(HOUR_MILLIS, TimeUnit.MILLISECONDS))
                LOCK.unlock();
        }));
    }

    /** Does it again until it is released, when it is unparked. */
    private static Resident.Work unparked(Resident self, Runnable step) {
        self.onRelease(() -> LockSupport.unpark(self.thread()));
        return () -> {
            while (!self.released())
                step.run();
        };
    }

    /** Waits for a monitor, which it gives up for that, inside its kind's, which it keeps. */
    private static Resident waiting(String kind, Object monitor, long millis) {
        Thread.State state = millis == 0 ? Thread.State.WAITING : Thread.State.TIMED_WAITING;
        return new Resident(kind, state, WAITING, self -> {
            self.onRelease(() -> notifyAll(monitor));
            return () -> await(self, monitor, millis);
        });
    }

    private static void notifyAll(Object monitor) {
        synchronized (monitor) {
            monitor.notifyAll();
        }
    }

    private static void await(Resident self, Object monitor, long millis) throws InterruptedException {
        synchronized (self) {
            synchronized (monitor) {
                while (!self.released())
                    monitor.wait(millis);
            }
        }
    }

    /** Parks at one place with one of two monitors, and takes the other when it is told to. */
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
                takeNothing(gate);
            }
        }
    }

    private static void takeNothing(Resident.Gate gate) { takeInner(gate); }

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
