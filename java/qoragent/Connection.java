package qoragent;

import java.io.IOException;
import java.net.StandardSocketOptions;
import java.nio.ByteBuffer;
import java.nio.channels.SocketChannel;
import java.nio.charset.StandardCharsets;
import java.util.concurrent.TimeUnit;
import java.util.function.UnaryOperator;

/**
 * One console at the relay, after its token: a reply for each request line.
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
    private static final int REFUSAL_MILLIS = 5_000;
    private static final int PART_BYTES = 8_192; // the JDK keeps as much outside the heap for each thread
    private static final int MAX_DRAINED_BYTES = 1 << 20;
    private static final String TOO_LONG = "ERROR request longer than " + MAX_REQUEST_BYTES + " bytes\n";

    private final SocketChannel channel;
    private final UnaryOperator<String> agent;
    private final Relay.Limits limits;
    private final ByteBuffer input = ByteBuffer.allocate(4096);
    private volatile boolean timed;
    private volatile long deadline;

    /**
     * @param channel in blocking mode
     * @param first what the caller has sent already
     */
    Connection(SocketChannel channel, UnaryOperator<String> agent, byte[] first, Relay.Limits limits) {
        this.channel = channel;
        this.agent = agent;
        this.limits = limits;
        input.put(first).flip();
        allow(limits.idleMillis);
    }

    boolean overdue(long nowNanos) { return timed && nowNanos - deadline > 0; }

    private void allow(long millis) {
        deadline = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(millis);
        timed = true;
    }

    /** Ends the connection, whatever its thread is doing; any thread, any number of times. */
    void cut() {
        try {
            channel.close();
        } catch (IOException e) {
            // it is as closed as it gets
        }
    }

    /** Serves the caller until it leaves, misbehaves or gets no answer. */
    void serve() throws IOException {
        channel.setOption(StandardSocketOptions.TCP_NODELAY, true);
        send("OK\n");
        byte[] line = new byte[MAX_REQUEST_BYTES];
        int length;
        while ((length = readLine(line)) >= 0) {
            timed = false;
            String reply = agent.apply(new String(line, 0, length, StandardCharsets.UTF_8));
            allow(limits.idleMillis);
            if (reply == null)
                return;
            send(framed(reply));
            allow(limits.idleMillis);
        }
        if (length == LINE_TOO_LONG)
            refuse();
    }

    /**
     * Reads up to the next LF, which is dropped. The count of bytes, NO_LINE at the end, or LINE_TOO_LONG.
     */
    private int readLine(byte[] line) throws IOException {
        for (int length = 0;; length++) {
            if (!input.hasRemaining() && !fill())
                return NO_LINE;
            byte b = input.get();
            if (b == '\n')
                return length;
            if (length == line.length)
                return LINE_TOO_LONG;
            line[length] = b;
        }
    }

    private boolean fill() throws IOException {
        input.clear();
        boolean more = channel.read(input) > 0;
        input.flip();
        return more;
    }

    /**
     * Sends the error and takes what the caller still sends, within bounds: closing over unread bytes would
     * reset the connection, and a caller still sending would fail at that before it sees the error.
     */
    private void refuse() throws IOException {
        allow(REFUSAL_MILLIS);
        send(TOO_LONG);
        channel.shutdownOutput();
        for (int taken = 0; taken < MAX_DRAINED_BYTES && fill();)
            taken += input.limit();
    }

    private void send(String text) throws IOException {
        ByteBuffer bytes = ByteBuffer.wrap(text.getBytes(StandardCharsets.UTF_8));
        for (int end = bytes.limit(); bytes.position() < end;) {
            bytes.limit(Math.min(end, bytes.position() + PART_BYTES));
            channel.write(bytes);
        }
    }

    /**
     * The reply with one end mark after it; a mark inside, or begun by the text's end, loses its first tab.
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
