package tessar.net.nt;

import java.io.IOException;
import java.io.InputStream;

/** What is between the driver and the stream of an encrypted connection. */
public class TcpsInputStream extends InputStream {
    InputStream realStream;
    boolean ended;

    public TcpsInputStream(InputStream realStream) { this.realStream = realStream; }

    @Override
    public int read() throws IOException {
        int b = realStream.read();
        ended = b < 0;
        return b;
    }

    @Override
    public int read(byte[] bytes, int from, int length) throws IOException {
        int read = realStream.read(bytes, from, length);
        ended = read < 0;
        return read;
    }
}
