package qoragent.models;

import java.util.Arrays;
import tessar.jdbc.driver.TessarStatement;

/** A thread that executes a statement, and waits in it for as long as the server is silent. */
public final class Execution {
    private final Thread thread;

    private Execution(Thread thread) { this.thread = thread; }

    /** Returns when the thread waits in the driver's socket. */
    public static Execution of(String name, TessarStatement statement) throws InterruptedException {
        Thread thread = new Thread(() -> {
            try {
                statement.executeQuery();
            } catch (Exception e) {
                return; // the server has closed
            }
        }, name);
        thread.setDaemon(true);
        thread.start();
        Execution execution = new Execution(thread);
        while (!execution.isInSocket())
            Thread.sleep(1);
        return execution;
    }

    private boolean isInSocket() {
        StackTraceElement[] frames = thread.getStackTrace();
        return frames.length > 0 && frames[0].isNativeMethod() &&
            Arrays.stream(frames).anyMatch(f -> f.getClassName().equals("tessar.net.ns.Communication"));
    }

    /** Waits for the end of the thread, which the server's end brings. */
    public void join() throws InterruptedException { thread.join(); }
}
