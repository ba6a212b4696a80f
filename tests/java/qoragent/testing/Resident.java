package qoragent.testing;

import java.util.Arrays;
import java.util.concurrent.locks.LockSupport;

/**
 * One thread that stands still in a known place until it is released.
 *
 * A resident is parked when its thread has the promised state and the promised method on top of its stack.
 * Each list of top methods holds one name for every generation of the JDK, 8 to 25.
 */
abstract class Resident implements Runnable {
    private static final long LIMIT_NANOS = 60_000_000_000L;

    /** Where threads park without a blocker object, so that no lock is reported for them. */
    static final String[] PARKED = {"sun.misc.Unsafe.park", "jdk.internal.misc.Unsafe.park"};

    final String kind;
    private final Thread.State state;
    private final String[] tops;
    private Thread thread;
    private volatile boolean released;
    private volatile Throwable failure;

    Resident(String kind, Thread.State state, String... tops) {
        this.kind = kind;
        this.state = state;
        this.tops = tops;
    }

    /** Makes what the thread needs; runs on the caller's thread, before the thread starts. */
    void prepare() throws Exception {}

    /** Goes to the known place and stays there; what it throws once released is of no interest. */
    abstract void live() throws Exception;

    /** Makes live() come back; runs on the caller's thread. */
    abstract void letGo() throws Exception;

    @Override
    public void run() {
        try {
            live();
            if (!released)
                failure = new IllegalStateException("came back by itself");
        } catch (Throwable t) {
            if (!released)
                failure = t;
        }
    }

    Thread thread() { return thread; }

    /** Starts the thread and returns when it is parked. */
    final void start() throws Exception {
        prepare();
        thread = new Thread(this, "zoo-" + kind);
        thread.setDaemon(true);
        thread.start();
        awaitParked();
    }

    final void awaitParked() throws InterruptedException {
        long end = System.nanoTime() + LIMIT_NANOS;
        while (!parked()) {
            if (failure != null)
                throw new IllegalStateException("zoo-" + kind + " could not stay", failure);
            if (System.nanoTime() > end)
                throw new IllegalStateException("zoo-" + kind + " is not parked: " + thread.getState() +
                                                " in " + Arrays.toString(thread.getStackTrace()));
            Thread.sleep(1);
        }
    }

    boolean parked() {
        if (thread.getState() != state)
            return false;
        StackTraceElement[] frames = thread.getStackTrace();
        return frames.length > 0 && isTop(frames[0]) && thread.getState() == state;
    }

    private boolean isTop(StackTraceElement frame) {
        return Arrays.asList(tops).contains(frame.getClassName() + "." + frame.getMethodName());
    }

    final boolean released() { return released; }

    final void release() throws Exception {
        released = true;
        if (thread != null)
            letGo();
    }

    final void awaitEnd() throws InterruptedException {
        if (thread == null)
            return;
        thread.join(LIMIT_NANOS / 1_000_000);
        if (thread.isAlive())
            throw new IllegalStateException("zoo-" + kind +
                                            " does not end: " + Arrays.toString(thread.getStackTrace()));
    }

    /** Holds its one thread in LockSupport.park until it is opened. */
    static final class Gate {
        private volatile boolean open;

        void pass() {
            while (!open)
                LockSupport.park();
        }

        void open(Thread thread) {
            open = true;
            LockSupport.unpark(thread);
        }
    }

    /** A resident that parks at the end of its own walk, see {@link #walk()}. */
    abstract static class Parked extends Resident {
        final Gate gate = new Gate();

        Parked(String kind) { super(kind, Thread.State.WAITING, PARKED); }

        /** Ends in gate.pass(). */
        abstract void walk() throws Exception;

        @Override
        void live() throws Exception {
            walk();
        }

        @Override
        void letGo() {
            gate.open(thread());
        }
    }
}
