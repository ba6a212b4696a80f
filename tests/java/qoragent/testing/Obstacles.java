package qoragent.testing;

import java.util.Hashtable;
import java.util.concurrent.CountDownLatch;

/** Objects that a careless reader would wait for. One at a time, until release(). */
public final class Obstacles {
    private static CountDownLatch held;
    private static CountDownLatch freed;
    private static Thread holder;
    private static Object object;

    private Obstacles() {}

    /** A table with a "REQUEST_URI" whose lock another thread holds. */
    public static Hashtable<?, ?> lockedTable() throws Exception {
        Hashtable<String, String> table = new Hashtable<>();
        table.put("REQUEST_URI", "/locked");
        hold(() -> restIn(table));
        return table;
    }

    private static void restIn(Object table) {
        synchronized (table) {
            rest(table);
        }
    }

    /** An object with a "servletPath" whose class is being initialised by another thread. */
    public static Object inInitializer() throws Exception {
        hold(() -> new Unborn());
        return object;
    }

    /** Lets the other thread go on, and waits for its end. */
    public static void release() throws Exception {
        freed.countDown();
        holder.join();
    }

    private static void hold(Runnable work) throws Exception {
        held = new CountDownLatch(1);
        freed = new CountDownLatch(1);
        holder = new Thread(work, "obstacle");
        holder.setDaemon(true);
        holder.start();
        held.await();
    }

    private static void rest(Object obstacle) {
        object = obstacle;
        held.countDown();
        try {
            freed.await();
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    private static final class Unborn {
        static { rest(new Unborn()); }

        final String servletPath = "/born".trim();
    }
}
