package qoragent.testing;

import java.lang.ref.WeakReference;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;

/** An application that goes on until stop(), on daemon threads. */
public final class Churn {
    private static final int ALIVE = 4, ROUNDS_PER_COLLECTION = 50, SHELVES = 64;

    private static final List<Thread> threads = new ArrayList<>();
    private static final AtomicLong ended = new AtomicLong(), collected = new AtomicLong();
    private static final AtomicLong children = new AtomicLong(), wrong = new AtomicLong();
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

    /** Threads that start and end, four at a time alive. */
    public static synchronized void threads() {
        Thread[] alive = new Thread[ALIVE];
        repeat("churn-threads", () -> {
            for (int i = 0; i < ALIVE; i++) {
                if (alive[i] != null) {
                    alive[i].join();
                    ended.incrementAndGet();
                }
                alive[i] = new Thread(new Worker(), "churned");
                alive[i].setDaemon(true);
                alive[i].start();
            }
        });
    }

    /** Classes that are loaded, run and collected: copies of Worker, each in its own loader. */
    public static synchronized void classes() {
        Deque<WeakReference<ClassLoader>> loaders = new ArrayDeque<>();
        repeat("churn-classes", () -> {
            for (int i = 0; i < ROUNDS_PER_COLLECTION; i++) {
                ClassLoader loader = new OwnCopyLoader(Worker.class);
                Class<?> copy = Class.forName(Worker.class.getName(), true, loader);
                ((Runnable)copy.getDeclaredConstructor().newInstance()).run();
                loaders.add(new WeakReference<>(loader));
            }
            System.gc();
            int before = loaders.size();
            loaders.removeIf(loader -> loader.get() == null);
            collected.addAndGet(before - loaders.size());
        });
    }

    /** A heap that changes and is collected, exceptions, and processes whose exit codes are looked at. */
    public static synchronized void heap() {
        children.set(0);
        wrong.set(0);
        for (int i = 0; i < 2; i++)
            repeat("churn-heap", Churn::change);
        repeat("churn-throws", () -> {
            try {
                throw new IllegalStateException("thrown " + System.nanoTime());
            } catch (IllegalStateException e) {
                Thread.yield();
            }
        });
        repeat("churn-processes", () -> {
            int code = (int)(children.get() % 200);
            if (new ProcessBuilder("/bin/sh", "-c", "exit " + code).start().waitFor() != code)
                wrong.incrementAndGet();
            children.incrementAndGet();
        });
    }

    /** Threads that have come and gone, and loaders that were collected, since the JVM started. */
    public static long ended() { return ended.get(); }

    public static long collected() { return collected.get(); }

    /** Processes whose end was seen, and those that ended with another code than they were told to. */
    public static long children() { return children.get(); }

    public static long wrong() { return wrong.get(); }

    private static final class Box {
        Object left;
        Object right;
        byte[] bytes;
    }

    private static void change() {
        Random random = new Random();
        Box[] shelves = new Box[SHELVES];
        for (int i = 0; i < 20_000 && !stop; i++) {
            Box box = new Box();
            box.left = shelves[random.nextInt(SHELVES)];
            box.bytes = new byte[random.nextInt(100)];
            int place = random.nextInt(SHELVES);
            if (shelves[place] != null && random.nextInt(50) > 0)
                shelves[place].right = box;
            shelves[place] = random.nextInt(20) == 0 ? null : box;
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
                sum += i ^ left;
            Thread.yield();
        }

        int sum() { return sum + name.length(); }
    }
}
