package qoragent;

import java.util.Arrays;
import java.util.List;
import java.util.concurrent.ConcurrentHashMap;
import java.util.concurrent.ConcurrentMap;

/**
 * The agent's way back into Java: while it samples, it asks here what the application's own instrumentation
 * knows of the threads. Called by name from native code.
 */
public final class cJavaCall {
    private static final int DETAILS_PER_THREAD = 10;

    private static final char FRAMEWORK_MARK = 14;
    private static final char REMOTE_MARK = 15;
    private static final char TEXT_START = 29;
    private static final char RECORD_END = 30;
    private static final char SECTION_END = 31;

    private static final ConcurrentMap<Long, Integer> active = new ConcurrentHashMap<>();
    private static volatile EndToEndProvider provider;

    private cJavaCall() {}

    /** Makes `p` the one that is asked from the next sample on; null for nobody. */
    public static void register(EndToEndProvider p) { provider = p; }

    /**
     * Marks the calling thread as busy with a request, so that a sample never takes it for idle. Calls nest;
     * each wants one {@link #leave()} by the same thread, in a finally block.
     */
    public static void enter() { active.merge(Thread.currentThread().getId(), 1, Integer::sum); }

    public static void leave() {
        active.computeIfPresent(Thread.currentThread().getId(), (id, depth) -> depth > 1 ? depth - 1 : null);
    }

    /** The ids of the threads marked busy; null when there is none. */
    public static long[] datafrombci() {
        long[] ids = new long[active.size()];
        int count = 0;
        for (Long id : active.keySet())
            if (count < ids.length)
                ids[count++] = id;
        return count == 0 ? null : Arrays.copyOf(ids, count);
    }

    /**
     * What the provider tells of a sample: the system's text and a section end, when asked for, then for each
     * thread, in order, its framework and remote texts between their marks, the start mark, the end-to-end
     * text and a record end.
     *
     * @param threads the threads of the sample
     * @param ids their operating system ids
     * @param strings ten texts for each
     * @return null when there is nothing to add
     */
    public static String cjavacalls(Object[] threads, long[] ids, String[] strings, int count, int systemData,
                                    int isPoll) {
        EndToEndProvider asked = provider;
        if (asked == null)
            return null;
        try {
            return collect(asked, threads, ids, Arrays.asList(strings), count, systemData != 0, isPoll != 0);
        } catch (Throwable t) {
            return null;
        }
    }

    private static String collect(EndToEndProvider asked, Object[] threads, long[] ids, List<String> strings,
                                  int count, boolean systemData, boolean poll) {
        StringBuilder text = new StringBuilder();
        boolean something = false;
        if (systemData) {
            String system = asked.systemData();
            something = system != null;
            append(text, system).append(SECTION_END);
        }
        for (int i = 0; i < count; i++) {
            List<String> details = strings.subList(i * DETAILS_PER_THREAD, (i + 1) * DETAILS_PER_THREAD);
            EndToEndProvider.ThreadText known = asked.describe((Thread)threads[i], ids[i], details, poll);
            something |= known != null;
            append(text, known);
        }
        return something ? text.toString() : null;
    }

    /** A thread of which nothing is known still has its record, as the reader counts them. */
    private static void append(StringBuilder text, EndToEndProvider.ThreadText known) {
        if (known != null && known.framework != null)
            append(text.append(FRAMEWORK_MARK), known.framework).append(FRAMEWORK_MARK);
        if (known != null && known.remote != null)
            append(text.append(REMOTE_MARK), known.remote).append(REMOTE_MARK);
        text.append(TEXT_START);
        if (known != null)
            append(text, known.endToEnd);
        text.append(RECORD_END);
    }

    /** Field separators pass; the marks that the reader goes by become blanks. */
    private static StringBuilder append(StringBuilder text, String piece) {
        for (int i = 0; piece != null && i < piece.length(); i++) {
            char c = piece.charAt(i);
            boolean mark = c == FRAMEWORK_MARK || c == REMOTE_MARK || c == RECORD_END || c == SECTION_END;
            text.append(mark ? ' ' : c);
        }
        return text;
    }
}
