package qoragent.testing;

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
 * Threads "customer-0" and up, each waiting for a database over a connection of its own; the odd ones in a
 * prepared statement.
 */
public final class Customers {
    public static final String URL = "jdbc:tessar:thin:@//127.0.0.1/SHOP";

    private static final List<Execution> executions = new ArrayList<>();
    private static final List<Communication> connections = new ArrayList<>();
    private static SilentServer server;

    private Customers() {}

    /** Returns when all wait; each statement has a text of `length` characters. */
    public static synchronized void start(int count, int length) throws Exception {
        if (server == null)
            server = new SilentServer();
        for (int i = 0; i < count; i++) {
            Communication connection = Communication.connect("plain", server.port());
            int number = connections.size();
            connections.add(connection);
            TessarConnection session = new TessarConnection(URL, "scott", new DBAccess(connection));
            String text = sql(number, length);
            executions.add(Execution.of("customer-" + number,
                                        number % 2 == 0 ? new TessarStatement(session, text)
                                                        : new TessarPreparedStatement(session, text)));
        }
    }

    private static String sql(int number, int length) {
        StringBuilder text = new StringBuilder("select " + number + " from orders where note = '");
        while (text.length() < length)
            text.append((char)('a' + text.length() % 26));
        text.setLength(length);
        return text.toString();
    }

    public static synchronized long localPort(int number) {
        return connections.get(number).socket().getLocalPort();
    }

    public static synchronized long serverPort() { return server.port(); }

    public static synchronized void stop() throws Exception {
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
