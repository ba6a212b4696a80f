package tessar.net.ns;

import java.io.Closeable;
import java.io.IOException;
import java.io.InputStream;
import java.net.InetAddress;
import java.net.Socket;
import javax.net.ssl.SSLSocketFactory;
import tessar.net.nt.MetricsEnabledInputStream;
import tessar.net.nt.TcpsInputStream;

/** The driver's network session: a connection to a port of the loopback. */
public class Communication implements Closeable {
    SessionAtts sAtts;

    private final Socket socket;
    private final byte[] packet = new byte[64];
    private long received;

    private Communication(Socket socket, InputStream in) {
        this.socket = socket;
        sAtts = new SessionAtts(in);
    }

    /**
     * @param kind of stream: "plain", "metered"; "encrypted" on a socket of its own or "layered" on another,
     *     each through the driver's stream; "encrypted-bare" and "encrypted-metered" without
     */
    public static Communication connect(String kind, int port) throws IOException {
        Socket socket = connectSocket(kind, port);
        return new Communication(socket, streamOf(kind, socket));
    }

    private static Socket connectSocket(String kind, int port) throws IOException {
        InetAddress host = InetAddress.getByName("127.0.0.1");
        SSLSocketFactory ssl = (SSLSocketFactory)SSLSocketFactory.getDefault();
        if (kind.startsWith("encrypted"))
            return ssl.createSocket(host, port);
        Socket socket = new Socket(host, port);
        return kind.equals("layered") ? ssl.createSocket(socket, "127.0.0.1", port, true) : socket;
    }

    private static InputStream streamOf(String kind, Socket socket) throws IOException {
        InputStream in = socket.getInputStream();
        switch (kind) {
        case "metered":
        case "encrypted-metered":
            return new MetricsEnabledInputStream(in);
        case "encrypted":
        case "layered":
            return new TcpsInputStream(in);
        default:
            return in;
        }
    }

    /** Waits for the server's answer, over an encrypted connection for the first one of the handshake. */
    public int receive() throws IOException {
        int length = sAtts.ntInputStream.read(packet, 0, packet.length);
        received += length;
        return length;
    }

    public Socket socket() { return socket; }

    @Override
    public void close() throws IOException {
        socket.close();
    }
}
