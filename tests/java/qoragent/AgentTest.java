package qoragent;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertNotNull;
import static org.junit.Assert.assertTrue;
import static org.junit.Assert.fail;

import java.io.BufferedReader;
import java.io.File;
import java.io.FileReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.lang.reflect.Field;
import java.net.InetAddress;
import java.net.Socket;
import java.net.URL;
import java.net.URLClassLoader;
import java.nio.charset.StandardCharsets;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.Collections;
import java.util.List;
import java.util.Properties;
import java.util.concurrent.TimeUnit;
import java.util.concurrent.atomic.AtomicReference;
import org.junit.After;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;
import qoragent.testing.Host;

/** The whole agent, by its jar (property "qoragent.jar"): in this JVM, and in applications of their own. */
public class AgentTest {
    private static final String JAR = System.getProperty("qoragent.jar");
    private static final String JDK = System.getProperty("qoragent.jdk", System.getProperty("java.home"));

    @Rule public final TemporaryFolder folder = new TemporaryFolder();
    private Process application;
    private String pid;
    private BufferedReader output;
    private File errors;

    @After
    public void endApplication() throws Exception {
        Agent.request("SHUTDOWN");
        if (application != null && application.isAlive())
            application.destroyForcibly().waitFor();
    }

    private static Properties read(File file) throws IOException {
        Properties lines = new Properties();
        try (FileReader in = new FileReader(file)) {
            lines.load(in);
        }
        return lines;
    }

    /**
     * Sends one request by the door that the endpoint file tells of; null when it closes without an answer.
     */
    private static String ask(File endpoint, String request) throws IOException {
        Properties lines = read(endpoint);
        int port = Integer.parseInt(lines.getProperty("port"));
        try (Socket socket = new Socket(InetAddress.getLoopbackAddress(), port)) {
            socket.setSoTimeout(60_000);
            String text = lines.getProperty("token") + "\n" + request + "\n";
            socket.getOutputStream().write(text.getBytes(StandardCharsets.UTF_8));
            BufferedReader in =
                new BufferedReader(new InputStreamReader(socket.getInputStream(), StandardCharsets.UTF_8));
            assertEquals("OK", in.readLine());
            StringBuilder reply = new StringBuilder();
            for (int c; reply.indexOf(Connection.END_OF_TRANSMISSION) < 0; reply.append((char)c))
                if ((c = in.read()) < 0)
                    return null;
            return reply.substring(0, reply.indexOf(Connection.END_OF_TRANSMISSION));
        }
    }

