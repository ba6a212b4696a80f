package qoragent;

import static org.junit.Assert.*;

import java.lang.management.ManagementFactory;
import java.lang.reflect.Proxy;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import org.junit.After;
import org.junit.Test;
import qoragent.EndToEndProvider.ThreadText;

public class cJavaCallTest {
    private static final Object[] THREADS = {Thread.currentThread(), Thread.currentThread()};
    private static final long[] IDS = {-1, 42};

    private static String call(EndToEndProvider provider, int systemData) {
        String[] details = new String[20];
        for (int i = 0; i < details.length; i++)
            details[i] = i % 10 == 0 ? "d" + i : "";
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

    /** The answer with F in place of a thread's figures and S of the system's. */
    private static String form(String answer) {
        return answer.replaceAll("cpu=\\d+ alloc=\\d+", "F")
            .replaceAll("cpu=\\d+ load=[-.\\d]+ threads=\\d+ peak=\\d+ daemons=\\d+ classes=\\d+ uptime=\\d+",
                        "S");
    }

    private static final String SYSTEM = "Java System Data\36S";

    @Test
    public void answerHoldsOneRecordForEachThread() {
        assertEquals("\35F\36\35F\36", form(call(null, 0)));
        assertEquals(SYSTEM + "\35sys\37\35F\36\35F\36", form(call(provider("sys", null), 1)));
        assertEquals("\35F\36\35F\35e2e\35more\36",
                     form(call(provider("sys", new ThreadText(null, null, "e2e\35more")), 0)));
        assertEquals("\35F\36\16qrf\16\17db\17\35F\35e2e\36",
                     form(call(provider(null, new ThreadText("qrf", "db", "e2e")), 0)));
        assertEquals(
            "marks of the form are blanks in texts",
            SYSTEM + "\35a b\37\35F\36\16  \16\17\34\33 \17\35F\35c d e f g\36",
            form(call(provider("a\37b", new ThreadText("\16\32", "\34\33\17", "c\36d\17e\37f\34g")), 1)));
    }

    @Test
    public void detailsStandBehindTheFigures() {
        String[] details = {"7", "0",  "1", "/tmp/a b", "shop", "cart", "wm",    "s1", "5432", "10.0.0.1",
                            "7", "-1", "",  null,       "",     "",     "a\37b", "",   "0",    ""};
        cJavaCall.register(null);
        assertEquals("\35F\35file=/tmp/a b\35application=shop\35module=cart\35workmanager=wm\35session=s1"
                         + "\35stuck=0\35hogger=1\35peer=10.0.0.1:5432\36\35F\35workmanager=a b\36",
                     form(cJavaCall.cjavacalls(THREADS, IDS, details, 2, 0, 1)));
    }

    @Test
    public void figuresAreTheJvmsOwn() throws Exception {
        byte[][] kept = new byte[100][100_000];
        Thread ended = new Thread();
        ended.start();
        ended.join();
        Thread nameless = new Thread() {
            @Override
            public long getId() {
                throw new IllegalStateException();
            }
        };
        long cpuBefore = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
        Object[] threads = {Thread.currentThread(), ended, nameless};
        String[] records = cJavaCall.cjavacalls(threads, new long[3], new String[30], 3, 0, 1).split("\36");
        assertEquals("nothing is known of a thread that has ended", "\35^", records[1]);
        assertEquals("or that hides its id", "\35^", records[2]);
        Matcher figures = Pattern.compile("\35cpu=(\\d+) alloc=(\\d+)").matcher(records[0]);
        assertTrue(records[0], figures.matches());
        long cpuAfter = ManagementFactory.getThreadMXBean().getCurrentThreadCpuTime();
        long cpu = Long.parseLong(figures.group(1));
        assertTrue(records[0], cpuBefore <= cpu && cpu <= cpuAfter);
        assertTrue(records[0], Long.parseLong(figures.group(2)) >= kept.length * 100_000L);
    }

    @Test
    public void failingProviderTakesNothingAway() {
        EndToEndProvider failing = (EndToEndProvider)Proxy.newProxyInstance(
            getClass().getClassLoader(), new Class<?>[] {EndToEndProvider.class},
            (proxy, method, arguments) -> { throw new StackOverflowError(); });
        assertEquals(SYSTEM + "\37\35F\36\35F\36", form(call(failing, 1)));
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
