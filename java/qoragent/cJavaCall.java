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

    /** The details that are told again, by their place; null for those that have a form of their own. */
    private static final String[] DETAIL_KEYS = {
        null, null, null, "file", "application", "module", "workmanager", "session", null, null,
    };
    private static final int STUCK = 1;
    private static final int HOGGER = 2;
    private static final int PEER_PORT = 8;
    private static final int PEER_HOST = 9;

    private static final char FRAMEWORK_MARK = 14;
    private static final char REMOTE_MARK = 15;
    private static final char FIELD_SEPARATOR = 29; // the first of a record starts its end-to-end text
    private static final char RECORD_END = 30;
    private static final char SECTION_END = 31;
    private static final char NOT_KNOWN = '^';

    /** What the reader of the answer goes by; beside it (26 to 28) what the reader of a detail block does. */
    private static final String ANSWER_MARKS = "\16\17\36\37";
    private static final String MARKS = ANSWER_MARKS + "\32\33\34";

    private static final int LONGEST_TEXT = 16384;
    private static final int TYPICAL_RECORD = 48;

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
     * What Java knows of a sample. The answer is flat text of
     * <ul>
     * <li>with {@code systemData}: the system's record ({@link Figures#system}), the provider's system text
     *     as a further field, and a section end (31);
     * <li>then for each thread, in order, a record: the provider's framework text between two marks 14, its
     *     remote text between two marks 15, the start mark (29), the thread's figures
     *     ({@link Figures#append}), a field for each detail that the agent has gathered, the provider's
     *     end-to-end text, each after a separator (29), and a record end (30). Texts that there are none of
     *     are left out with their marks.
     * </ul>
     *
     * @param threads the threads of the sample
     * @param ids their operating system ids, -1 for none
     * @param strings ten texts for each
     * @return null when the threads can't be described
     */
    public static String cjavacalls(Object[] threads, long[] ids, String[] strings, int count, int systemData,
                                    int isPoll) {
        try {
            return collect(threads, ids, Arrays.asList(strings), count, systemData != 0, isPoll != 0);
        } catch (Throwable t) {
            return null;
        }
    }

    private static String collect(Object[] threads, long[] ids, List<String> strings, int count,
                                  boolean systemData, boolean poll) {
        EndToEndProvider asked = provider;
        Figures figures = Figures.of(threads, count);
        StringBuilder text = new StringBuilder(TYPICAL_RECORD * (count + 1));
        if (systemData) {
            Figures.system(text);
            String system = asked == null ? null : systemText(asked);
            if (system != null)
                append(text.append(FIELD_SEPARATOR), system);
            text.append(SECTION_END);
        }
        for (int i = 0; i < count; i++) {
            List<String> details = strings.subList(i * DETAILS_PER_THREAD, (i + 1) * DETAILS_PER_THREAD);
            EndToEndProvider.ThreadText known =
                asked == null ? null : describe(asked, (Thread)threads[i], ids[i], details, poll);
            append(text, figures, i, details, known);
        }
        return text.toString();
    }

    private static String systemText(EndToEndProvider asked) {
        try {
            return asked.systemData();
        } catch (Throwable t) {
            return null;
        }
    }

    private static EndToEndProvider.ThreadText describe(EndToEndProvider asked, Thread thread, long id,
                                                        List<String> details, boolean poll) {
        try {
            return asked.describe(thread, id, details, poll);
        } catch (Throwable t) {
            return null;
        }
    }

    /** A thread of which nothing is known still has its record, as the reader counts them. */
    private static void append(StringBuilder text, Figures figures, int index, List<String> details,
                               EndToEndProvider.ThreadText known) {
        if (known != null && known.framework != null)
            append(text.append(FRAMEWORK_MARK), known.framework).append(FRAMEWORK_MARK);
        if (known != null && known.remote != null)
            append(text.append(REMOTE_MARK), known.remote, ANSWER_MARKS).append(REMOTE_MARK);
        text.append(FIELD_SEPARATOR);
        if (figures == null || !figures.append(text, index))
            text.append(NOT_KNOWN);
        append(text, details);
        if (known != null && known.endToEnd != null)
            append(text.append(FIELD_SEPARATOR), known.endToEnd);
        text.append(RECORD_END);
    }

    /** Fields "KEY=VALUE" of what the agent knows: file, server's work, the other end of the socket. */
    private static void append(StringBuilder text, List<String> details) {
        for (int i = 0; i < DETAILS_PER_THREAD; i++) {
            String value = details.get(i);
            if (DETAIL_KEYS[i] != null && value != null && !value.isEmpty())
                append(text.append(FIELD_SEPARATOR).append(DETAIL_KEYS[i]).append('='), value);
        }
        appendMark(text, "stuck", details.get(STUCK));
        appendMark(text, "hogger", details.get(HOGGER));
        String host = details.get(PEER_HOST);
        if (host != null && !host.isEmpty())
            append(text.append(FIELD_SEPARATOR).append("peer="), host + ':' + details.get(PEER_PORT));
    }

    /** Of a detail that is 0, 1 or, when it isn't known, something else. */
    private static void appendMark(StringBuilder text, String key, String value) {
        if ("0".equals(value) || "1".equals(value))
            text.append(FIELD_SEPARATOR).append(key).append('=').append(value);
    }

    private static StringBuilder append(StringBuilder text, String piece) {
        return append(text, piece, MARKS);
    }

    /** Field separators pass; the marks become blanks, long texts are cut. */
    private static StringBuilder append(StringBuilder text, String piece, String marks) {
        int length = Math.min(piece.length(), LONGEST_TEXT);
        for (int i = 0; i < length; i++) {
            char c = piece.charAt(i);
            text.append(marks.indexOf(c) < 0 ? c : ' ');
        }
        return text;
    }
}
