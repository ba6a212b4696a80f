package qoragent;

import static org.junit.Assert.*;

import java.lang.reflect.Field;
import java.nio.file.Files;
import java.nio.file.Path;
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

    @Test
    public void startsOnceEndsAndStartsAnew() throws Exception {
        Path endpoint = Endpoint.ofThisProcess().file();
        for (int round = 0; round < 3; round++) {
            Agent.start("timeout=20,loglevel=1");
            assertEquals("running", System.getProperty("qoragent.status"));
            byte[] port = Files.readAllBytes(endpoint);
            Files.delete(endpoint);
            Agent.start(null);
            assertArrayEquals("the same, back in its place", port, Files.readAllBytes(endpoint));
            assertRefused("runs already", () -> Agent.start("timeout=21"));
            assertAnswers();
            Agent.request("SHUTDOWN");
            assertFalse(Files.exists(endpoint));
            assertEquals("stopped", System.getProperty("qoragent.status"));
            assertRefused("the agent does not run", () -> Agent.request("516|nonsense"));
        }
    }

    private static Thread blocked(Runnable body) throws InterruptedException {
        Thread thread = new Thread(body);
        thread.start();
        while (thread.getState() != Thread.State.BLOCKED && thread.isAlive())
            Thread.sleep(1);
        return thread;
    }

    @Test
    public void shutdownRefusesTheRequestsThatWait() throws Exception {
        Agent.start("timeout=20");
        AtomicReference<Throwable> outcome = new AtomicReference<>();
        Thread asking;
        synchronized (Agent.class) { // as a request that runs
            asking = blocked(() -> Agent.request("516|nonsense"));
            asking.setUncaughtExceptionHandler((thread, thrown) -> outcome.set(thrown));
            blocked(() -> Agent.request("SHUTDOWN")).join(); // it waits for none
        }
        asking.join();
        assertEquals("the agent does not run", outcome.get().getMessage());
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

    @Test
    public void startReplacesAnAgentWithoutItsWorker() throws Exception {
        Agent.start("timeout=20");
        Agent.dataFromNative("SHUTDOWN"); // without the Java side's knowledge
        while (Agent.workerLives())
            Thread.sleep(1);
        assertEquals("running", System.getProperty("qoragent.status"));
        Agent.start("timeout=21");
        assertAnswers();
    }
}
