package qoragent.testing;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;

import java.util.ArrayList;
import java.util.List;
import org.junit.After;
import org.junit.Test;

/** The zoo is what the agent's tests measure against, so it is measured against the JVM first. */
public class ZooTest {
    @After
    public void close() throws Exception {
        Zoo.stop();
    }

    private static String lines(String text, String first) {
        StringBuilder found = new StringBuilder();
        for (String line : text.split("\n"))
            if (line.startsWith(first + "\t"))
                found.append(line.substring(first.length() + 1)).append('\n');
        return found.toString();
    }

    private static int depth(String kind) {
        return lines(Truth.thread(Zoo.id(kind)), "frame").split("\n").length;
    }

    @Test
    public void monitorsAreWhereTheZooSaysTheyAre() throws Exception {
        Zoo.start("holder,blocked,blocked-second,reentrant,wait-inside,park,lock-holder,lock-waiter");
        int held = 0;
        for (String kind : Zoo.kinds().split("\n")) {
            String owned = lines(Truth.thread(Zoo.id(kind)), "owned");
            assertEquals(kind, owned, Zoo.heldMonitors(kind));
            held += owned.split("\n").length;
        }
        assertTrue("monitors are seen at all: " + held, held >= 8);

        String inner = Integer.toHexString(System.identityHashCode(Zoo.monitor("inner")));
        assertEquals("qoragent.testing.ZooLocks$Inner\t" + inner + "\t" + Zoo.id("holder") + "\n",
                     lines(Truth.thread(Zoo.id("blocked")), "wants"));
        assertTrue(
            lines(Truth.thread(Zoo.id("blocked-second")), "wants").endsWith("\t" + Zoo.id("blocked") + "\n"));
        assertTrue(lines(Truth.thread(Zoo.id("lock-waiter")), "wants")
                       .endsWith("\t" + Zoo.id("lock-holder") + "\n"));
        assertEquals("", lines(Truth.thread(Zoo.id("park")), "wants"));
    }

    @Test
    public void everyResidentComesAndGoes() throws Exception {
        Zoo.start();
        Zoo.startDeep(310);
        Zoo.startMany(3, 50);
        Zoo.check();
        List<Thread> threads = new ArrayList<>();
        for (String kind : Zoo.kinds().split("\n")) {
            Thread thread = Zoo.thread(kind);
            threads.add(thread);
            assertEquals("zoo-" + kind, thread.getName());
            assertEquals(kind, Thread.getAllStackTraces().get(thread).length, depth(kind));
            assertTrue(kind,
                       Truth.stacks().contains("\t" + thread.getName() + "\t" + thread.getState() + "\n"));
        }
        assertEquals(310, depth("deep-310"));
        assertEquals(50, depth("many-2"));
        Zoo.stop();
        for (Thread thread : threads)
            assertFalse(thread.getName(), thread.isAlive());
        assertEquals("", Zoo.kinds());
    }

    @Test
    public void churnGoesOn() throws Exception {
        ClassChurn.start();
        ThreadChurn.start();
        ClassChurn.awaitCollected(20);
        ThreadChurn.awaitEnded(200);
        ClassChurn.stop();
        ThreadChurn.stop();
        assertTrue(ClassChurn.collected() >= 20);
        assertTrue(ThreadChurn.ended() >= 200);
    }
}
