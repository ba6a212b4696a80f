package qoragent.testing;

import java.io.Closeable;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;
import java.util.Map;
import java.util.stream.Stream;
import qoragent.models.Execution;
import tessar.jdbc.dbaccess.DBAccess;
import tessar.jdbc.driver.FormerConnection;
import tessar.jdbc.driver.Q5DCallableStatement;
import tessar.jdbc.driver.Q5DConnection;
import tessar.jdbc.driver.Q5DPreparedStatement;
import tessar.jdbc.driver.TessarConnection;
import tessar.jdbc.driver.TessarPreparedStatement;
import tessar.jdbc.driver.TessarStatement;
import tessar.net.ns.Communication;
import tessar.net.nt.SilentServer;

/**
 * An application in which nothing moves: the zoo, calls of all tiers, objects to look into, a known heap.
 *
 * It prints the client port of a database call and "ready", and ends when its input does.
 */
public final class Standstill {
    /** Where a thread reads a socket, by JDK, or waits for another that does. */
    private static final List<String> WAITING = Arrays.asList("socketRead0", "read0", "poll", "park");
    private static final List<Closeable> kept = new ArrayList<>();
    private static SilentServer server;

    private Standstill() {}

    public static void main(String[] args) throws Exception {
        HeapShop.fill();
        Zoo.start(
            "sleep,park,swapper,wait,holder,blocked,blocked-second,reentrant,lock-holder,lock-waiter,deep,"
            + "socket-read,socket-read-timeout,socket-write,accept,accept-timeout,channel-accept,"
            + "channel-read,select,datagram-receive,file-read,file-channel-read,file-reader,"
            + "random-access-read,file-write,process-wait"); // which keeps the JDK's reaper of children
        Zoo.startDeep(400);
        Zoo.startWide(0, 1);
        Tiers.start();
        Specimens.startHolder();
        Specimens.thread().setName("specimen-hold");
        Obstacles.inInitializer();
        System.out.println("port=" + callDatabases());
        while (runningCalls() > 0 || reapers() > 1)
            Thread.sleep(10);
        System.out.println("ready");
        while (System.in.read() >= 0)
            continue;
        System.exit(0);
    }

    /** A thread in each kind of statement and connection; the client port of the first. */
    private static int callDatabases() throws Exception {
        server = new SilentServer();
        Communication first = connect("plain");
        TessarConnection thin =
            new TessarConnection("jdbc:tessar:thin:@//127.0.0.1/SHOP", "scott", new DBAccess(first));
        Q5DConnection fast = new Q5DConnection("jdbc:tessar:fast:@SHOP", "anna", connect("metered"));
        call("prepared", new TessarPreparedStatement(thin, "select total from orders"));
        call("plain",
             new TessarStatement(new TessarConnection(null, "nobody", new DBAccess(connect("plain"))), ""));
        call("fast", new Q5DPreparedStatement(fast, "update stock set n = 1"));
        call("callable", new Q5DCallableStatement(fast, "call close_day('a\nb')"));
        call("former",
             new Q5DPreparedStatement(
                 new FormerConnection("jdbc:tessar:former:@SHOP", "bob", connect("encrypted")), longText()));
        call("layered", new Q5DPreparedStatement(
                            new Q5DConnection("jdbc:tessar:layered:@SHOP", "eve", connect("layered")),
                            "select \u00e9\u20ac"));
        return first.socket().getLocalPort();
    }

    private static void call(String name, TessarStatement statement) throws InterruptedException {
        Execution.of("call-" + name, statement);
    }

    private static Communication connect(String kind) throws Exception {
        Communication connection = Communication.connect(kind, server.port());
        kept.add(connection);
        return connection;
    }

    private static String longText() {
        char[] text = new char[6000];
        Arrays.fill(text, 'x');
        return new String(text);
    }

    /** Calls that are still in the handshake of an encrypted connection. */
    private static long runningCalls() {
        return threads("call-").filter(frames -> !WAITING.contains(frames[0].getMethodName())).count();
    }

    /** Threads of the JDK's that wait for children; those of children that have ended end a minute later. */
    private static long reapers() { return threads("process reaper").count(); }

    private static Stream<StackTraceElement[]> threads(String prefix) {
        return Thread.getAllStackTraces()
            .entrySet()
            .stream()
            .filter(e -> e.getKey().getName().startsWith(prefix))
            .map(Map.Entry::getValue);
    }
}
