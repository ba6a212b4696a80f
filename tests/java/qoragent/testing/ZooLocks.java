package qoragent.testing;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/** Residents that sleep, park, wait, and hold or want locks. */
final class ZooLocks {
    static final class Outer {}

    static final class Other {}

    static final class Inner {}

    static final class Wanting {}

    static final class Waiting {}

    private static final Object OUTER = new Outer();
    private static final Object MIDDLE = new byte[0];
    private static final Object TWIN = new String[0][];
    private static final Object INNER = new Inner();
    private static final Object WANTING = new Wanting();
    private static final Object REENTERED = new Outer();
    private static final Object AROUND_WAIT = new Outer();
    private static final ReentrantLock LOCK = new ReentrantLock();
    private static final long HOUR_MILLIS = 3_600_000;
    private static final String[] SLEEPING = {"java.lang.Thread.sleep", "java.lang.Thread.sleep0",
                                              "java.lang.Thread.sleepNanos0"};
    private static final String[] WAITING = {"java.lang.Object.wait", "java.lang.Object.wait0"};

    private ZooLocks() {}

    static List<Resident> residents() {
        return new ArrayList<>(
            Arrays.asList(new Sleep(), new Park(), new TimedPark(), new ObjectWait("wait", 0),
                          new ObjectWait("wait-timed", HOUR_MILLIS), new Join(), new Latch(), new Swapper(),
                          new Holder(), new Blocked(), new BlockedSecond(), new Reentrant(), new WaitInside(),
                          new LockHolder(), new LockWaiter(), new TimedLockWaiter()));
    }

    private static final class Sleep extends Resident {
        Sleep() { super("sleep", Thread.State.TIMED_WAITING, SLEEPING); }

        @Override
        void live() throws Exception {
            Thread.sleep(HOUR_MILLIS);
        }

        @Override
        void letGo() {
            thread().interrupt();
        }
    }

    private static final class Park extends Resident.Parked {
        Park() { super("park"); }

        @Override
        void walk() {
            gate.pass();
        }
    }

    private static final class TimedPark extends Resident {
        private volatile boolean open;

        TimedPark() { super("park-timed", Thread.State.TIMED_WAITING, PARKED); }

        @Override
        void live() {
            while (!open)
                LockSupport.parkNanos(TimeUnit.MILLISECONDS.toNanos(HOUR_MILLIS));
        }

        @Override
        void letGo() {
            open = true;
            LockSupport.unpark(thread());
        }
    }

    private static final class Latch extends Resident {
        private final CountDownLatch latch = new CountDownLatch(1);

        Latch() { super("latch", Thread.State.WAITING, PARKED); }

        @Override
        void live() throws Exception {
            latch.await();
        }

        @Override
        void letGo() {
            latch.countDown();
        }
    }

    /** Parks at one place with one of two monitors, and takes the other when it is told to. */
    static final class Swapper extends Resident {
        private final Object[] monitors = {new Outer(), new Other()};
        private volatile int wanted;
        private volatile int held = -1;

        Swapper() { super("swapper", Thread.State.WAITING, PARKED); }

        void swap() throws InterruptedException {
            wanted = 1 - wanted;
            LockSupport.unpark(thread());
            while (held != wanted)
                Thread.sleep(1);
            awaitParked();
        }

        @Override
        void live() {
            while (!released())
                stay(wanted);
        }

        private void stay(int mine) {
            synchronized (monitors[mine]) {
                held = mine;
                while (wanted == mine && !released())
                    LockSupport.park(monitors[mine]);
            }
        }

        @Override
        void letGo() {
            LockSupport.unpark(thread());
        }
    }

    private static final class ObjectWait extends Resident {
        private final Object monitor = new Waiting();
        private final long millis;

        ObjectWait(String kind, long millis) {
            super(kind, millis == 0 ? Thread.State.WAITING : Thread.State.TIMED_WAITING, ZooLocks.WAITING);
            this.millis = millis;
        }

        @Override
        void live() throws Exception {
            synchronized (monitor) {
                while (!released())
                    monitor.wait(millis);
            }
        }

        @Override
        void letGo() {
            synchronized (monitor) {
                monitor.notifyAll();
            }
        }
    }

