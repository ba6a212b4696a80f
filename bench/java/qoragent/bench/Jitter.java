package qoragent.bench;

/** A thread that only reads the clock: a gap between two readings is a pause of the application. */
final class Jitter extends Thread implements AutoCloseable {
    private volatile long longest;
    private volatile boolean reset;
    private volatile boolean stop;

    Jitter() {
        super("bench-jitter");
        setDaemon(true);
        start();
    }

    @Override
    public void run() {
        long last = System.nanoTime();
        long worst = 0;
        while (!stop) {
            long now = System.nanoTime();
            if (now - last > worst)
                longest = worst = now - last;
            last = now;
            if (reset) {
                longest = worst = 0;
                reset = false;
            }
        }
    }

    /** The longest gap, in milliseconds, while the task ran. */
    double during(Runnable task) {
        reset = true;
        while (reset)
            Thread.yield();
        task.run();
        return longest / 1e6;
    }

    @Override
    public void close() throws InterruptedException {
        stop = true;
        join();
    }
}
