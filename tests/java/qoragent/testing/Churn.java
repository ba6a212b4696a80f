package qoragent.testing;

import java.io.File;
import java.io.IOException;
import java.lang.ref.WeakReference;
import java.net.URL;
import java.net.URLClassLoader;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;
import java.util.Map;
import java.util.Random;
import java.util.concurrent.ConcurrentHashMap;

/** An application that goes on until stop(), on daemon threads. */
public final class Churn {
    private static final int ALIVE = 4, ROUNDS_PER_COLLECTION = 50, SHELVES = 64;

    private static final List<Thread> threads = new ArrayList<>();
    private static final Map<String, Long> counts = new ConcurrentHashMap<>();
    private static volatile boolean stop;
    private static volatile Throwable failure;

    private Churn() {}

    private static void repeat(String name, Resident.Work round) {
        stop = false;
        Thread thread = new Thread(() -> {
            try {
                while (!stop)
                    round.run();
            } catch (Throwable t) {
                failure = t;
            }
        }, name);
        thread.setDaemon(true);
        thread.start();
        threads.add(thread);
    }

    public static synchronized void stop() throws Exception {
        stop = true;
        for (Thread thread : threads)
            thread.join();
        threads.clear();
        if (failure != null)
            throw new IllegalStateException("the churn broke", failure);
    }

    private static void count(String what, long more) { counts.merge(what, more, Long::sum); }

    /**
     * Since the JVM started: threads that have "ended", loaders that were "collected", "children" whose end was
     * seen, and those that ended with a "wrong" code.
     */
    public static long count(String what) { return counts.getOrDefault(what, 0L); }

    /** Threads that start and end, four at a time alive. */
    public static synchronized void threads() {
        Thread[] alive = new Thread[ALIVE];
        repeat("churn-threads", () -> {
            for (int i = 0; i < ALIVE; i++) {
                if (alive[i] != null) {
                    alive[i].join();
                    count("ended", 1);
                }
                alive[i] = new Thread(new Worker(), "churned");
                alive[i].setDaemon(true);
                alive[i].start();
            }
        });
    }

    /** A loader that has its own copies of the tests' classes. */
    static ClassLoader newLoader() throws IOException {
        List<URL> path = new ArrayList<>();
        for (String entry : System.getProperty("java.class.path").split(File.pathSeparator))
            path.add(new File(entry).toURI().toURL());
        return new URLClassLoader(path.toArray(new URL[0]), ClassLoader.getSystemClassLoader().getParent());
    }

    /** Classes that are loaded, run and collected: copies of Worker, each in its own loader. */
    public static synchronized void classes() {
        Deque<WeakReference<ClassLoader>> loaders = new ArrayDeque<>();
        repeat("churn-classes", () -> {
            for (int i = 0; i < ROUNDS_PER_COLLECTION; i++) {
                ClassLoader loader = newLoader();
                Class<?> copy = Class.forName(Worker.class.getName(), true, loader);
                ((Runnable)copy.getDeclaredConstructor().newInstance()).run();
                loaders.add(new WeakReference<>(loader));
            }
            System.gc();
            int before = loaders.size();
            loaders.removeIf(loader -> loader.get() == null);
            count("collected", before - loaders.size());
        });
    }

    /** A heap that changes and is collected, and processes whose exit codes are looked at. */
    public static synchronized void heap() {
        for (int i = 0; i < 2; i++)
            repeat("churn-heap", Churn::change);
        repeat("churn-processes", () -> {
            int code = (int)(count("children") % 200);
            if (new ProcessBuilder("/bin/sh", "-c", "exit " + code).start().waitFor() != code)
                count("wrong", 1);
            count("children", 1);
        });
    }

    private static void change() {
        Random random = new Random();
        Object[][] shelves = new Object[SHELVES][];
        for (int i = 0; i < 20_000 && !stop; i++) {
            Object[] box = {shelves[random.nextInt(SHELVES)], new byte[random.nextInt(100)]};
            shelves[random.nextInt(SHELVES)] = random.nextInt(20) == 0 ? null : box;
        }
        if (random.nextInt(10) == 0)
            System.gc();
    }

    /** Works for a moment, some frames deep. */
    public static final class Worker implements Runnable {
        private final String name = "/churn";
        private int sum;

        public Worker() {}

        @Override
        public void run() {
            descend(40);
        }

        private void descend(int left) {
            if (left > 0)
                descend(left - 1);
            for (int i = 0; i < 100; i++)
                sum += i ^ left ^ name.length();
            Thread.yield();
        }
    }
}
