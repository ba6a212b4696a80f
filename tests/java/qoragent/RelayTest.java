package qoragent;

import static org.junit.Assert.*;

import java.io.ByteArrayOutputStream;
import java.io.Closeable;
import java.io.DataInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.net.ConnectException;
import java.net.InetAddress;
import java.net.Socket;
import java.net.SocketException;
import java.net.SocketTimeoutException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.UnaryOperator;
import java.util.stream.Collectors;
import org.junit.After;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;

/** The relay against friends and foes, with a plain function in place of the agent. */
public class RelayTest {
    private static final String MARK = "|\t|\t\t||";
    private static final int READ_LIMIT_MILLIS = 30_000;

    @Rule public final TemporaryFolder folder = new TemporaryFolder();
    private final List<Closeable> opened = new ArrayList<>();
    private final AtomicInteger asked = new AtomicInteger();
    private Endpoint endpoint;
    private Relay relay;

    private void serve(Relay.Limits limits, UnaryOperator<String> agent) throws IOException {
        int uid = (Integer)Files.getAttribute(folder.getRoot().toPath(), "unix:uid");
        endpoint = new Endpoint(folder.getRoot().toPath().resolve("dir"), uid, 1);
        relay = Relay.open(request -> {
            asked.incrementAndGet();
            return agent.apply(request);
        }, InetAddress.getLoopbackAddress(), 0, endpoint, limits);
        relay.start();
    }

    private void serve(UnaryOperator<String> agent) throws IOException { serve(Relay.LIMITS, agent); }

    @After
    public void close() throws IOException {
        for (Closeable each : opened)
            each.close();
        if (relay != null)
            relay.close();
    }

    /** A caller of the relay; what it expects to read, it reads exactly. */
    private final class Caller {
        final Socket socket;

        Caller() throws IOException {
            socket = new Socket(InetAddress.getLoopbackAddress(), relay.port());
            socket.setSoTimeout(READ_LIMIT_MILLIS);
            opened.add(socket);
        }

        Caller send(String text) throws IOException {
            socket.getOutputStream().write(text.getBytes(StandardCharsets.UTF_8));
            return this;
        }

        Caller greet() throws IOException { return send(endpoint.token() + "\n").expect("OK\n"); }

        Caller expect(String text) throws IOException {
            byte[] got = new byte[text.getBytes(StandardCharsets.UTF_8).length];
            new DataInputStream(socket.getInputStream()).readFully(got);
            assertEquals(text, new String(got, StandardCharsets.UTF_8));
            return this;
        }

        /** All that comes until the connection ends; a reset is an end as well. */
        String rest() throws IOException {
            ByteArrayOutputStream all = new ByteArrayOutputStream();
            try {
                InputStream in = socket.getInputStream();
                for (int b; (b = in.read()) >= 0;)
                    all.write(b);
            } catch (SocketException e) {
                // closed over bytes that the relay hadn't read
            }
            return new String(all.toByteArray(), StandardCharsets.UTF_8);
        }
    }

    private static String repeat(char c, int count) { return new String(new char[count]).replace('\0', c); }

    private static List<Thread> relayThreads() {
        return Thread.getAllStackTraces()
            .keySet()
            .stream()
            .filter(thread -> thread.getName().startsWith("qoragent-relay"))
            .collect(Collectors.toList());
    }

    @Test
    public void requestsAndRepliesPassWhole() throws IOException {
        serve(request -> "[" + request + "]");
        String longest = repeat('x', 20_480);
        Caller caller = new Caller().greet();
        for (String request :
             new String[] {"516|showstack|8192", "", "rule\rrule\r", "Gr\u00f6\u00dfe \u20ac", longest})
            caller.send(request + "\n").expect("[" + request + "]" + MARK);
        caller.send("a\nb\nc").expect("[a]" + MARK + "[b]" + MARK);
        for (Thread thread : relayThreads())
            assertTrue(thread.getName(), thread.isDaemon());
    }

    @Test
    public void replyHasOneMarkAtItsEnd() {
        String broken = "| |\t\t||";
        String[][] rows = {
            {"", MARK},
            {"a" + MARK, "a" + MARK},
            {"a" + MARK + "b", "a" + broken + "b" + MARK},
            {"a|\t|\t\t|", "a| |\t\t|" + MARK},
            {"|\t|\t\t||\t|\t\t||x", "| |\t\t|| |\t\t||x" + MARK},
        };
        for (String[] row : rows)
            assertEquals(row[1], Connection.framed(row[0]));
    }

    @Test
    public void strangersGetNothing() throws IOException {
        serve(request -> "secret");
        String token = endpoint.token();
        String wrong = (token.charAt(0) == '0' ? '1' : '0') + token.substring(1);
        for (String tried :
             new String[] {wrong + "\n", token.substring(1) + "\n", token + "x\n", repeat('a', 100_000)})
            assertEquals(tried, "", new Caller().send(tried + "x\n").rest());
        assertEquals(0, asked.get());
        new Caller().greet();
    }

    @Test
    public void lateTokenEndsTheConnectionEvenWhenItDrips() throws Exception {
        serve(new Relay.Limits(8, 200, 300_000), request -> "secret");
        Caller silent = new Caller();
        Caller dripping = new Caller();
        dripping.socket.setSoTimeout(200);
        int dripped = 0;
        try {
            for (; dripped < 31; dripped++) {
                try {
                    dripping.send(endpoint.token().substring(dripped, dripped + 1));
                    assertEquals(-1, dripping.socket.getInputStream().read());
                    break;
                } catch (SocketTimeoutException e) {
                    // not yet cut
                }
            }
        } catch (SocketException e) {
            // cut while it sent
        }
        assertTrue("it could drip " + dripped, dripped < 31);
        assertEquals("", silent.rest());
    }

