package qoragent.bench;

import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.locks.LockSupport;

/**
 * A number of threads that stand still at a depth. Their stacks go through 24 methods of two classes; each
 * thread holds a monitor, and each tenth wants one that the first thread of all holds.
 */
final class Crowd implements AutoCloseable {
    /** run, stand and begin below the walk down; bottom and the two of the park above it. */
    private static final int OTHER_FRAMES = 6;

    private final Object common = new Object();
    private final CountDownLatch inPlace;
    private final List<Thread> threads = new ArrayList<>();
    private volatile boolean open;

    Crowd(int count, int depth) throws InterruptedException {
        inPlace = new CountDownLatch(count);
        for (int i = 0; i < count; i++) {
            int number = i;
            Thread thread = new Thread("bench-" + number) {
                @Override
                public void run() {
                    stand(number, depth);
                }
            };
            thread.setDaemon(true);
            thread.start();
            threads.add(thread);
            if (i == 0)
                awaitState(thread, Thread.State.WAITING); // it holds what others want
        }
        inPlace.await();
        for (Thread thread : threads)
            awaitState(thread, wants(threads.indexOf(thread)) ? Thread.State.BLOCKED : Thread.State.WAITING);
        int found = threads.get(0).getStackTrace().length;
        if (found != depth)
            throw new IllegalStateException("a stack has " + found + " frames and not " + depth);
    }

    private static boolean wants(int number) { return number > 0 && number % 10 == 0; }

    private static void awaitState(Thread thread, Thread.State state) throws InterruptedException {
        while (thread.getState() != state)
            Thread.sleep(1);
    }

    void stand(int number, int depth) {
        if (number == 0) {
            synchronized (common) {
                begin(number, depth);
            }
        } else {
            begin(number, depth);
        }
    }

    private void begin(int number, int depth) {
        synchronized (new Object()) {
            new Steps(this, number).a(depth - OTHER_FRAMES - 1);
        }
    }

    /** Where the walk down ends. */
    void bottom(int number) {
        inPlace.countDown();
        if (wants(number)) {
            synchronized (common) {
                return;
            }
        }
        while (!open)
            LockSupport.park();
    }

    @Override
    public void close() throws InterruptedException {
        open = true;
        for (Thread thread : threads)
            LockSupport.unpark(thread);
        for (Thread thread : threads)
            thread.join();
    }
}
