package qoragent.testing;

/**
 * Threads that start and end without end: "churn-threads" starts "churned-N" one after the other, four at a
 * time alive.
 */
public final class ThreadChurn {
    private static final int ALIVE = 4;

    private static final Object changed = new Object();
    private static Thread thread;
    private static volatile boolean stop;
    private static long ended;

    private ThreadChurn() {}

    public static synchronized void start() {
        if (thread != null)
            throw new IllegalStateException("churning already");
        stop = false;
        thread = new Thread(ThreadChurn::churn, "churn-threads");
        thread.setDaemon(true);
        thread.start();
    }

    public static synchronized void stop() throws InterruptedException {
        if (thread == null)
            return;
        stop = true;
        thread.join();
        thread = null;
    }

    /** Threads that have come and gone since the JVM started. */
    public static long ended() {
        synchronized (changed) {
            return ended;
        }
    }

    /** Returns when `more` further threads have come and gone. */
    public static void awaitEnded(long more) throws InterruptedException {
        synchronized (changed) {
            long goal = ended + more;
            while (ended < goal && !stop)
                changed.wait(1000);
        }
    }

    private static void churn() {
        Thread[] alive = new Thread[ALIVE];
        for (int i = 0; !stop; i++) {
            replace(alive, i % ALIVE, "churned-" + i);
            synchronized (changed) {
                if (i >= ALIVE)
                    ended++;
                changed.notifyAll();
            }
        }
        for (int i = 0; i < ALIVE; i++)
            replace(alive, i, null);
    }

    /** Waits for the thread of a place to end, and starts another there unless the name is null. */
    private static void replace(Thread[] alive, int place, String name) {
        try {
            if (alive[place] != null)
                alive[place].join();
        } catch (InterruptedException e) {
            stop = true;
        }
        if (name == null)
            return;
        alive[place] = new Thread(() -> new ClassChurn.Worker().run(), name);
        alive[place].setDaemon(true);
        alive[place].start();
    }
}
