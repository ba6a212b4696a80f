package qoragent.testing;

import java.util.Arrays;
import java.util.concurrent.CountDownLatch;

/** Takes the place of the class that the agent asks what Java knows of a sample; it can keep the agent waiting. */
public final class Enricher {
    private static volatile String answer;
    private static volatile String asked;
    private static volatile CountDownLatch released = new CountDownLatch(0);

    private Enricher() {}

    /** The answer of the next calls, "null" for null; for "throw" they throw. */
    public static void answer(String text) {
        answer = text;
        asked = null;
    }

    /** What the last call was asked with; null when there was none. */
    public static String asked() { return asked; }

    /** The next samples stay until let(). */
    public static void hold() { released = new CountDownLatch(1); }

    public static void let() { released.countDown(); }

    /** Called by the agent, as is the next one. */
    public static String cjavacalls(Object[] threads, long[] ids, String[] strings, int count, int systemData,
                                    int isPoll) {
        StringBuilder names = new StringBuilder();
        for (Object thread : threads)
            names.append(thread == null ? "-" : ((Thread)thread).getName()).append(' ');
        asked = names + Arrays.toString(ids) + " " + String.join(",", strings) + " " + count + " " +
                systemData + " " + isPoll;
        if ("throw".equals(answer))
            throw new IllegalStateException("as told");
        return "null".equals(answer) ? null : answer;
    }

    public static long[] datafrombci() throws InterruptedException {
        released.await();
        return null;
    }
}