    @Test
    public void startsOnceEndsAndStartsAnew() throws Exception {
        File endpoint = Endpoint.ofThisProcess().file().toFile();
        for (int round = 0; round < 3; round++) {
            Agent.start("timeout=20,loglevel=1");
            assertEquals("running", System.getProperty("qoragent.status"));
            String token = read(endpoint).getProperty("token");
            Agent.start(null);
            Agent.start("timeout=20");
            assertEquals("a second start changes nothing", token, read(endpoint).getProperty("token"));
            assertTrue(endpoint.delete());
            Agent.start(null);
            assertEquals("after a cleaning of /tmp", token, read(endpoint).getProperty("token"));
            try {
                Agent.start("timeout=21");
                fail("other options were taken");
            } catch (IllegalStateException e) {
                assertTrue(e.getMessage(), e.getMessage().contains("runs already"));
            }
            assertTrue(ask(endpoint, "nobar").startsWith("ERROR "));
            assertTrue(ask(endpoint, "516|nonsense").startsWith("Invalid Request nonsense"));
            assertTrue(Agent.request("516|nonsense").startsWith("Invalid Request nonsense"));
            assertEquals(null, ask(endpoint, "SHUTDOWN"));
            assertFalse(endpoint.exists());
            assertEquals("stopped", System.getProperty("qoragent.status"));
            try {
                Agent.request("516|nonsense");
                fail("answered after the end");
            } catch (IllegalStateException e) {
                assertEquals("the agent does not run", e.getMessage());
            }
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
        AtomicReference<Object> outcome = new AtomicReference<>();
        Thread asking;
        Thread ending;
        synchronized (Agent.class) { // as a request that runs
            asking = blocked(() -> {
                try {
                    outcome.set("answered: " + Agent.request("516|nonsense"));
                } catch (IllegalStateException e) {
                    outcome.set(e.getMessage());
                }
            });
            ending = blocked(() -> Agent.request("SHUTDOWN"));
            ending.join(); // it waits for none
        }
        asking.join();
        assertEquals("the agent does not run", outcome.get());
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
        assertTrue(Agent.request("516|nonsense").startsWith("Invalid Request nonsense"));
    }

    @Test
    public void startReplacesAnAgentWithoutItsWorker() throws Exception {
        Agent.start("timeout=20");
        Agent.dataFromNative("SHUTDOWN"); // behind the Java side's back
        while (Agent.workerLives())
            Thread.sleep(1);
        assertEquals("running", System.getProperty("qoragent.status"));
        Agent.start("timeout=21");
        assertTrue(Agent.request("516|nonsense").startsWith("Invalid Request nonsense"));
    }

    @Test
    public void startWithoutRelayListensNowhere() throws Exception {
        Agent.start("relay=off");
        assertFalse(Endpoint.ofThisProcess().file().toFile().exists());
        for (Thread thread : Thread.getAllStackTraces().keySet())
            assertFalse(thread.getName(), thread.isAlive() && thread.getName().equals("qoragent-relay"));
        assertTrue(Agent.request("516|nonsense").startsWith("Invalid Request nonsense"));
    }

    private void run(String... options) throws IOException {
        List<String> command = new ArrayList<>();
        command.add(System.getProperty("java.home") + "/bin/java");
        command.addAll(Arrays.asList(options));
        Collections.addAll(command, "-cp", System.getProperty("java.class.path"), Host.class.getName());
        errors = folder.newFile();
        application = new ProcessBuilder(command).redirectError(errors).start();
        output = new BufferedReader(new InputStreamReader(application.getInputStream()));
        pid = output.readLine();
        assertNotNull("it doesn't come up", pid);
    }

    private File endpointOfApplication() throws IOException {
        return Endpoint.ofThisProcess().file().resolveSibling(pid + ".endpoint").toFile();
    }

    private List<String> agentLines() throws IOException {
        List<String> lines = new ArrayList<>();
        try (BufferedReader in = new BufferedReader(new FileReader(errors))) {
            for (String line; (line = in.readLine()) != null;)
                if (line.startsWith("qoragent: ") || line.contains("Exception"))
                    lines.add(line);
        }
        return lines;
    }

    private void endsWell() throws Exception {
        application.getOutputStream().close();
        assertEquals("done", output.readLine());
        assertTrue("it doesn't end", application.waitFor(60, TimeUnit.SECONDS));
        assertEquals(0, application.exitValue());
    }

    @Test
    public void refusedStartCostsTheApplicationALine() throws Exception {
        String[][] rows = {
            {"colour=1", "unknown option \"colour\""},
            {"loglevel=x", "option loglevel: \"x\""},
            {"optlevel=2,loglevel=0", "not supported at optlevel 2"},
            {"bind=203.0.113.1", "the relay cannot start: port 0 of 203.0.113.1"},
        };
        for (String[] row : rows) {
            run("-javaagent:" + JAR + "=" + row[0]);
            endsWell();
            List<String> said = agentLines();
            assertEquals(row[0] + ": " + said, 1, said.size());
            assertTrue(said.get(0), said.get(0).contains(row[1]));
        }
        run("-javaagent:" + JAR, "-Dqoragent.library=/none/libqoragent.so");
        endsWell();
        assertTrue(agentLines().toString(), agentLines().get(0).contains("cannot load /none/libqoragent.so"));
    }

    @Test
    public void endpointGoesWithTheJvm() throws Exception {
        File temporary = folder.newFolder();
        run("-javaagent:" + JAR + "=loglevel=1", "-Djava.io.tmpdir=" + temporary);
        assertEquals("left behind by loading the library", 0, temporary.list().length);
        assertTrue(ask(endpointOfApplication(), "516|nonsense").startsWith("Invalid Request nonsense"));
        endsWell();
        assertFalse("after its end", endpointOfApplication().exists());
        assertEquals(Collections.emptyList(), agentLines());

        run("-javaagent:" + JAR);
        assertTrue(endpointOfApplication().exists());
        application.destroy();
        assertTrue(application.waitFor(60, TimeUnit.SECONDS));
        assertFalse("after a signal", endpointOfApplication().exists());
    }

    /** By the JDK's attach interface, which a JDK 8 keeps in tools.jar. */
    private static Class<?> attachInterface() throws Exception {
        File tools = new File(JDK, "lib/tools.jar");
        ClassLoader loader = tools.exists() ? new URLClassLoader(new URL[] {tools.toURI().toURL()})
                                            : ClassLoader.getSystemClassLoader();
        return Class.forName("com.sun.tools.attach.VirtualMachine", true, loader);
    }

    private void attach(Class<?> machine, String options) throws Exception {
        Object attached = machine.getMethod("attach", String.class).invoke(null, pid);
        machine.getMethod("loadAgent", String.class, String.class).invoke(attached, JAR, options);
        machine.getMethod("detach").invoke(attached);
    }

    @Test
    public void attachesToARunningApplication() throws Exception {
        Class<?> machine = attachInterface();
        run("-Dof=no-interest");
        assertFalse(endpointOfApplication().exists());
        attach(machine, "timeout=20");
        assertTrue(agentLines().toString(), endpointOfApplication().exists());
        String token = read(endpointOfApplication()).getProperty("token");
        attach(machine, "timeout=20");
        attach(machine, "timeout=21");
        attach(machine, "timeout=soon");
        List<String> said = agentLines();
        assertEquals(said.toString(), 2, said.size());
        assertTrue(said.get(0), said.get(0).contains("runs already"));
        assertTrue(said.get(1), said.get(1).contains("option timeout"));
        assertEquals(token, read(endpointOfApplication()).getProperty("token"));
        assertEquals(null, ask(endpointOfApplication(), "SHUTDOWN"));
        attach(machine, "");
        assertTrue(ask(endpointOfApplication(), "516|nonsense").startsWith("Invalid Request nonsense"));
        endsWell();
        assertFalse(endpointOfApplication().exists());
    }
}
