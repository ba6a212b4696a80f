package qoragent;

import java.io.IOException;
import java.nio.ByteBuffer;
import java.nio.channels.SelectionKey;
import java.nio.channels.Selector;
import java.nio.channels.SocketChannel;
import java.security.MessageDigest;
import java.util.Arrays;
import java.util.concurrent.TimeUnit;

/** A caller at the relay that hasn't shown its token yet. The relay's accepting thread alone. */
final class Stranger {
    enum State { WAITING, TRUSTED, REFUSED }

    private static final int MAX_LINE_BYTES = 64;

    final SocketChannel channel;
    final long deadline;
    private final ByteBuffer heard = ByteBuffer.allocate(MAX_LINE_BYTES);
    private SelectionKey key;

    Stranger(SocketChannel channel, long tokenMillis) {
        this.channel = channel;
        this.deadline = System.nanoTime() + TimeUnit.MILLISECONDS.toNanos(tokenMillis);
    }

    boolean overdue(long nowNanos) { return nowNanos - deadline > 0; }

    /** Takes what has come, without waiting for more. */
    State listen(byte[] token) throws IOException {
        channel.configureBlocking(false);
        boolean ended = channel.read(heard) < 0;
        for (int i = 0; i < heard.position(); i++)
            if (heard.get(i) == '\n')
                return MessageDigest.isEqual(token, Arrays.copyOf(heard.array(), i)) ? State.TRUSTED
                                                                                     : State.REFUSED;
        return ended || !heard.hasRemaining() ? State.REFUSED : State.WAITING;
    }

    /** What came after the token line. */
    byte[] rest() {
        int start = 0;
        while (heard.get(start) != '\n')
            start++;
        return Arrays.copyOfRange(heard.array(), start + 1, heard.position());
    }

    void waitIn(Selector selector) throws IOException {
        if (key == null)
            key = channel.register(selector, SelectionKey.OP_READ, this);
    }

    /** Leaves the selector; from now on reads wait. */
    void stopWaiting() throws IOException {
        if (key != null)
            key.cancel();
        channel.configureBlocking(true);
    }

    void cut() {
        try {
            channel.close();
        } catch (IOException e) {
            // it is as closed as it gets
        }
    }
}
