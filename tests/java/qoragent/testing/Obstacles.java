package qoragent.testing;

import java.util.ArrayList;
import java.util.Hashtable;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/** Objects that a careless reader would wait for until release(), or for some seconds. */
public final class Obstacles {
    private static final List<Thread> holders = new ArrayList<>();
    private static CountDownLatch freed = new CountDownLatch(1);
    private static volatile Object object;

    private Obstacles() {}

    /** A table with a text as "REQUEST_URI", whose lock another thread holds. */
    public static Object lockedTable() throws Exception {
        Hashtable<String, Object> table = new Hashtable<>();
        table.put("REQUEST_URI", "/locked");
        return hold(() -> restWith(table));
    }

    private static void restWith(Object lock) {
        synchronized (lock) {
            rest(lock);
        }
    }

    /** An object with a "servletPath" whose class is being initialised by another thread. */
    public static Object inInitializer() throws Exception { return hold(Unborn::new); }

    /** Lets the other threads go on, and waits for their ends. */
    public static void release() throws Exception {
        freed.countDown();
        for (Thread holder : holders)
            holder.join();
        holders.clear();
        freed = new CountDownLatch(1);
    }

    private static Object hold(Runnable work) throws Exception {
        object = null;
        Thread holder = new Thread(work, "obstacle");
        holder.setDaemon(true);
        holder.start();
        holders.add(holder);
        while (object == null)
            Thread.sleep(1);
        return object;
    }

    private static void rest(Object obstacle) {
        CountDownLatch end = freed;
        object = obstacle;
        try {
            end.await(15, TimeUnit.SECONDS);
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    private static final class Unborn {
        static { rest(new Unborn()); }

        final String servletPath = "/born".trim();
    }
}
