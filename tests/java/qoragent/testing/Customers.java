package qoragent.testing;

import java.io.IOException;
import java.util.ArrayList;
import java.util.List;
import qoragent.models.Execution;
import tessar.jdbc.dbaccess.DBAccess;
import tessar.jdbc.driver.TessarConnection;
import tessar.jdbc.driver.TessarPreparedStatement;
import tessar.jdbc.driver.TessarStatement;
import tessar.net.ns.Communication;
import tessar.net.nt.SilentServer;

/**
 * Threads "customer-0" and up, each waiting for a database over its own connection; the odd ones in a prepared
 * statement. Also connections alone, and executions of a test's own.
 */
public final class Customers {
    private static final String URL = "jdbc:tessar:thin:@//127.0.0.1/SHOP";

    private static final List<Execution> executions = new ArrayList<>();
    private static final List<Communication> connections = new ArrayList<>();
    private static SilentServer server;

    private Customers() {}

    /** Returns when all wait; each statement has a text of `length` characters. */
    public static synchronized void start(int count, int length) throws Exception {
        for (int i = 0; i < count; i++) {
            int number = connections.size();
            TessarConnection session =
                new TessarConnection(URL, "scott", new DBAccess((Communication)connect("plain")));
            StringBuilder text = new StringBuilder("select " + number + " from orders where note = '");
            while (text.length() < length)
                text.append((char)('a' + text.length() % 26));
            text.setLength(length);
            executions.add(Execution.of("customer-" + number,
                                        number % 2 == 0
                                            ? new TessarStatement(session, text.toString())
                                            : new TessarPreparedStatement(session, text.toString())));
        }
    }

    /** A Communication to the server that never answers, see there for the kinds. */
    public static synchronized Object connect(String kind) throws IOException {
        if (server == null)
            server = new SilentServer();
        connections.add(Communication.connect(kind, server.port()));
        return connections.get(connections.size() - 1);
    }

    public static long port(Object connection, boolean remote) {
        return remote ? ((Communication)connection).socket().getPort()
                      : ((Communication)connection).socket().getLocalPort();
    }

    public static void close(Object connection) throws IOException { ((Communication)connection).close(); }

    public static synchronized long localPort(int number) { return port(connections.get(number), false); }

    public static synchronized long serverPort() { return server.port(); }

    static synchronized void stop() throws Exception {
        if (server == null)
            return;
        server.close();
        server = null;
        for (Communication connection : connections)
            connection.close();
        for (Execution execution : executions)
            execution.join();
        connections.clear();
        executions.clear();
    }
}
