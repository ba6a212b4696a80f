package qoragent;

import static org.junit.Assert.*;

import java.io.ByteArrayOutputStream;
import java.io.Closeable;
import java.io.DataInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.net.InetAddress;
import java.net.Socket;
import java.net.SocketException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.Semaphore;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.UnaryOperator;
import org.junit.After;
import org.junit.Rule;
import org.junit.Test;
import org.junit.rules.TemporaryFolder;

/** The relay against friends and foes, with a plain function in place of the agent. */
public class RelayTest {
    private static final String MARK = "|\t|\t\t||";

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
            opened.add(socket);
        }

        Caller send(String text) throws IOException {
            socket.getOutputStream().write(text.getBytes(StandardCharsets.UTF_8));
            return this;
        }

        Caller greet() throws IOException { return send(endpoint.token() + "\n").expect("OK\n"); }

        Caller expect(String text) throws IOException {
            byte[] wanted = text.getBytes(StandardCharsets.UTF_8), got = new byte[wanted.length];
            new DataInputStream(socket.getInputStream()).readFully(got);
            assertEquals(text, new String(got, StandardCharsets.UTF_8));
            return this;
        }

        /** All that comes until the connection ends; a reset is an end as well. */
        String rest() throws IOException {
            ByteArrayOutputStream all = new ByteArrayOutputStream();
            try {
                InputStream in = socket.getInputStream();
                byte[] part = new byte[1 << 16];
                for (int length; (length = in.read(part)) >= 0;)
                    all.write(part, 0, length);
            } catch (SocketException e) {
                // closed over bytes that the relay hadn't read
            }
            return new String(all.toByteArray(), StandardCharsets.UTF_8);
        }
    }

    private static final String LONGEST = new String(new char[20_480]).replace('\0', 'x');

    private static List<Thread> relayThreads() {
        List<Thread> threads = new ArrayList<>(Thread.getAllStackTraces().keySet());
        threads.removeIf(thread -> !thread.getName().startsWith("qoragent-relay"));
        return threads;
    }

    @Test
    public void requestsAndRepliesPassWholeWithOneMark() throws IOException {
        serve(request -> request);
        Caller caller = new Caller().greet();
        String broken = "| |\t\t||";
        String[][] rows = {
            {"516|showstack|8192", "516|showstack|8192" + MARK},
            {"", MARK},
            {"rule\rrule\rGr\u00f6\u00dfe \u20ac", "rule\rrule\rGr\u00f6\u00dfe \u20ac" + MARK},
            {LONGEST, LONGEST + MARK},
            {"a" + MARK, "a" + MARK},
            {"a" + MARK + "b", "a" + broken + "b" + MARK},
            {"a|\t|\t\t|", "a| |\t\t|" + MARK},
            {"a\nb\nc", "a" + MARK + "b" + MARK},
        };
        for (String[] row : rows)
            caller.send(row[0] + "\n").expect(row[1]);
        for (Thread thread : relayThreads())
            assertTrue(thread.getName(), thread.isDaemon());
    }

    /** Strangers get nothing, and what goes wrong for a console ends its connection alone. */
    @Test
    public void connectionsEndWithoutAWordTooMany() throws IOException {
        AtomicReference<Throwable> leaked = new AtomicReference<>();
        Thread.setDefaultUncaughtExceptionHandler((thread, t) -> leaked.set(t));
        serve(request -> {
            if (request.equals("throw"))
                throw new AssertionError("the agent broke");
            return request.equals("none") ? null : request;
        });
        String token = endpoint.token();
        String wrong = (token.charAt(0) == '0' ? '1' : '0') + token.substring(1);
        String error = "OK\nERROR request longer than 20480 bytes\n";
        String[][] rows = {
            {wrong + "\nx\n", ""},
            {token + "x\nx\n", ""},
            {LONGEST, ""},
            {token + "\n" + LONGEST + "x\n", error},
            {token + "\n" + LONGEST.replace('x', '\u20ac'), error},
            {token + "\nnone\nsome\n", "OK\n"},
            {token + "\nthrow\nsome\n", "OK\n"},
        };
        for (String[] row : rows)
            assertEquals(row[1], new Caller().send(row[0]).rest());
        assertEquals(2, asked.get());
        new Caller().greet().send("some\n").expect("some" + MARK);
        assertEquals(null, leaked.get());
    }

    @Test
    public void lateTokenEndsTheConnection() throws Exception {
        serve(new Relay.Limits(8, 200, 300_000), request -> "secret");
        assertEquals("", new Caller().rest());
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

        callers.get(0).socket.close(); // a place that was left is free again
        for (String greeting = ""; greeting.isEmpty();) {
            Caller next = new Caller().send(endpoint.token() + "\n");
            next.socket.shutdownOutput();
            greeting = next.rest();
        }
    }

    /** Who neither asks nor takes the reply is cut, and who waits for the agent isn't. */
    @Test
    public void idleConnectionsEnd() throws Exception {
        Semaphore idleCut = new Semaphore(0);
        String huge = new String(new char[50_000_000]);
        serve(new Relay.Limits(8, 5_000, 300), request -> {
            if (request.equals("huge"))
                return huge;
            idleCut.acquireUninterruptibly();
            return "worked";
        });
        Caller stuck = new Caller().greet().send("huge\n");
        for (Thread thread : relayThreads())
            if (thread.getName().startsWith("qoragent-relay-1"))
                thread.join();
        assertTrue(stuck.rest().length() < huge.length());
        Caller working = new Caller().greet().send("x\n");
        Caller half = new Caller().greet().send("half a req");
        assertEquals("", new Caller().greet().rest());
        assertEquals("", half.rest());
        idleCut.release();
        working.expect("worked" + MARK);
    }
}
