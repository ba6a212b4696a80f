package qoragent.testing;

import java.io.Closeable;
import java.util.ArrayDeque;
import java.util.Arrays;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.locks.LockSupport;

/**
 * One thread that stays in a known place until it is released.
 *
 * It is parked when its thread has the promised state and the promised method on top of its stack, a native one or
 * the tests' own. The top methods, with blanks between, are one name for every generation of the JDK, 8 to 25.
 */
final class Resident implements Runnable {
    interface Work {
        void run() throws Exception;
    }

    /**
     * Makes what the thread needs, on the caller's thread, and says by onRelease() and closing() what ends its stay.
     * Returns what the thread does: it goes to the known place and stays there.
     */
    interface Part {
        Work begin(Resident self) throws Exception;
    }

    /** Ends in gate.pass(). */
    interface Walk {
        void to(Gate gate) throws Exception;
    }

    final String kind;
    private final Thread.State state;
    private final List<String> tops;
    private final Part part;
    private final Deque<Work> ends = new ArrayDeque<>();
    private Work work;
    private Thread thread;
    private volatile boolean released;
    private volatile Throwable failure;

    Resident(String kind, Thread.State state, String tops, Part part) {
        this.kind = kind;
        this.state = state;
        this.tops = Arrays.asList(tops.split(" "));
        this.part = part;
    }

    /** One that parks at the end of its walk. */
    static Resident parked(String kind, Walk walk) {
        return new Resident(kind, Thread.State.WAITING, "park", self -> {
            Gate gate = new Gate();
            self.onRelease(() -> gate.open(self.thread()));
            return () -> walk.to(gate);
        });
    }

    /** What brings the thread back; the last one that was named runs first. */
    void onRelease(Work end) { ends.push(end); }

    <T extends Closeable> T closing(T resource) {
        onRelease(resource::close);
        return resource;
    }

    @Override
    public void run() {
        try {
            work.run();
            if (!released)
                failure = new IllegalStateException("came back by itself");
        } catch (Throwable t) {
            if (!released)
                failure = t;
        }
    }

    Thread thread() { return thread; }

    boolean released() { return released; }

    /** Starts the thread and returns when it is parked. */
    void start() throws Exception {
        work = part.begin(this);
        thread = new Thread(this, "zoo-" + kind);
        thread.setDaemon(true);
        thread.start();
        awaitParked();
    }

    void awaitParked() throws InterruptedException {
        while (!parked()) {
            if (failure != null)
                throw new IllegalStateException("zoo-" + kind + " could not stay", failure);
            Thread.sleep(1);
        }
    }

    private boolean parked() {
        if (thread.getState() != state)
            return false;
        StackTraceElement[] frames = thread.getStackTrace();
        return frames.length > 0 && thread.getState() == state && tops.contains(frames[0].getMethodName()) &&
            (frames[0].isNativeMethod() || frames[0].getClassName().startsWith("qoragent."));
    }

    void release() throws Exception {
        released = true;
        for (Work end : ends)
            end.run();
    }

    void awaitEnd() throws InterruptedException { thread.join(); }

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
}
