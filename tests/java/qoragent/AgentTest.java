package qoragent;

import static org.junit.Assert.*;

import java.lang.management.ManagementFactory;
import java.lang.reflect.Field;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.After;
import org.junit.Test;
import org.junit.function.ThrowingRunnable;

/** The whole agent, by its jar, in this JVM. What other processes see of it is tested from outside. */
public class AgentTest {
    @After
    public void endAgent() {
        Agent.request("SHUTDOWN");
    }

    private static void assertAnswers() {
        assertTrue(Agent.request("516|nonsense").startsWith("Invalid Request nonsense"));
    }

    private static void assertRefused(String why, ThrowingRunnable call) {
        String said = assertThrows(IllegalStateException.class, call).getMessage();
        assertTrue(said, said.contains(why));
    }

    /** Also when its worker has left without the Java side's knowledge. */
    @Test
    public void startsOnceEndsAndStartsAnew() throws Exception {
        Path endpoint = Endpoint.ofThisProcess().file();
        for (boolean knows : new boolean[] {true, true, false}) {
            Agent.start("timeout=20,loglevel=1");
            assertEquals("running", System.getProperty("qoragent.status"));
            Files.delete(endpoint);
            Agent.start(null);
            assertTrue("back in its place", Files.exists(endpoint));
            Agent.start("loglevel=1");
            assertRefused("runs already", () -> Agent.start("timeout=21"));
            assertAnswers();
            if (knows) {
                Agent.request("SHUTDOWN");
                assertFalse(Files.exists(endpoint));
                assertEquals("stopped", System.getProperty("qoragent.status"));
                assertRefused("the agent does not run", () -> Agent.request("516|nonsense"));
            } else {
                Agent.dataFromNative("SHUTDOWN");
                while (Agent.workerLives())
                    Thread.sleep(1);
            }
        }
        Agent.start("timeout=21");
        assertAnswers();
    }

    @Test
    public void shutdownRefusesTheRequestsThatWait() throws Exception {
        Agent.start("timeout=20");
        AtomicReference<Throwable> outcome = new AtomicReference<>();
        Thread asking = new Thread(() -> Agent.request("516|nonsense"));
        Thread ending = new Thread(() -> Agent.request("SHUTDOWN"));
        asking.setUncaughtExceptionHandler((thread, thrown) -> outcome.set(thrown));
        synchronized (Agent.class) { // as a request that runs
            asking.start();
            while (asking.getState() != Thread.State.BLOCKED)
                Thread.sleep(1);
            ending.start();
            ending.join(); // it waits for none
        }
        asking.join();
        assertEquals("the agent does not run", outcome.get().getMessage());
    }

    @Test
    public void nativesAgreeWithTheSystem() throws Exception {
        Agent.start("timeout=20");
        assertAnswers();
        long worker = Agent.getAgentWorkerThreadId();
        assertEquals("QORD Agent Worker",
                     ManagementFactory.getThreadMXBean().getThreadInfo(worker).getThreadName());
        assertEquals(Files.readSymbolicLink(Paths.get("/proc/thread-self")).getFileName().toString(),
                     String.valueOf(Agent.getCurrentThreadOsId()));
        assertTrue(Long.parseLong(Agent.getProcessContextSwitchCount()) > 0);
        String cpu = Agent.getCpuData(); // machine, process, switches, delay, time
        assertTrue(cpu, cpu.matches("\\d+\35\\d+\35\37\\d+\37\\d{1,4}\0371\\d{11}"));
        assertTrue(Agent.addvips().matches("(\\d+(\\.\\d+){3},[^,]+,)*"));
        assertEquals(-1, Agent.loadJavaAgent(null));
        assertEquals(0, Agent.loadJavaAgent("/nowhere/agent.jar=x"));
        Agent.request("788|showstack|32768");
        assertEquals("they were described", 0, Agent.getThreadObjects().length);
    }

    /** The thread that attaches goes on although the start has to wait. */
    @Test
    public void attachingIsNotHeldUp() throws Exception {
        Field life = Agent.class.getDeclaredField("life");
        life.setAccessible(true);
        synchronized (life.get(null)) {
            Agent.startAside("relay=off", 50);
            assertFalse("running".equals(System.getProperty("qoragent.status")));
        }
        while (!"running".equals(System.getProperty("qoragent.status")))
            Thread.sleep(1);
        assertAnswers();
        assertFalse("relay=off", Files.exists(Endpoint.ofThisProcess().file()));
    }
}
