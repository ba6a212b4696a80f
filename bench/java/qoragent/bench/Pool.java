package qoragent.bench;

import java.util.concurrent.CountDownLatch;
import java.util.concurrent.ExecutorService;
import java.util.concurrent.Executors;

/**
 * A server with little to do: 200 threads of a pool wait for work, and 20 others work a little every few
 * milliseconds, each inside a monitor of its own.
 */
final class Pool implements AutoCloseable {
    private static final int IDLE = 200;
    private static final int BUSY = 20;
    private static final int STEPS = 20_000;
    private static final long NAP_MILLIS = 5;

    private final ExecutorService pool =
        Executors.newFixedThreadPool(IDLE, task -> daemon(task, "bench-" + task.hashCode()));
    private volatile boolean stop;
    private volatile long result;

    Pool() throws InterruptedException {
        CountDownLatch all = new CountDownLatch(IDLE);
        for (int i = 0; i < IDLE; i++)
            pool.execute(() -> {
                all.countDown();
                try {
                    all.await();
                } catch (InterruptedException e) {
                    Thread.currentThread().interrupt();
                }
            });
        all.await();
        for (int i = 0; i < BUSY; i++)
            daemon(this::work, "bench-1" + i).start();
    }

    private static Thread daemon(Runnable task, String name) {
        Thread thread = new Thread(task, name);
        thread.setDaemon(true);
        return thread;
    }

    private void work() {
        Object own = new Object();
        while (!stop) {
            synchronized (own) {
                long state = own.hashCode();
                for (int i = 0; i < STEPS; i++)
                    state = state * 6364136223846793005L + 1442695040888963407L;
                result = state;
                Bench.sleep(NAP_MILLIS);
            }
        }
    }

    @Override
    public void close() {
        stop = true;
        pool.shutdownNow();
    }
}
