package tessar.net.nt;

import java.io.Closeable;
import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;

/**
 * A database server on the loopback that never answers: connections stay in its queue. When it closes, each
 * of them ends with an exception.
 */
public final class SilentServer implements Closeable {
    private static final int QUEUED = 1024;

    private final ServerSocket socket;

    public SilentServer() throws IOException {
        socket = new ServerSocket(0, QUEUED, InetAddress.getByName("127.0.0.1"));
    }

    public int port() { return socket.getLocalPort(); }

    @Override
    public void close() throws IOException {
        socket.close();
    }
}
