package qoragent;

import static org.junit.Assert.assertEquals;
import static org.junit.Assert.assertFalse;
import static org.junit.Assert.assertTrue;
import static org.junit.Assert.fail;

import java.io.ByteArrayOutputStream;
import java.io.Closeable;
import java.io.IOException;
import java.io.InputStream;
import java.net.ConnectException;
import java.net.InetAddress;
import java.net.Socket;
import java.net.SocketException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Collections;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.atomic.AtomicInteger;
import java.util.concurrent.atomic.AtomicReference;
import java.util.function.BooleanSupplier;
import java.util.function.UnaryOperator;
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
            byte[] wanted = text.getBytes(StandardCharsets.UTF_8);
            byte[] got = new byte[wanted.length];
            InputStream in = socket.getInputStream();
            for (int n = 0, more; n < got.length; n += more)
                if ((more = in.read(got, n, got.length - n)) < 0)
                    fail("closed after \"" + new String(got, 0, n, StandardCharsets.UTF_8) + "\", not " +
                         text);
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
        List<Thread> found = new ArrayList<>();
        for (Thread thread : Thread.getAllStackTraces().keySet())
            if (thread.getName().startsWith("qoragent-relay"))
                found.add(thread);
        return found;
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
    public void replyHasOneMarkAtItsEnd() throws IOException {
        String broken = "| |\t\t||";
        String[][] rows = {
            {"", MARK},
            {"a", "a" + MARK},
            {"a" + MARK, "a" + MARK},
            {MARK, MARK},
            {"a" + MARK + "b", "a" + broken + "b" + MARK},
            {"a" + MARK + MARK, "a" + broken + MARK},
            {MARK + "b" + MARK + "c", broken + "b" + broken + "c" + MARK},
            {"a|\t|\t\t|", "a| |\t\t|" + MARK},
            {"a|\t", "a|\t" + MARK},
            {"|\t|\t\t||\t|\t\t||", "| |\t\t||\t|\t\t||"},
            {"|\t|\t\t||\t|\t\t||x", "| |\t\t|| |\t\t||x" + MARK},
        };
        AtomicReference<String> reply = new AtomicReference<>();
        serve(request -> reply.get());
        Caller caller = new Caller().greet();
        for (String[] row : rows) {
            reply.set(row[0]);
            caller.send("x\n").expect(row[1]);
            assertEquals(row[0], row[1].length() - MARK.length(), row[1].indexOf(MARK));
        }
    }

    @Test
    public void strangersGetNothing() throws IOException {
        serve(request -> "secret");
        String token = endpoint.token();
        String wrong = (token.charAt(0) == '0' ? '1' : '0') + token.substring(1);
        for (String tried :
             new String[] {wrong + "\n", token.substring(1) + "\n", "\n", token + "x\n", token + "\r\n",
                           token.toUpperCase() + "X\n", repeat('a', 100_000), "GET / HTTP/1.1\r\n\r\n"})
            assertEquals(tried, "", new Caller().send(tried + "x\n").rest());
        assertEquals(0, asked.get());
        new Caller().greet();
    }

    @Test
    public void lateTokenEndsTheConnectionEvenWhenItDrips() throws Exception {
        serve(new Relay.Limits(8, 200, 300_000), request -> "secret");
        Caller silent = new Caller();
        Caller dripping = new Caller();
        AtomicInteger dripped = new AtomicInteger();
        Thread drip = new Thread(() -> {
            try {
                for (int i = 0; i < 31; i = dripped.incrementAndGet()) {
                    dripping.send(endpoint.token().substring(i, i + 1));
                    Thread.sleep(200);
                }
            } catch (IOException | InterruptedException e) {
                // cut off, as it should be
            }
        });
        drip.setDaemon(true);
        drip.start();
        assertEquals("", silent.rest());
        assertEquals("", dripping.rest());
        assertTrue("it could drip " + dripped, dripped.get() < 31);
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
        for (long end = System.nanoTime() + 30_000_000_000L; greeting.isEmpty() && System.nanoTime() < end;) {
            Caller next = new Caller().send(endpoint.token() + "\n");
            next.socket.shutdownOutput();
            greeting = next.rest();
        }
        assertEquals("a place that was left is free again", "OK\n", greeting);
    }

    /** The median time of a console's turn, from connecting to its reply, of as many as `go` asks for. */
    private long median(BooleanSupplier go) throws IOException {
        List<Long> turns = new ArrayList<>();
        for (int i = 0; i < 200 || go.getAsBoolean(); i++) {
            long start = System.nanoTime();
            Caller caller = new Caller().greet().send("x\n").expect("x" + MARK);
            turns.add(System.nanoTime() - start);
            caller.socket.close();
        }
        Collections.sort(turns);
        return turns.get(turns.size() / 2);
    }

    /** Opens connections at a rate of 2,000 a second, says nothing, and leaves when it is cut off. */
    private final class Crowd extends Thread {
        final AtomicInteger made = new AtomicInteger();
        volatile boolean enough;

        @Override
        public void run() {
            Deque<Socket> open = new ArrayDeque<>();
            try {
                for (long start = System.nanoTime(); !enough; Thread.sleep(1)) {
                    long due = (System.nanoTime() - start) / 500_000;
                    for (; made.get() < due && !enough; made.incrementAndGet()) {
                        open.add(new Socket(InetAddress.getLoopbackAddress(), relay.port()));
                        if (open.size() > 2 * Relay.MAX_STRANGERS)
                            open.remove().close();
                    }
                }
                for (Socket socket : open)
                    socket.close();
            } catch (IOException | InterruptedException e) {
                enough = true;
            }
        }
    }

    @Test
    public void consolesAreServedBesideACrowdOfStrangers() throws Exception {
        serve(request -> request);
        median(() -> false); // for the JVM's compilers
        double ratio = Double.MAX_VALUE;
        for (int round = 0; round < 3 && ratio >= 2; round++) {
            long alone = median(() -> false);
            Crowd crowd = new Crowd();
            crowd.start();
            long beside = median(() -> crowd.made.get() < 2_000 && !crowd.enough);
            assertFalse("the crowd couldn't come in", crowd.enough);
            assertTrue(relayThreads().size() + " threads", relayThreads().size() <= 9);
            crowd.enough = true;
            crowd.join();
            ratio = (double)beside / alone;
        }
        assertTrue("beside strangers a turn takes " + ratio + " times as long", ratio < 2);
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
    public void noAnswerClosesWithoutAMark() throws IOException {
        serve(request -> request.equals("none") ? null : request);
        assertEquals("", new Caller().greet().send("none\nsome\n").rest());
        assertEquals(1, asked.get());
        new Caller().greet().send("some\n").expect("some" + MARK);
    }

    @Test
    public void failingAgentCostsOneConnection() throws IOException {
        AtomicReference<Throwable> leaked = new AtomicReference<>();
        Thread.UncaughtExceptionHandler before = Thread.getDefaultUncaughtExceptionHandler();
        Thread.setDefaultUncaughtExceptionHandler((thread, t) -> leaked.set(t));
        try {
            serve(request -> {
                if (request.equals("throw"))
                    throw new AssertionError("the agent broke");
                return request;
            });
            assertEquals("", new Caller().greet().send("throw\n").rest());
            new Caller().greet().send("on\n").expect("on" + MARK);
        } finally {
            Thread.setDefaultUncaughtExceptionHandler(before);
        }
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
        awaitNoThread("qoragent-relay"); // the kernel keeps the port open until the call that accepts has returned
        try {
            new Socket(InetAddress.getLoopbackAddress(), port).close();
            fail("still listening");
        } catch (ConnectException e) {
            // as it should be
        }
        serve(request -> request);
        new Caller().greet().send("again\n").expect("again" + MARK);
    }

    @Test
    public void takenPortIsSaidByNumber() throws IOException {
        serve(request -> request);
        try {
            Relay.open(request -> request, InetAddress.getLoopbackAddress(), relay.port(), endpoint);
            fail("opened twice");
        } catch (IOException e) {
            assertTrue(e.getMessage(), e.getMessage().contains("port " + relay.port()));
        }
    }
}
