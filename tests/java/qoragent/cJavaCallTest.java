package qoragent;

import static org.junit.Assert.assertArrayEquals;
import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertNull;

import java.util.List;
import org.junit.After;
import org.junit.Test;
import qoragent.EndToEndProvider.ThreadText;

public class cJavaCallTest {
    private static final Object[] THREADS = {Thread.currentThread(), Thread.currentThread()};
    private static final long[] IDS = {-1, 42};

    private static String call(EndToEndProvider provider, int systemData) {
        String[] details = new String[20];
        for (int i = 0; i < details.length; i++)
            details[i] = "d" + i;
        cJavaCall.register(provider);
        return cJavaCall.cjavacalls(THREADS, IDS, details, 2, systemData, 1);
    }

    private static EndToEndProvider provider(String systemData, ThreadText second) {
        return new EndToEndProvider() {
            @Override
            public String systemData() {
                return systemData;
            }

            @Override
            public ThreadText describe(Thread thread, long osThreadId, List<String> details, boolean poll) {
                assertEquals(true, poll);
                assertEquals(osThreadId == 42 ? "d10" : "d0", details.get(0));
                return osThreadId == 42 ? second : null;
            }
        };
    }

    @After
    public void forget() {
        cJavaCall.register(null);
    }

    @Test
    public void answerHoldsOneRecordForEachThread() {
        assertNull(call(null, 1));
        assertNull(call(provider(null, null), 1));
        assertEquals("sys\37\35\36\35\36", call(provider("sys", null), 1));
        assertEquals("\35\36\35e2e\35more\36",
                     call(provider("sys", new ThreadText(null, null, "e2e\35more")), 0));
        assertEquals("\37\35\36\16qrf\16\17db\17\35e2e\36",
                     call(provider(null, new ThreadText("qrf", "db", "e2e")), 1));
        assertEquals("marks of the form are blanks in texts", "a b\37\35\36\16 \16\35c d e f\36",
                     call(provider("a\37b", new ThreadText("\16", null, "c\36d\17e\37f")), 1));
    }

    @Test
    public void failingProviderAddsNothing() {
        assertNull(call(new EndToEndProvider() {
            @Override
            public String systemData() {
                throw new StackOverflowError();
            }

            @Override
            public ThreadText describe(Thread thread, long osThreadId, List<String> details, boolean poll) {
                return null;
            }
        }, 1));
    }

    @Test
    public void busyThreadsAreToldUntilTheyLeave() {
        assertNull(cJavaCall.datafrombci());
        long[] me = {Thread.currentThread().getId()};
        cJavaCall.enter();
        cJavaCall.enter();
        cJavaCall.leave();
        assertArrayEquals(me, cJavaCall.datafrombci());
        cJavaCall.leave();
        assertNull(cJavaCall.datafrombci());
        cJavaCall.leave();
        assertNull("a leave too many does no harm", cJavaCall.datafrombci());
    }
}
