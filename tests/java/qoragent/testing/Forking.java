package qoragent.testing;

import java.util.ArrayList;
import java.util.List;
import java.util.Random;
import java.util.concurrent.atomic.AtomicLong;

/** An application that goes on while dumps are made: it changes its heap, collects, and starts processes. */
public final class Forking {
    private static final int SHELVES = 64;

    private static final List<Thread> threads = new ArrayList<>();
    private static final AtomicLong children = new AtomicLong();
    private static final AtomicLong wrong = new AtomicLong();
    private static volatile boolean stop;
    private static volatile Throwable failure;

    private Forking() {}

    private static final class Box {
        Object left;
        Object right;
        byte[] bytes;
    }

    private interface Work {
        void run() throws Exception;
    }

    static void start() {
        stop = false;
        children.set(0);
        wrong.set(0);
        for (int i = 0; i < 2; i++)
            add("changes " + i, Forking::change);
        add("throws", Forking::throwOften);
        add("starts processes", Forking::startProcess);
    }

    private static void add(String name, Work step) {
        Thread thread = new Thread(() -> {
            try {
                while (!stop)
                    step.run();
            } catch (Throwable t) {
                failure = t;
            }
        }, name);
        thread.setDaemon(true);
        thread.start();
        threads.add(thread);
    }

    static void stop() throws Exception {
        stop = true;
        for (Thread thread : threads)
            thread.join();
        threads.clear();
        if (failure != null)
            throw new IllegalStateException("the application broke", failure);
    }

    /** Children whose end the application has seen. */
    static long children() { return children.get(); }

    /** Those of them whose exit code was another than they were told to end with. */
    static long wrong() { return wrong.get(); }

    private static void change() {
        Random random = new Random();
        Box[] shelves = new Box[SHELVES];
        for (int i = 0; i < 20_000 && !stop; i++) {
            Box box = new Box();
            box.left = shelves[random.nextInt(SHELVES)];
            box.bytes = new byte[random.nextInt(100)];
            int place = random.nextInt(SHELVES);
            Box above = shelves[place];
            if (above != null && random.nextInt(50) > 0)
                above.right = box;
            shelves[place] = random.nextInt(20) == 0 ? null : box;
        }
        if (random.nextInt(10) == 0)
            System.gc();
    }

    private static void throwOften() {
        try {
            throw new IllegalStateException("thrown " + System.nanoTime());
        } catch (IllegalStateException e) {
            Thread.yield();
        }
    }

    private static void startProcess() throws Exception {
        int code = (int)(children.get() % 200);
        int seen = new ProcessBuilder("/bin/sh", "-c", "exit " + code).start().waitFor();
        if (seen != code)
            wrong.incrementAndGet();
        children.incrementAndGet();
    }
}
