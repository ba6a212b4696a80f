package qoragent.testing;

import java.util.Arrays;

/** Stands in for the class that the agent asks what Java knows of a sample. */
public final class Enricher {
    private static volatile String answer;
    private static volatile boolean failing;
    private static volatile String asked;

    private Enricher() {}

    /** The answer of the next calls, null for none. */
    public static void answer(String text) {
        answer = text;
        failing = false;
        asked = null;
    }

    /** The next calls throw. */
    public static void fail() { failing = true; }

    /** What the last call was asked with; null when there was none. */
    public static String asked() { return asked; }

    /** Called by the agent. */
    public static String cjavacalls(Object[] threads, long[] ids, String[] strings, int count, int systemData,
                                    int isPoll) {
        StringBuilder names = new StringBuilder();
        for (Object thread : threads)
            names.append(thread == null ? "-" : ((Thread)thread).getName()).append(' ');
        asked = names + Arrays.toString(ids) + " " + String.join(",", strings) + " " + count + " " +
                systemData + " " + isPoll;
        if (failing)
            throw new IllegalStateException("as told");
        return answer;
    }
}
