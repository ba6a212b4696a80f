package qoragent;

import java.io.IOException;
import java.io.InputStream;
import java.io.OutputStream;
import java.net.Socket;
import java.nio.charset.StandardCharsets;
import java.security.MessageDigest;
import java.util.Arrays;
import java.util.concurrent.TimeUnit;
import java.util.function.UnaryOperator;

/**
 * One console at the relay: a token line, then a reply for each request line.
 *
 * Reads and writes have no time-outs of their own. A deadline is set before whatever the other side can drag
 * out, and the relay's watch cuts the connection when it has passed; so a caller that sends or takes one byte
 * at a time has no more time than one that does nothing.
 */
final class Connection {
    /** Ends each reply. */
    static final String END_OF_TRANSMISSION = "|\t|\t\t||";
    static final int MAX_REQUEST_BYTES = 20_480;

    private static final int NO_LINE = -1;
    private static final int LINE_TOO_LONG = -2;
    private static final int MAX_TOKEN_BYTES = 32;
    private static final int MAX_DRAINED_BYTES = 1 << 20;
    private static final String TOO_LONG = "ERROR request longer than " + MAX_REQUEST_BYTES + " bytes\n";

    private final Socket socket;
    private final UnaryOperator<String> agent;
    private final byte[] token;
    private final Relay.Limits limits;
    private final byte[] input = new byte[4096];
    private int inputStart;
    private int inputEnd;
    private volatile boolean trusted;
    private volatile boolean timed;
    private volatile long deadline;

    Connection(Socket socket, UnaryOperator<String> agent, String token, Relay.Limits limits) {
        this.socket = socket;
        this.agent = agent;
        this.token = token.getBytes(StandardCharsets.US_ASCII);
        this.limits = limits;
        allow(limits.tokenMillis);
    }

    /** True once the caller has shown the token. */
    boolean trusted() { return trusted; }

    boolean overdue(long nowNanos) { return timed && nowNanos - deadline > 0; }

    private void allow(long millis) {
        deadline = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(millis);
        timed = true;
    }

    /** Ends the connection, whatever its thread is doing; any thread, any number of times. */
    void cut() {
        try {
            socket.close();
        } catch (IOException e) {
            // it is as closed as it gets
        }
    }

    /** Serves the caller until it leaves, misbehaves or gets no answer. */
    void serve() throws IOException {
        socket.setTcpNoDelay(true);
        InputStream in = socket.getInputStream();
        OutputStream out = socket.getOutputStream();
        byte[] line = new byte[MAX_REQUEST_BYTES];
        int length = readLine(in, line, MAX_TOKEN_BYTES);
        if (length < 0 || !MessageDigest.isEqual(token, Arrays.copyOf(line, length)))
            return;
        trusted = true;
        allow(limits.idleMillis);
        send(out, "OK\n");
        while ((length = readLine(in, line, MAX_REQUEST_BYTES)) >= 0) {
            timed = false;
            String reply = agent.apply(new String(line, 0, length, StandardCharsets.UTF_8));
            allow(limits.idleMillis);
            if (reply == null)
                return;
            send(out, framed(reply));
            allow(limits.idleMillis);
        }
        if (length == LINE_TOO_LONG)
            refuse(in, out);
    }

    /**
     * Reads up to the next LF, which is dropped. The count of bytes, NO_LINE at the end, or LINE_TOO_LONG.
     */
    private int readLine(InputStream in, byte[] line, int max) throws IOException {
        for (int length = 0;; length++) {
            if (inputStart == inputEnd) {
                inputStart = 0;
                inputEnd = Math.max(0, in.read(input));
                if (inputEnd == 0)
                    return NO_LINE;
            }
            byte b = input[inputStart++];
            if (b == '\n')
                return length;
            if (length == max)
                return LINE_TOO_LONG;
            line[length] = b;
        }
    }

    /**
     * Sends the error and takes what the caller still sends, within bounds: closing over unread bytes would
     * reset the connection, and a caller still sending would fail at that before it sees the error.
     */
    private void refuse(InputStream in, OutputStream out) throws IOException {
        allow(limits.tokenMillis);
        send(out, TOO_LONG);
        socket.shutdownOutput();
        for (int taken = 0, n; taken < MAX_DRAINED_BYTES && (n = in.read(input)) > 0;)
            taken += n;
    }

    private static void send(OutputStream out, String text) throws IOException {
        out.write(text.getBytes(StandardCharsets.UTF_8));
        out.flush();
    }

    /**
     * The reply with one end mark behind it; a mark inside, or begun by the text's end, loses its first tab.
     */
    static String framed(String reply) {
        boolean marked = reply.endsWith(END_OF_TRANSMISSION);
        int end = marked ? reply.length() - END_OF_TRANSMISSION.length() : reply.length();
        String text = marked ? reply : reply + END_OF_TRANSMISSION;
        int mark = text.indexOf(END_OF_TRANSMISSION);
        if (mark == end)
            return text;
        StringBuilder broken = new StringBuilder(text);
        for (; mark < end; mark = broken.indexOf(END_OF_TRANSMISSION, mark))
            broken.setCharAt(mark + 1, ' ');
        return broken.toString();
    }
}