    @Test
    public void overlongRequestGetsAnErrorLine() throws IOException {
        serve(request -> "served");
        String error = "ERROR request longer than 20480 bytes\n";
        assertEquals(error, new Caller().greet().send(repeat('x', 20_481) + "\n").rest());
        Caller untiring = new Caller().greet().send(repeat('\u20ac', 7_000));
        assertEquals(error, untiring.rest());
        for (int i = 0; i < 20; i++)
            untiring.send(repeat('x', 10_000));
        assertEquals(0, asked.get());
    }

    @Test
    public void strangersTakeNoPlaceOfAConsole() throws IOException {
        serve(new Relay.Limits(8, 300_000, 300_000), request -> request);
        List<Caller> strangers = new ArrayList<>();
        for (int i = 0; i < Relay.MAX_STRANGERS + 1; i++)
            strangers.add(new Caller().send("1"));
        assertEquals("the oldest made room", "", strangers.get(0).rest());
        List<Caller> callers = new ArrayList<>();
        for (int i = 0; i < 7; i++)
            callers.add(new Caller().greet());
        callers.add(strangers.get(Relay.MAX_STRANGERS)); // the youngest is still there
        assertEquals("and no thread waits for them", 8, relayThreads().size());
        assertEquals("", callers.remove(7).send("\n").rest());
        callers.add(new Caller().greet());
        assertEquals("", new Caller().send(endpoint.token() + "\n").rest());
        for (Caller caller : callers)
            caller.send("still here\n").expect("still here" + MARK);

        callers.get(0).socket.close();
        String greeting = "";
        while (greeting.isEmpty()) {
            Caller next = new Caller().send(endpoint.token() + "\n");
            next.socket.shutdownOutput();
            greeting = next.rest();
        }
        assertEquals("a place that was left is free again", "OK\n", greeting);
    }

    @Test
    public void idleConnectionEndsAndAWorkingOneDoesNot() throws Exception {
        CountDownLatch idleCut = new CountDownLatch(1);
        serve(new Relay.Limits(8, 5_000, 300), request -> {
            try {
                idleCut.await();
            } catch (InterruptedException e) {
                return "interrupted";
            }
            return "worked";
        });
        Caller working = new Caller().greet().send("x\n");
        Caller half = new Caller().greet().send("half a req");
        Caller idle = new Caller().greet();
        assertEquals("", half.rest());
        assertEquals("", idle.rest());
        idleCut.countDown();
        working.expect("worked" + MARK);
    }

    @Test
    public void callerThatTakesNoReplyIsCut() throws Exception {
        String huge = repeat('x', 50_000_000);
        serve(new Relay.Limits(1, 5_000, 300), request -> huge);
        Caller stuck = new Caller().greet().send("x\n");
        awaitNoThread("qoragent-relay-1");
        assertTrue(stuck.rest().length() < huge.length());
    }

    private static void awaitNoThread(String prefix) throws InterruptedException {
        for (Thread thread : relayThreads()) {
            if (thread.getName().startsWith(prefix))
                thread.join(READ_LIMIT_MILLIS);
            assertFalse(thread.getName(), thread.getName().startsWith(prefix) && thread.isAlive());
        }
    }

    @Test
    public void noAnswerAndAFailureEndOneConnection() throws IOException {
        AtomicReference<Throwable> leaked = new AtomicReference<>();
        Thread.UncaughtExceptionHandler before = Thread.getDefaultUncaughtExceptionHandler();
        Thread.setDefaultUncaughtExceptionHandler((thread, t) -> leaked.set(t));
        try {
            serve(request -> {
                if (request.equals("throw"))
                    throw new AssertionError("the agent broke");
                return request.equals("none") ? null : request;
            });
            for (String request : new String[] {"none", "throw"})
                assertEquals(request, "", new Caller().greet().send(request + "\nsome\n").rest());
            new Caller().greet().send("some\n").expect("some" + MARK);
        } finally {
            Thread.setDefaultUncaughtExceptionHandler(before);
        }
        assertEquals(3, asked.get());
        assertEquals(null, leaked.get());
    }

    @Test
    public void shutdownEndsAllAndALaterRelayStarts() throws Exception {
        serve(request -> request.startsWith("SHUTDOWN") ? null : request);
        Caller other = new Caller().greet();
        int port = relay.port();
        assertTrue(Files.exists(endpoint.file()));
        assertEquals("", new Caller().greet().send("SHUTDOWN\n").rest());
        assertEquals("", other.rest());
        assertFalse(Files.exists(endpoint.file()));
        awaitNoThread(
            "qoragent-relay"); // the kernel keeps the port open until the call that accepts has returned
        assertThrows(ConnectException.class,
                     () -> new Socket(InetAddress.getLoopbackAddress(), port).close());
        serve(request -> request);
        new Caller().greet().send("again\n").expect("again" + MARK);
        InetAddress here = InetAddress.getLoopbackAddress();
        String said = assertThrows(IOException.class,
                                   () -> Relay.open(request -> request, here, relay.port(), endpoint))
                          .getMessage();
        assertTrue(said, said.contains("port " + relay.port()));
    }
}
