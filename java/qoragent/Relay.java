package qoragent;

import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.net.SocketTimeoutException;
import java.nio.file.Path;
import java.util.ArrayList;
import java.util.Iterator;
import java.util.List;
import java.util.function.UnaryOperator;

/**
 * The door for consoles: a TCP port, on the loopback unless the operator says otherwise, behind a token.
 *
 * One thread accepts and, while connections are open, looks every half second for one that has outstayed its
 * limit; each connection has a thread of its own. All are daemons named "qoragent-relay...", and none of them
 * lets an exception out. A shutdown hook removes the endpoint file when the JVM ends.
 */
final class Relay {
    /** What a connection may take. */
    static final class Limits {
        final int connections;
        final long tokenMillis;
        final long idleMillis;

        Limits(int connections, long tokenMillis, long idleMillis) {
            this.connections = connections;
            this.tokenMillis = tokenMillis;
            this.idleMillis = idleMillis;
        }
    }

    static final Limits LIMITS = new Limits(8, 5_000, 300_000);

    private static final int WATCH_MILLIS = 500;
    private static final int ACCEPT_RETRY_MILLIS = 200;
    private static final int BACKLOG = 16;
    private static final String THREAD_NAME = "qoragent-relay";

    private final UnaryOperator<String> agent;
    private final ServerSocket server;
    private final Endpoint endpoint;
    private final Limits limits;
    private final List<Connection> connections = new ArrayList<>();
    private final Thread hook;
    private boolean closed;
    private int served;

    private Relay(UnaryOperator<String> agent, ServerSocket server, Endpoint endpoint, Limits limits) {
        this.agent = agent;
        this.server = server;
        this.endpoint = endpoint;
        this.limits = limits;
        this.hook = daemon(endpoint::withdraw, THREAD_NAME + "-exit");
    }

    /**
     * Takes the port and makes sure of the endpoint's directory; nobody is served before start().
     *
     * @param agent answers a request; null means no answer. Called on the connections' threads
     * @param port 0 for any
     */
    static Relay open(UnaryOperator<String> agent, InetAddress bind, int port, Endpoint endpoint)
        throws IOException {
        return open(agent, bind, port, endpoint, LIMITS);
    }

    static Relay open(UnaryOperator<String> agent, InetAddress bind, int port, Endpoint endpoint,
                      Limits limits) throws IOException {
        endpoint.openDirectory();
        ServerSocket server = new ServerSocket();
        try {
            server.setReuseAddress(true);
            server.bind(new InetSocketAddress(bind, port), BACKLOG);
        } catch (IOException | RuntimeException e) {
            server.close();
            throw new IOException("port " + port + " of " + bind.getHostAddress() + ": " + e.getMessage(), e);
        }
        return new Relay(agent, server, endpoint, limits);
    }

    int port() { return server.getLocalPort(); }

    /**
     * Tells the consoles of the port, and serves them.
     *
     * @return the endpoint's directory if it isn't the usual one, else null
     */
    Path start() throws IOException {
        endpoint.publish(server.getInetAddress(), port());
        try {
            Runtime.getRuntime().addShutdownHook(hook);
        } catch (IllegalStateException e) {
            endpoint.withdraw();
            throw new IOException("the JVM is ending", e);
        }
        daemon(this::accept, THREAD_NAME).start();
        return endpoint.elsewhere();
    }

    /** Tells the consoles of the port once more if nothing does; returns as start() does. */
    Path tellAgain() throws IOException {
        if (!endpoint.published())
            endpoint.publish(server.getInetAddress(), port());
        return endpoint.elsewhere();
    }

    /** Ends the service: no port, no endpoint file, no connection. May be called twice. */
    void close() {
        List<Connection> open;
        synchronized (connections) {
            if (closed)
                return;
            closed = true;
            open = new ArrayList<>(connections);
        }
        try {
            server.close();
        } catch (IOException e) {
            // nothing listens there any more, which is all that is wanted
        }
        endpoint.withdraw();
        try {
            Runtime.getRuntime().removeShutdownHook(hook);
        } catch (IllegalStateException e) {
            // the JVM is ending and runs the hook itself
        }
        for (Connection connection : open)
            connection.cut();
    }

    /** A thread that keeps alive neither the JVM nor the class loader of whoever starts the agent. */
    private static Thread daemon(Runnable body, String name) {
        Thread thread = new Thread(body, name);
        thread.setDaemon(true);
        thread.setContextClassLoader(Relay.class.getClassLoader());
        return thread;
    }

    private void accept() {
        while (!server.isClosed()) {
            try {
                server.setSoTimeout(cutOverdue() ? WATCH_MILLIS : 0);
                admit(server.accept());
            } catch (SocketTimeoutException e) {
                // time to look at the connections
            } catch (Throwable t) {
                rest();
            }
        }
    }

    /** Out of descriptors or memory: waits a moment, so that the thread doesn't spin. */
    private void rest() {
        try {
            if (!server.isClosed())
                Thread.sleep(ACCEPT_RETRY_MILLIS);
        } catch (InterruptedException e) {
            // nobody has a reason to interrupt this thread; go on
        }
    }

    /** True while there are connections to watch. */
    private boolean cutOverdue() {
        long now = System.nanoTime();
        synchronized (connections) {
            for (Connection connection : connections)
                if (connection.overdue(now))
                    connection.cut();
            return !connections.isEmpty();
        }
    }

    /** Gives a caller a thread; when all places are taken, one that hasn't shown its token yet must leave. */
    private void admit(Socket socket) throws IOException {
        Connection connection = new Connection(socket, agentOrClose(), endpoint.token(), limits);
        String name;
        synchronized (connections) {
            if (closed || (connections.size() >= limits.connections && !evictStranger())) {
                connection.cut();
                return;
            }
            connections.add(connection);
            name = THREAD_NAME + "-" + ++served;
        }
        try {
            daemon(() -> serve(connection), name).start();
        } catch (Throwable t) {
            leave(connection);
            throw t;
        }
    }

    private boolean evictStranger() {
        for (Iterator<Connection> each = connections.iterator(); each.hasNext();) {
            Connection connection = each.next();
            if (!connection.trusted()) {
                each.remove();
                connection.cut();
                return true;
            }
        }
        return false;
    }

    /** The agent; a SHUTDOWN that it has taken ends the relay as well. */
    private UnaryOperator<String> agentOrClose() {
        return request -> {
            String reply = agent.apply(request);
            if (request.startsWith("SHUTDOWN"))
                close();
            return reply;
        };
    }

    private void serve(Connection connection) {
        try {
            connection.serve();
        } catch (Throwable t) {
            // the caller's fault or the agent's; the application has no part in it
        } finally {
            leave(connection);
        }
    }

    private void leave(Connection connection) {
        connection.cut();
        synchronized (connections) {
            connections.remove(connection);
        }
    }
}
