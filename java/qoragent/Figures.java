package qoragent;

import java.lang.management.ManagementFactory;
import java.lang.management.OperatingSystemMXBean;
import java.lang.management.ThreadMXBean;

/**
 * What the JVM has counted for the threads of a sample: CPU time and allocated bytes, each asked for once for
 * all threads. What it doesn't count, or was told not to, is left out; nothing is switched on.
 */
final class Figures {
    private static final char RECORD_END = 30;
    private static final long NO_THREAD = Long.MAX_VALUE; // an id that no thread has

    private final long[] cpuTimes;  // nanoseconds; null when the JVM doesn't say
    private final long[] allocated; // bytes; the same

    private Figures(long[] cpuTimes, long[] allocated) {
        this.cpuTimes = cpuTimes;
        this.allocated = allocated;
    }

    /** The figures of the first `count` threads; null when this JVM has none. */
    static Figures of(Object[] threads, int count) {
        long[] ids = new long[count];
        for (int i = 0; i < count; i++)
            ids[i] = idOf((Thread)threads[i]);
        try {
            ThreadMXBean bean = ManagementFactory.getThreadMXBean();
            Figures all = Batch.of(bean, ids);
            return all != null ? all : new Figures(oneByOne(bean, ids), null);
        } catch (Throwable noManagement) {
            return null;
        }
    }

    /** Appends "cpu=NANOSECONDS alloc=BYTES" of a thread; false when neither is known. */
    boolean append(StringBuilder text, int index) {
        boolean known = pair(text, "cpu=", cpuTimes, index, false);
        return pair(text, "alloc=", allocated, index, known) || known;
    }

    /**
     * Appends the record of the system as a whole: its title, a record end, and pairs of the process's CPU
     * time (ns), the machine's load average, live threads, most threads so far, daemons, loaded classes and
     * the time since the start (ms); "^" when none is known.
     */
    static void system(StringBuilder text) {
        text.append("Java System Data").append(RECORD_END);
        int start = text.length();
        try {
            OperatingSystemMXBean machine = ManagementFactory.getOperatingSystemMXBean();
            ThreadMXBean threads = ManagementFactory.getThreadMXBean();
            Batch.appendProcess(text, machine);
            text.append("load=").append(Math.round(machine.getSystemLoadAverage() * 100) / 100.0);
            text.append(" threads=").append(threads.getThreadCount());
            text.append(" peak=").append(threads.getPeakThreadCount());
            text.append(" daemons=").append(threads.getDaemonThreadCount());
            text.append(" classes=").append(ManagementFactory.getClassLoadingMXBean().getLoadedClassCount());
            text.append(" uptime=").append(ManagementFactory.getRuntimeMXBean().getUptime());
        } catch (Throwable noManagement) {
            // what there is so far is whole pairs
            if (text.length() == start)
                text.append('^');
        }
    }

    private static boolean pair(StringBuilder text, String key, long[] values, int index, boolean behindOne) {
        if (values == null || values[index] < 0)
            return false;
        text.append(behindOne ? " " : "").append(key).append(values[index]);
        return true;
    }

    /** The id; an application's class may answer what it likes, or fail. */
    private static long idOf(Thread thread) {
        try {
            long id = thread.getId();
            return id > 0 ? id : NO_THREAD;
        } catch (Throwable t) {
            return NO_THREAD;
        }
    }

    private static long[] oneByOne(ThreadMXBean bean, long[] ids) {
        if (!bean.isThreadCpuTimeSupported())
            return null;
        long[] times = new long[ids.length];
        for (int i = 0; i < ids.length; i++)
            times[i] = bean.getThreadCpuTime(ids[i]);
        return times;
    }

    /** The JDK's own extensions, in a class of their own as a runtime image may lack them. */
    private static final class Batch {
        static Figures of(ThreadMXBean bean, long[] ids) {
            try {
                if (!(bean instanceof com.sun.management.ThreadMXBean))
                    return null;
                com.sun.management.ThreadMXBean extended = (com.sun.management.ThreadMXBean)bean;
                long[] times = extended.isThreadCpuTimeSupported() ? extended.getThreadCpuTime(ids) : null;
                long[] bytes = extended.isThreadAllocatedMemorySupported()
                                   ? extended.getThreadAllocatedBytes(ids)
                                   : null;
                return new Figures(times, bytes);
            } catch (LinkageError e) {
                return null;
            }
        }

        static void appendProcess(StringBuilder text, OperatingSystemMXBean machine) {
            try {
                if (machine instanceof com.sun.management.OperatingSystemMXBean)
                    text.append("cpu=")
                        .append(((com.sun.management.OperatingSystemMXBean)machine).getProcessCpuTime())
                        .append(' ');
            } catch (LinkageError e) {
                // the figure is left out
            }
        }
    }
}
