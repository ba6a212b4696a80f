package tessar.net.nt;

import java.io.IOException;
import java.io.InputStream;

/** A stream that counts what it reads. */
public class MetricsEnabledInputStream extends InputStream {
    InputStream realStream;
    long bytesRead;

    public MetricsEnabledInputStream(InputStream realStream) { this.realStream = realStream; }

    @Override
    public int read() throws IOException {
        int b = realStream.read();
        bytesRead++;
        return b;
    }

    @Override
    public int read(byte[] bytes, int from, int length) throws IOException {
        int read = realStream.read(bytes, from, length);
        bytesRead += read;
        return read;
    }
}
