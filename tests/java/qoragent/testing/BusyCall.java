package qoragent.testing;

import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;

/** Stands in for the class that the agent asks for busy threads, and keeps the agent waiting. */
public final class BusyCall {
    private static volatile CountDownLatch entered = new CountDownLatch(1);
    private static volatile CountDownLatch released = new CountDownLatch(0);
    private static volatile long limitMillis;

    private BusyCall() {}

    /** The next calls stay until let(), or for so long. */
    public static void hold(long millis) {
        limitMillis = millis;
        entered = new CountDownLatch(1);
        released = new CountDownLatch(1);
    }

    public static void let() { released.countDown(); }

    /** Waits until a call is inside; false after a minute. */
    public static boolean isHeld() throws InterruptedException { return entered.await(60, TimeUnit.SECONDS); }

    /** Called by the agent. */
    public static long[] datafrombci() throws InterruptedException {
        entered.countDown();
        released.await(limitMillis, TimeUnit.MILLISECONDS);
        return null;
    }
}
