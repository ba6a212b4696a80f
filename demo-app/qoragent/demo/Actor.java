package qoragent.demo;

import java.util.Arrays;
import java.util.List;

/**
 * A thread that goes to a known place and stays there for the application's life.
 *
 * It is in place when it has the promised state with one of the promised methods on top of its stack: the
 * same call has different top methods on JDK 8 to 25, so all of them are listed.
 */
abstract class Actor extends Thread {
    private static final long LIMIT_NANOS = 30_000_000_000L;

    private final Thread.State place;
    private final List<String> tops;
    private volatile Throwable failure;

    Actor(String name, Thread.State place, String... tops) {
        super(name);
        this.place = place;
        this.tops = Arrays.asList(tops);
        setDaemon(true);
    }

    /** What a console should see of this thread's work in other tiers, as pairs; null when it has none. */
    String truth() { return null; }

    /** Goes to the place and doesn't come back. */
    abstract void act() throws Exception;

    @Override
    public final void run() {
        try {
            act();
            failure = new IllegalStateException("came back by itself");
        } catch (Throwable t) {
            failure = t;
        }
    }

    /** Starts the thread and returns when it is in place. */
    final void enter() throws InterruptedException {
        start();
        long start = System.nanoTime();
        while (!inPlace()) {
            if (failure != null)
                throw new IllegalStateException(getName() + " could not stay in its place", failure);
            if (System.nanoTime() - start > LIMIT_NANOS)
                throw new IllegalStateException(getName() + " is not in its place but " + getState() +
                                                " in " + Arrays.toString(getStackTrace()));
            Thread.sleep(1);
        }
    }

    boolean inPlace() {
        StackTraceElement[] frames = getStackTrace();
        return frames.length > 0 && tops.contains(frames[0].getMethodName()) && getState() == place;
    }
}
