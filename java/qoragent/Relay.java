package qoragent;

import java.io.IOException;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.nio.file.Path;
import java.util.ArrayDeque;
import java.util.ArrayList;
import java.util.Deque;
import java.util.List;
import java.util.concurrent.TimeUnit;
import java.util.function.UnaryOperator;

/**
 * The door for consoles: a TCP port, on the loopback unless the operator says otherwise, guarded by a token.
 *
 * One thread accepts all callers and waits for their tokens, with a short time and a few bytes for each; who
 * has shown the token gets a thread. So strangers, however many, cost the application next to nothing and
 * consoles no place. While connections are open the first thread looks every half second for one that has
 * outstayed its limit. All threads are daemons named "qoragent-relay...", and none of them lets an exception
 * out. A shutdown hook removes the endpoint file when the JVM ends.
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

    static final Limits LIMITS = new Limits(8, 1_000, 300_000);

    /** Callers without a token; the one that has waited longest makes room for the next. */
    static final int MAX_STRANGERS = 64;

    private static final int WATCH_MILLIS = 500;
    private static final int ACCEPT_RETRY_MILLIS = 200;
    private static final int BACKLOG = 128;
    private static final String THREAD_NAME = "qoragent-relay";

    private final UnaryOperator<String> agent;
    private final ServerSocketChannel server;
    private final Selector selector;
    private final Endpoint endpoint;
    private final Limits limits;
    private final byte[] token;
    private final Deque<Stranger> strangers = new ArrayDeque<>(); // the accepting thread's, oldest first
    private final List<Connection> connections = new ArrayList<>();
    private final Thread hook;
    private boolean closed;
    private int served;

    private Relay(UnaryOperator<String> agent, ServerSocketChannel server, Selector selector,
                  Endpoint endpoint, Limits limits) {
        this.agent = agent;
        this.server = server;
        this.selector = selector;
        this.endpoint = endpoint;
        this.limits = limits;
        this.token = endpoint.token().getBytes(StandardCharsets.US_ASCII);
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
        ServerSocketChannel server = ServerSocketChannel.open();
        try {
            server.configureBlocking(false);
            server.socket().setReuseAddress(true);
            server.bind(new InetSocketAddress(bind, port), BACKLOG);
            return new Relay(agent, server, Selector.open(), endpoint, limits);
        } catch (IOException | RuntimeException e) {
            server.close();
            throw new IOException("port " + port + " of " + bind.getHostAddress() + ": " + e.getMessage(), e);
        }
    }

    int port() { return server.socket().getLocalPort(); }

    /**
     * Tells the consoles of the port, and serves them.
     *
     * @return the endpoint's directory if it isn't the usual one, else null
     */
    Path start() throws IOException {
        server.register(selector, SelectionKey.OP_ACCEPT);
        endpoint.publish(server.socket().getInetAddress(), port());
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
            endpoint.publish(server.socket().getInetAddress(), port());
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
            selector.close(); // which lets go of the port
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
        while (selector.isOpen()) {
            try {
                takeTurn();
            } catch (Throwable t) {
                dropStrangers(0);
                rest();
            }
        }
        dropStrangers(0);
    }

    /** Hears whoever has spoken, and only then lets others in, who may cost the oldest their place. */
    private void takeTurn() throws IOException {
        selector.select(patience());
        for (SelectionKey key : selector.selectedKeys())
            if (key.attachment() instanceof Stranger)
                hear((Stranger)key.attachment());
        selector.selectedKeys().clear();
        SocketChannel caller;
        for (int i = 0; i < MAX_STRANGERS && (caller = server.accept()) != null; i++) {
            dropStrangers(MAX_STRANGERS - 1);
            Stranger stranger = new Stranger(caller, limits.tokenMillis);
            strangers.add(stranger);
            hear(stranger); // a console sends its token with its first breath
        }
        for (Stranger late; (late = strangers.peek()) != null && late.overdue(System.nanoTime());)
            drop(late);
        cutOverdue();
    }

    /** Milliseconds until somebody may have outstayed a limit; 0 for no end. */
    private long patience() {
        Stranger oldest = strangers.peek();
        synchronized (connections) {
            long watch = connections.isEmpty() ? 0 : WATCH_MILLIS;
            if (oldest == null)
                return watch;
            long left = TimeUnit.NANOSECONDS.toMillis(oldest.deadline - System.nanoTime()) + 1;
            return Math.max(1, watch == 0 ? left : Math.min(watch, left));
        }
    }

    /** Takes what a stranger says; ends in a connection, in the street, or in more waiting. */
    private void hear(Stranger stranger) {
        try {
            switch (stranger.listen(token)) {
            case TRUSTED:
                strangers.remove(stranger);
                stranger.stopWaiting();
                admit(stranger);
                break;
            case WAITING:
                stranger.waitIn(selector);
                break;
            default:
                drop(stranger);
            }
        } catch (IOException | RuntimeException e) {
            drop(stranger);
        }
    }

    private void drop(Stranger stranger) {
        strangers.remove(stranger);
        stranger.cut();
    }

    private void dropStrangers(int left) {
        while (strangers.size() > left)
            drop(strangers.peek());
    }

    /** Out of descriptors or memory: waits a moment, so that the thread doesn't spin. */
    private void rest() {
        try {
            if (selector.isOpen())
                Thread.sleep(ACCEPT_RETRY_MILLIS);
        } catch (InterruptedException e) {
            // nobody has a reason to interrupt this thread; go on
        }
    }

    private void cutOverdue() {
        long now = System.nanoTime();
        synchronized (connections) {
            for (Connection connection : connections)
                if (connection.overdue(now))
                    connection.cut();
        }
    }

    /** Gives a caller a thread if there is a place for it. */
    private void admit(Stranger caller) throws IOException {
        Connection connection = new Connection(caller.channel, agentOrClose(), caller.rest(), limits);
        String name;
        synchronized (connections) {
            if (closed || connections.size() >= limits.connections) {
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
