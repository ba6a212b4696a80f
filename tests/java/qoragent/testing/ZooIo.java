package qoragent.testing;

import java.io.File;
import java.io.FileInputStream;
import java.io.FileOutputStream;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.ByteBuffer;
import java.nio.channels.Selector;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.util.Arrays;
import java.util.List;

/** Residents in a network or file call, which ends when what they opened is closed. */
final class ZooIo {
    private static final int HOUR_MILLIS = 3_600_000;
    private static final int MORE_THAN_A_FIFO_HOLDS = 4 << 20;
    private static final InetAddress HERE = InetAddress.getLoopbackAddress();

    private ZooIo() {}

    private static Resident io(String kind, String tops, Resident.Part part) {
        return new Resident(kind, Thread.State.RUNNABLE, tops, part);
    }

    static List<Resident> all() {
        return Arrays.asList(
            io("socket-read", "socketRead0 read0", self -> socketRead(self, 0)),
            io("socket-read-timeout", "socketRead0 poll", self -> socketRead(self, HOUR_MILLIS)),
            io("socket-write", "write0", ZooIo::socketWrite),
            io("accept", "socketAccept accept", self -> accept(self, 0)),
            io("accept-timeout", "socketAccept poll", self -> accept(self, HOUR_MILLIS)),
            io("channel-read", "read0",
               self -> {
                   SocketChannel near = connect(self);
                   return () -> near.read(ByteBuffer.allocateDirect(64));
               }),
            io("select", "epollWait wait", self -> self.closing(Selector.open())::select),
            fifo("file-read", "read0", path -> {
                try (FileInputStream in = new FileInputStream(path)) {
                    in.read();
                }
            }), fifo("file-channel-read", "read0", path -> {
                try (FileInputStream in = new FileInputStream(path)) {
                    in.getChannel().read(ByteBuffer.allocateDirect(64));
                }
            }), fifo("file-write", "writeBytes", path -> {
                try (FileOutputStream out = new FileOutputStream(path)) {
                    out.write(new byte[MORE_THAN_A_FIFO_HOLDS]);
                }
            }));
    }

    /** The near end of a connection over the loopback. */
    private static SocketChannel connect(Resident self) throws IOException {
        try (ServerSocketChannel server = ServerSocketChannel.open()) {
            server.bind(new InetSocketAddress(HERE, 0));
            SocketChannel near = self.closing(SocketChannel.open(server.getLocalAddress()));
            self.closing(server.accept());
            return near;
        }
    }

    private static Resident.Work socketRead(Resident self, int timeoutMillis) throws IOException {
        try (ServerSocket server = new ServerSocket(0, 1, HERE)) {
            Socket near = self.closing(new Socket(HERE, server.getLocalPort()));
            self.closing(server.accept());
            near.setSoTimeout(timeoutMillis);
            return () -> near.getInputStream().read();
        }
    }

    /** Writes into a connection whose far end never reads. */
    private static Resident.Work socketWrite(Resident self) throws IOException {
        SocketChannel near = connect(self);
        ByteBuffer chunk = ByteBuffer.allocateDirect(1 << 24);
        return () -> {
            while (near.write(chunk) >= 0)
                chunk.clear();
        };
    }

    private static Resident.Work accept(Resident self, int timeoutMillis) throws IOException {
        ServerSocket server = self.closing(new ServerSocket(0, 1, HERE));
        server.setSoTimeout(timeoutMillis);
        return server::accept;
    }

    private interface Use {
        void of(File path) throws IOException;
    }

    /** One at an end of a FIFO; the other end is open for both directions, so that no open blocks. */
    private static Resident fifo(String kind, String tops, Use use) {
        return io(kind, tops, self -> {
            File path = new File(Files.createTempDirectory("zoo").toFile(), kind);
            new ProcessBuilder("mkfifo", path.getPath()).inheritIO().start().waitFor();
            RandomAccessFile otherEnd = self.closing(new RandomAccessFile(path, "rw"));
            self.onRelease(() -> {
                Files.delete(path.toPath());
                Files.delete(path.getParentFile().toPath());
                if (kind.equals("file-write"))
                    otherEnd.readFully(new byte[MORE_THAN_A_FIFO_HOLDS]);
                else
                    otherEnd.write(0);
            });
            return () -> use.of(path);
        });
    }
}
