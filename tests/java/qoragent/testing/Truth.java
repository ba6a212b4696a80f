package qoragent.testing;

import java.lang.management.LockInfo;
import java.lang.management.ManagementFactory;
import java.lang.management.MonitorInfo;
import java.lang.management.ThreadInfo;
import java.util.Map;
import java.util.TreeMap;

/**
 * What the JVM itself says of its threads, as plain lines for tests to compare with. Fields are separated by
 * tabs, and a thread's lines stand together:
 *
 * <pre>
 * thread  id  name  state
 * frame   index  class->method  file  line      top first; no file is "-"; line as StackTraceElement has it
 * owned   depth  class  hash                    monitors held; hash in hex without leading zeros
 * wants   class  hash  owner-id                 the lock waited for; owner -1 when nobody holds it
 * </pre>
 */
public final class Truth {
    private Truth() {}

    /** All live threads with their monitors, by ThreadMXBean.dumpAllThreads(true, false), ordered by id. */
    public static String threads() {
        Map<Long, String> byId = new TreeMap<>();
        for (ThreadInfo info : ManagementFactory.getThreadMXBean().dumpAllThreads(true, false))
            byId.put(info.getThreadId(), describe(info));
        return String.join("", byId.values());
    }

    public static Object currentThread() { return Thread.currentThread(); }

    /** Whether a daemon thread of that id lives. */
    public static boolean isDaemon(long id) {
        return Thread.getAllStackTraces().keySet().stream().anyMatch(t -> t.getId() == id && t.isDaemon());
    }

    private static String describe(ThreadInfo info) {
        StringBuilder text = new StringBuilder();
        line(text, "thread", info.getThreadId(), info.getThreadName(), info.getThreadState());
        frames(text, info.getStackTrace());
        for (MonitorInfo owned : info.getLockedMonitors())
            line(text, "owned", owned.getLockedStackDepth(), owned.getClassName(), hash(owned));
        LockInfo wanted = info.getLockInfo();
        if (wanted != null)
            line(text, "wants", wanted.getClassName(), hash(wanted), info.getLockOwnerId());
        return text.toString();
    }

    private static void frames(StringBuilder text, StackTraceElement[] frames) {
        for (int i = 0; i < frames.length; i++)
            line(text, "frame", i, frames[i].getClassName() + "->" + frames[i].getMethodName(),
                 frames[i].getFileName() == null ? "-" : frames[i].getFileName(), frames[i].getLineNumber());
    }

    private static String hash(LockInfo lock) { return Integer.toHexString(lock.getIdentityHashCode()); }

    private static void line(StringBuilder text, Object... fields) {
        for (int i = 0; i < fields.length; i++)
            text.append(i == 0 ? "" : "\t").append(fields[i]);
        text.append('\n');
    }
}
