package qoragent.testing;

import java.lang.ref.WeakReference;
import java.util.ArrayDeque;
import java.util.Deque;

/**
 * Classes that are loaded, run and collected without end, on the daemon thread "churn-classes".
 *
 * Each round defines a fresh copy of Worker in a loader of its own, runs it some frames deep and forgets it;
 * every 50th round asks for a collection.
 */
public final class ClassChurn {
    private static final int ROUNDS_PER_COLLECTION = 50;

    private static final Object changed = new Object();
    private static Thread thread;
    private static volatile boolean stop;
    private static volatile Throwable failure;
    private static long rounds;
    private static long collected;

    private ClassChurn() {}

    public static synchronized void start() {
        if (thread != null)
            throw new IllegalStateException("churning already");
        stop = false;
        failure = null;
        thread = new Thread(ClassChurn::churn, "churn-classes");
        thread.setDaemon(true);
        thread.start();
    }

    public static synchronized void stop() throws InterruptedException {
        if (thread == null)
            return;
        stop = true;
        thread.join();
        thread = null;
        if (failure != null)
            throw new IllegalStateException("the churn broke", failure);
    }

    /** Rounds since the JVM started. */
    public static long rounds() {
        synchronized (changed) {
            return rounds;
        }
    }

    /** Loaders that the JVM has collected so far: proof that classes do go away. */
    public static long collected() {
        synchronized (changed) {
            return collected;
        }
    }

    /** Returns when `more` further loaders have been collected. */
    public static void awaitCollected(long more) throws InterruptedException {
        synchronized (changed) {
            long goal = collected + more;
            while (collected < goal && failure == null && !stop)
                changed.wait(1000);
        }
        if (failure != null)
            throw new IllegalStateException("the churn broke", failure);
    }

    private static void churn() {
        Deque<WeakReference<ClassLoader>> loaders = new ArrayDeque<>();
        try {
            while (!stop) {
                loaders.add(new WeakReference<>(round()));
                if (rounds() % ROUNDS_PER_COLLECTION == 0)
                    System.gc();
                count(loaders);
            }
        } catch (Exception | Error e) {
            failure = e;
        }
    }

    private static ClassLoader round() throws Exception {
        ClassLoader loader = new OwnCopyLoader(Worker.class);
        Class<?> copy = Class.forName(Worker.class.getName(), true, loader);
        Runnable worker = (Runnable)copy.getDeclaredConstructor().newInstance();
        worker.run();
        return loader;
    }

    private static void count(Deque<WeakReference<ClassLoader>> loaders) {
        int before = loaders.size();
        loaders.removeIf(loader -> loader.get() == null);
        synchronized (changed) {
            rounds++;
            collected += before - loaders.size();
            changed.notifyAll();
        }
    }

    /** Works for a moment, some frames deep. */
    public static final class Worker implements Runnable {
        private static final int DEPTH = 40;

        private final String name = "/churn";
        private int sum;

        public Worker() {}

        @Override
        public void run() {
            descend(DEPTH);
        }

        private void descend(int left) {
            if (left > 0)
                descend(left - 1);
            for (int i = 0; i < 100; i++)
                sum += i ^ left;
            Thread.yield();
        }

        int sum() { return sum; }
    }
}