    /** Joins its own starter's helper thread, which stays parked. */
    private static final class Join extends Resident {
        private final Gate gate = new Gate();
        private Thread joined;

        Join() { super("join", Thread.State.WAITING, ZooLocks.WAITING); }

        @Override
        void prepare() {
            joined = new Thread("zoo-joined") {
                @Override
                public void run() {
                    gate.pass();
                }
            };
            joined.setDaemon(true);
            joined.start();
        }

        @Override
        void live() throws Exception {
            joined.join();
        }

        @Override
        void letGo() {
            gate.open(joined);
        }
    }

    /** Holds four monitors in three frames. */
    private static final class Holder extends Resident.Parked {
        Holder() { super("holder"); }

        @Override
        void walk() {
            takeOuter();
        }

        private void takeOuter() {
            synchronized (OUTER) {
                takeMiddleAndTwin();
            }
        }

        private void takeMiddleAndTwin() {
            synchronized (MIDDLE) {
                synchronized (TWIN) {
                    takeNothing();
                }
            }
        }

        private void takeNothing() { takeInner(); }

        private void takeInner() {
            synchronized (INNER) {
                gate.pass();
            }
        }
    }

    /** Holds one monitor and wants the innermost of the holder's. */
    private static final class Blocked extends Resident {
        Blocked() { super("blocked", Thread.State.BLOCKED, "qoragent.testing.ZooLocks$Blocked.wantInner"); }

        @Override
        void live() {
            takeWanting();
            throw new IllegalStateException("the monitor was free");
        }

        private void takeWanting() {
            synchronized (WANTING) {
                wantInner();
            }
        }

        private void wantInner() {
            synchronized (INNER) {
                Thread.yield();
            }
        }

        /** Comes back by itself when the holder lets go. */
        @Override
        void letGo() {}
    }

    /** Wants the monitor that the blocked one holds. */
    private static final class BlockedSecond extends Resident {
        BlockedSecond() {
            super("blocked-second", Thread.State.BLOCKED, "qoragent.testing.ZooLocks$BlockedSecond.live");
        }

        @Override
        void live() {
            synchronized (WANTING) {
                throw new IllegalStateException("the monitor was free");
            }
        }

        @Override
        void letGo() {}
    }

    /** Holds one monitor twice, in two frames. */
    private static final class Reentrant extends Resident.Parked {
        Reentrant() { super("reentrant"); }

        @Override
        void walk() {
            take();
        }

        private void take() {
            synchronized (REENTERED) {
                takeAgain();
            }
        }

        private void takeAgain() {
            synchronized (REENTERED) {
                gate.pass();
            }
        }
    }

    /** Waits on one monitor, which it gives up for that, inside another, which it keeps. */
    private static final class WaitInside extends Resident {
        private final Object waitedFor = new Waiting();

        WaitInside() { super("wait-inside", Thread.State.WAITING, ZooLocks.WAITING); }

        @Override
        void live() throws Exception {
            takeAround();
        }

        private void takeAround() throws InterruptedException {
            synchronized (AROUND_WAIT) {
                synchronized (waitedFor) {
                    while (!released())
                        waitedFor.wait();
                }
            }
        }

        @Override
        void letGo() {
            synchronized (waitedFor) {
                waitedFor.notifyAll();
            }
        }
    }

    private static final class LockHolder extends Resident.Parked {
        LockHolder() { super("lock-holder"); }

        @Override
        void walk() {
            LOCK.lock();
            try {
                gate.pass();
            } finally {
                LOCK.unlock();
            }
        }
    }

    private static final class LockWaiter extends Resident {
        LockWaiter() { super("lock-waiter", Thread.State.WAITING, PARKED); }

        @Override
        void live() {
            LOCK.lock();
            LOCK.unlock();
        }

        @Override
        void letGo() {}
    }

    private static final class TimedLockWaiter extends Resident {
        TimedLockWaiter() { super("lock-waiter-timed", Thread.State.TIMED_WAITING, PARKED); }

        @Override
        void live() throws Exception {
            if (LOCK.tryLock(HOUR_MILLIS, TimeUnit.MILLISECONDS))
                LOCK.unlock();
        }

        @Override
        void letGo() {}
    }
}
