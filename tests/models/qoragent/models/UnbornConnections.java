package qoragent.models;

import java.util.concurrent.CountDownLatch;
import tessar.jdbc.driver.FormerConnection;
import tessar.jdbc.driver.TessarConnection;

/** Connections whose classes are in their static initialisers until release(). */
public final class UnbornConnections {
    private static final CountDownLatch MADE = new CountDownLatch(2);
    private static final CountDownLatch RELEASED = new CountDownLatch(1);

    private static TessarConnection direct;
    private static FormerConnection layered;

    private UnbornConnections() {}

    /** Returns when both are there. */
    public static void make() throws InterruptedException {
        for (Runnable birth : new Runnable[] {Direct::touch, Layered::touch}) {
            Thread thread = new Thread(birth, "birth");
            thread.setDaemon(true);
            thread.start();
        }
        MADE.await();
    }

    public static TessarConnection direct() { return direct; }

    public static FormerConnection layered() { return layered; }

    public static void release() { RELEASED.countDown(); }

    private static void waitForRelease() {
        MADE.countDown();
        try {
            RELEASED.await();
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    private static final class Direct extends TessarConnection {
        static {
            direct = new Direct();
            waitForRelease();
        }

        Direct() { super("jdbc:unborn", "unborn", null); }

        static void touch() {}
    }

    private static final class Layered extends FormerConnection {
        static {
            layered = new Layered();
            waitForRelease();
        }

        Layered() { super("jdbc:unborn", "unborn", null); }

        static void touch() {}
    }
}
