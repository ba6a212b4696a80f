package qoragent.demo;

import java.util.concurrent.locks.LockSupport;

/** Threads that compute, wait, sleep, or stand deep in a recursion. */
final class Tasks {
    /** Frames of the deep stack, all counted. */
    static final int DEPTH = 400;

    private Tasks() {}

    static final class Compute extends Actor {
        private volatile int primes;

        Compute() { super("demo-compute", Thread.State.RUNNABLE, "countPrimes"); }

        @Override
        void act() {
            while (true)
                primes = countPrimes(20_000);
        }

        private int countPrimes(int limit) {
            int count = 0;
            for (int n = 2; n < limit; n++) {
                int d = 2;
                while (d < n && n % d != 0)
                    d++;
                if (d == n)
                    count++;
            }
            return count;
        }
    }

    static final class OrderQueue extends Actor {
        private final Object orders = new Orders();

        static final class Orders {}

        OrderQueue() { super("demo-wait", Thread.State.WAITING, "wait", "wait0"); }

        @Override
        void act() throws Exception {
            takeOrder();
        }

        private void takeOrder() throws InterruptedException {
            synchronized (orders) {
                while (true)
                    orders.wait();
            }
        }
    }

    static final class NightReport extends Actor {
        NightReport() { super("demo-sleep", Thread.State.TIMED_WAITING, "sleep", "sleep0", "sleepNanos0"); }

        @Override
        void act() throws Exception {
            Thread.sleep(Long.MAX_VALUE);
        }
    }

    /** Walks down a tree of categories and parks at the bottom. */
    static final class CategoryTree extends Actor {
        /** run and act below the recursion, LockSupport.park and its native above it. */
        private static final int OTHER_FRAMES = 4;

        CategoryTree() { super("demo-deep-stack", Thread.State.WAITING, "park"); }

        @Override
        void act() {
            descend(DEPTH - OTHER_FRAMES - 1);
        }

        private void descend(int levels) {
            if (levels > 0)
                descend(levels - 1);
            while (levels == 0)
                LockSupport.park();
        }

        @Override
        boolean inPlace() {
            return super.inPlace() && getStackTrace().length == DEPTH;
        }
    }
}
