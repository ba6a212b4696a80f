package qoragent.testing;

import java.lang.management.LockInfo;
import java.lang.management.ManagementFactory;
import java.lang.management.MonitorInfo;
import java.lang.management.ThreadInfo;
import java.util.ArrayList;
import java.util.Collections;
import java.util.List;

/** What the JVM itself says of its threads, as lines for tests to compare with. */
public final class Truth {
    private Truth() {}

    /**
     * All live threads, by ThreadMXBean.dumpAllThreads(true, false): a line "thread", id and name; a
     * line for each frame, without those of classes made at run time; the locks in order.
     */
    public static String threads() {
        StringBuilder text = new StringBuilder();
        for (ThreadInfo info : ManagementFactory.getThreadMXBean().dumpAllThreads(true, false))
            describe(text, info);
        return text.toString();
    }

    public static Object currentThread() { return Thread.currentThread(); }

    private static void describe(StringBuilder text, ThreadInfo info) {
        StackTraceElement[] frames = info.getStackTrace();
        text.append("thread " + info.getThreadId() + " " + info.getThreadName() + "\n");
        for (StackTraceElement frame : frames) {
            String call = frame.getClassName() + "->" + frame.getMethodName();
            int line = frame.getLineNumber();
            if (!call.contains("$$Lambda") && !call.contains("LambdaForm"))
                text.append(call + (line > 0 ? " " + frame.getFileName() + ":" + line : "") + "\n");
        }
        List<String> locks = new ArrayList<>();
        for (MonitorInfo owned : info.getLockedMonitors())
            locks.add("owns " + name(owned) + " by " + owned.getLockedStackDepth());
        LockInfo wanted = info.getLockInfo();
        if (wanted != null &&
            info.getLockOwnerId() > 0) // else it is what the thread waits on, or is parked by
            locks.add("wants " + name(wanted) + " of " + info.getLockOwnerId());
        else if (wanted != null && frames.length > 0 && frames[0].getMethodName().equals("park"))
            locks.add("parked on " + name(wanted));
        Collections.sort(locks);
        for (String lock : locks)
            text.append(lock + "\n");
    }

    private static String name(LockInfo lock) {
        return lock.getClassName() + "@" + lock.getIdentityHashCode();
    }
}
