package qoragent.bench;

import ferrule.servlet.internal.ServletRequestImpl;
import ferrule.work.ExecuteThread;
import java.io.IOException;
import java.io.InputStream;
import java.net.InetAddress;
import java.net.Socket;
import java.util.ArrayList;
import java.util.List;
import java.util.concurrent.CountDownLatch;
import java.util.concurrent.TimeUnit;
import qoragent.models.Keep;
import tessar.jdbc.dbaccess.DBAccess;
import tessar.jdbc.driver.TessarConnection;
import tessar.jdbc.driver.TessarPreparedStatement;
import tessar.jdbc.driver.TessarStatement;
import tessar.net.ns.Communication;
import tessar.net.nt.SilentServer;

/**
 * Threads at a depth that wait for a database's answer in a request's work: in frames that the agent knows (a
 * server's thread, its request, a statement), or in as many frames of unknown classes, with the same locals.
 */
final class TierCrowd implements AutoCloseable {
    private static final String SQL =
        "select o.id, o.total, c.name from orders o join customers c on c.id = o.customer"
        + " where o.state = ? and o.total > ? order by o.total desc";

    private final SilentServer server = new SilentServer();
    private final List<Thread> threads = new ArrayList<>();
    private final CountDownLatch inPlace;

    TierCrowd(int count, int depth, boolean isKnown) throws Exception {
        inPlace = new CountDownLatch(count);
        int down = depth - framesOf(isKnown);
        for (int i = 0; i < count; i++)
            threads.add(isKnown ? knownThread(i, down) : plainThread(i, down));
        for (Thread thread : threads) {
            thread.setDaemon(true);
            thread.start();
        }
        if (!inPlace.await(60, TimeUnit.SECONDS))
            throw new IllegalStateException("the crowd is not in place");
        for (Thread thread : threads)
            while (thread.getStackTrace().length < depth)
                Thread.sleep(1);
    }

    /** Frames of a thread that goes down no further. */
    private int framesOf(boolean isKnown) throws Exception {
        CountDownLatch former = new CountDownLatch(1);
        Thread probe = isKnown ? knownThread(0, 0) : plainThread(0, 0);
        probe.setDaemon(true);
        probe.start();
        int found = 0;
        for (int stable = 0; stable < 50; former.await(2, TimeUnit.MILLISECONDS)) {
            int now = probe.getStackTrace().length;
            stable = now == found && now > 8 ? stable + 1 : 0;
            found = now;
        }
        return found;
    }

    private Thread knownThread(int number, int down) throws IOException {
        Communication net = Communication.connect("plain", server.port());
        TessarStatement statement = new TessarPreparedStatement(
            new TessarConnection("jdbc:tessar:thin:@127.0.0.1:orders", "shop", new DBAccess(net)),
            SQL + number);
        Runnable request = new ServletRequestImpl("/orders/" + number, () -> a(down, () -> query(statement)));
        return new ExecuteThread("bench-" + number, request, false, false);
    }

    private Thread plainThread(int number, int down) throws IOException {
        Socket socket = new Socket(InetAddress.getByName("127.0.0.1"), server.port());
        PlainStatement statement = new PlainStatement(socket.getInputStream(), SQL + number);
        Runnable request = new PlainRequest("/orders/" + number, () -> a(down, () -> query(statement)));
        return new PlainThread("bench-" + number, request);
    }

    private void query(TessarStatement statement) {
        inPlace.countDown();
        try {
            statement.executeQuery();
        } catch (IOException e) {
            Keep.alive(e);
        }
    }

    private void query(PlainStatement statement) {
        inPlace.countDown();
        try {
            statement.executeQuery();
        } catch (IOException e) {
            Keep.alive(e);
        }
    }

    private void a(int left, Runnable end) {
        if (left > 1)
            b(left - 1, end);
        else if (left == 1)
            b(0, end);
        else
            end.run();
    }

    private void b(int left, Runnable end) {
        if (left > 0)
            a(left - 1, end);
        else
            end.run();
    }

    @Override
    public void close() throws Exception {
        server.close();
        for (Thread thread : threads)
            thread.join();
    }

    /** The frames of ferrule.work.ExecuteThread under another name; likewise the classes below. */
    private static final class PlainThread extends Thread {
        private final Runnable work;

        PlainThread(String name, Runnable work) {
            super(name);
            this.work = work;
        }

        @Override
        public void run() {
            perform(work);
            Keep.alive(this);
        }

        void perform(Runnable request) {
            request.run();
            Keep.alive(this, request);
        }
    }

    private static final class PlainRequest implements Runnable {
        private final String path;
        private final Runnable servlet;

        PlainRequest(String path, Runnable servlet) {
            this.path = path;
            this.servlet = servlet;
        }

        @Override
        public void run() {
            servlet.run();
            Keep.alive(this, path);
        }
    }

    private static final class PlainStatement {
        private final PlainAccess access;
        private final String text;
        private long executions;

        PlainStatement(InputStream in, String text) {
            this.access = new PlainAccess(in);
            this.text = text;
        }

        long executeQuery() throws IOException {
            access.fetch();
            Keep.alive(text);
            return ++executions;
        }
    }

    private static final class PlainAccess {
        private final InputStream in;
        private final byte[] packet = new byte[64];
        private long answers;

        PlainAccess(InputStream in) { this.in = in; }

        void fetch() throws IOException {
            receive();
            answers++;
        }

        int receive() throws IOException { return in.read(packet, 0, packet.length); }
    }
}
