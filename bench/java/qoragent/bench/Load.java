package qoragent.bench;

import java.util.concurrent.atomic.AtomicLongArray;

/** An application at work: threads that compute, and count what they have done. */
final class Load implements AutoCloseable {
    private static final int SPREAD = 16; // longs between two counters, so that they share no cache line
    private static final int STEPS = 2_000;

    private final AtomicLongArray done;
    private final Thread[] threads;
    private volatile boolean stop;

    Load(int count) {
        done = new AtomicLongArray(count * SPREAD);
        threads = new Thread[count];
        for (int i = 0; i < count; i++) {
            int slot = i * SPREAD;
            threads[i] = new Thread("bench-load-" + i) {
                @Override
                public void run() {
                    work(slot);
                }
            };
            threads[i].setDaemon(true);
            threads[i].start();
        }
    }

    private void work(int slot) {
        long state = slot + 1;
        while (!stop) {
            for (int i = 0; i < STEPS; i++)
                state = state * 6364136223846793005L + 1442695040888963407L;
            done.lazySet(slot, done.get(slot) + 1 + (state & 0));
        }
    }

    private long total() {
        long total = 0;
        for (int i = 0; i < done.length(); i += SPREAD)
            total += done.get(i);
        return total;
    }

    /** Work done in a second while the task ran. */
    double during(Runnable task) {
        long start = System.nanoTime();
        long before = total();
        task.run();
        return (total() - before) * 1e9 / (System.nanoTime() - start);
    }

    @Override
    public void close() throws InterruptedException {
        stop = true;
        for (Thread thread : threads)
            thread.join();
    }
}
