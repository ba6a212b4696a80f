package qoragent;

import static org.junit.Assert.*;

import java.lang.management.ManagementFactory;
import java.util.List;
import org.junit.After;
import org.junit.Test;
import qoragent.EndToEndProvider.ThreadText;

public class cJavaCallTest {
    private static final Object[] THREADS = {Thread.currentThread(), Thread.currentThread()};
    private static final String[] NOTHING = new String[20];

    @After
    public void forget() {
        cJavaCall.register(null);
    }

    /** The answer with F in place of a thread's figures and S of the system's. */
    private static String answer(EndToEndProvider provider, String[] details, int systemData) {
        cJavaCall.register(provider);
        return cJavaCall.cjavacalls(THREADS, new long[] {-1, 42}, details, 2, systemData, 1)
            .replaceAll("cpu=\\d+ alloc=\\d+", "F")
            .replaceAll("cpu=\\d+ load=[-.\\d]+ threads=\\d+ peak=\\d+ daemons=\\d+ classes=\\d+ uptime=\\d+",
                        "S");
    }

    /** One that knows the second thread; it fails for null. */
    private static EndToEndProvider provider(String systemData, ThreadText second) {
        return new EndToEndProvider() {
            @Override
            public String systemData() {
                return systemData;
            }

            @Override
            public ThreadText describe(Thread thread, long osThreadId, List<String> details, boolean poll) {
                if (second == null)
                    throw new StackOverflowError();
                assertTrue(poll && details.size() == 10);
                return osThreadId == 42 ? second : null;
            }
        };
    }

    @Test
    public void answerHoldsOneRecordForEachThread() {
        String system = "Java System Data\36S";
        ThreadText known = new ThreadText("qrf", "db", "e2e\35more");
        assertEquals("\35F\36\35F\36", answer(null, NOTHING, 0));
        assertEquals(system + "\35sys\37\35F\36\35F\36", answer(provider("sys", null), NOTHING, 1));
        assertEquals("\35F\36\16qrf\16\17db\17\35F\35e2e\35more\36",
                     answer(provider("sys", known), NOTHING, 0));
        ThreadText marked = new ThreadText("\16\32", "\34\33\17", "c\36d\17e\37f\34g");
        assertEquals("marks of the form are blanks in texts",
                     system + "\35a b\37\35F\36\16  \16\17\34\33 \17\35F\35c d e f g\36",
                     answer(provider("a\37b", marked), NOTHING, 1));
    }

    @Test
    public void detailsComeAfterTheFigures() {
        String[] details = {"7", "0",  "1", "/tmp/a b", "shop", "cart", "wm",    "s1", "5432", "10.0.0.1",
                            "7", "-1", "",  null,       "",     "",     "a\37b", "",   "0",    ""};
        assertEquals("\35F\35file=/tmp/a b\35application=shop\35module=cart\35workmanager=wm\35session=s1"
                         + "\35stuck=0\35hogger=1\35peer=10.0.0.1:5432\36\35F\35workmanager=a b\36",
                     answer(null, details, 0));
    }

    private static String figures(Object thread) {
        return cJavaCall.cjavacalls(new Object[] {thread}, new long[1], new String[10], 1, 0, 1);
    }

    @Test
    public void figuresAreTheJvmsOwn() throws Exception {
        Thread ended = new Thread();
        ended.start();
        ended.join();
        assertEquals("nothing is known of a thread that has ended", "\35^\36", figures(ended));
        long before = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
        String shown = figures(Thread.currentThread());
        long cpu = Long.parseLong(shown.replaceAll("\35cpu=(\\d+) alloc=\\d+\36", "$1"));
        assertTrue(before <= cpu && cpu <= ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime());
    }

    @Test
    public void busyThreadsAreListedUntilTheyLeave() {
        cJavaCall.enter();
        cJavaCall.enter();
        cJavaCall.leave();
        assertArrayEquals(new long[] {Thread.currentThread().getId()}, cJavaCall.datafrombci());
        cJavaCall.leave();
        assertNull(cJavaCall.datafrombci());
    }
}
