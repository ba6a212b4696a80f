package qoragent.testing;

import java.io.File;
import java.io.FileInputStream;
import java.io.FileOutputStream;
import java.io.FileReader;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.net.DatagramPacket;
import java.net.DatagramSocket;
import java.net.InetAddress;
import java.net.InetSocketAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.ByteBuffer;
import java.nio.channels.Selector;
import java.nio.channels.ServerSocketChannel;
import java.nio.channels.SocketChannel;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.Arrays;
import java.util.List;

/** Residents in a network or file call, which ends when what they opened is closed. */
final class ZooIo {
    private static final int HOUR_MILLIS = 3_600_000;
    private static final int MORE_THAN_A_FIFO_HOLDS = 4 << 20;
    private static final InetAddress HERE = InetAddress.getLoopbackAddress();

    private ZooIo() {}

    private static Resident io(String kind, Resident.Part part, String... tops) {
        return new Resident(kind, Thread.State.RUNNABLE, tops, part);
    }

    static List<Resident> residents() {
        return new ArrayList<>(Arrays.asList(
            io("socket-read",
               self
               -> socketRead(self, 0),
               "java.net.SocketInputStream.socketRead0", "sun.nio.ch.SocketDispatcher.read0"),
            io("socket-read-timeout",
               self
               -> socketRead(self, HOUR_MILLIS),
               "java.net.SocketInputStream.socketRead0", "sun.nio.ch.Net.poll"),
            io("socket-write", ZooIo::socketWrite, "sun.nio.ch.FileDispatcherImpl.write0",
               "sun.nio.ch.SocketDispatcher.write0"),
            io("accept",
               self -> accept(self, 0), "java.net.PlainSocketImpl.socketAccept", "sun.nio.ch.Net.accept"),
            io("accept-timeout",
               self
               -> accept(self, HOUR_MILLIS),
               "java.net.PlainSocketImpl.socketAccept", "sun.nio.ch.Net.poll"),
            io("channel-accept",
               self
               -> {
                   ServerSocketChannel server = self.closing(ServerSocketChannel.open());
                   server.bind(new InetSocketAddress(HERE, 0));
                   return server::accept;
               },
               "sun.nio.ch.ServerSocketChannelImpl.accept0", "sun.nio.ch.Net.accept"),
            io("channel-read",
               self
               -> {
                   SocketChannel near = connect(self);
                   return () -> near.read(ByteBuffer.allocateDirect(64));
               },
               "sun.nio.ch.FileDispatcherImpl.read0", "sun.nio.ch.SocketDispatcher.read0"),
            io("select",
               self
               -> {
                   Selector selector = self.closing(Selector.open());
                   return selector::select;
               },
               "sun.nio.ch.EPollArrayWrapper.epollWait", "sun.nio.ch.EPoll.wait"),
            io("datagram-receive",
               self
               -> {
                   DatagramSocket socket = self.closing(new DatagramSocket(0, HERE));
                   return () -> socket.receive(new DatagramPacket(new byte[64], 64));
               },
               "java.net.PlainDatagramSocketImpl.receive0", "sun.nio.ch.DatagramChannelImpl.receive0"),
            fileRead("file-read", FileInputStream::read, "java.io.FileInputStream.read0"),
            fileRead("file-read-bytes", in -> in.read(new byte[64]), "java.io.FileInputStream.readBytes"),
            fileRead("file-channel-read",
                     in
                     -> in.getChannel().read(ByteBuffer.allocateDirect(64)),
                     "sun.nio.ch.FileDispatcherImpl.read0", "sun.nio.ch.UnixFileDispatcherImpl.read0"),
            fifo("file-reader", path -> {
                try (FileReader reader = new FileReader(path)) {
                    reader.read();
                }
            }, "java.io.FileInputStream.readBytes"), fifo("random-access-read", path -> {
                try (RandomAccessFile file = new RandomAccessFile(path, "rw")) {
                    file.read();
                }
            }, "java.io.RandomAccessFile.read0"), fifo("file-write", path -> {
                try (FileOutputStream out = new FileOutputStream(path)) {
                    out.write(new byte[MORE_THAN_A_FIFO_HOLDS]);
                }
            }, "java.io.FileOutputStream.writeBytes")));
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

    /** Writes into a connection that has no room left and whose far end never reads. */
    private static Resident.Work socketWrite(Resident self) throws IOException {
        SocketChannel near = connect(self);
        near.configureBlocking(false);
        ByteBuffer chunk = ByteBuffer.allocateDirect(1 << 16);
        do
            chunk.clear();
        while (near.write(chunk) > 0);
        near.configureBlocking(true);
        return () -> {
            ByteBuffer more = ByteBuffer.allocateDirect(1 << 24);
            while (near.write(more) >= 0)
                more.clear();
        };
    }

    private static Resident.Work accept(Resident self, int timeoutMillis) throws IOException {
        ServerSocket server = self.closing(new ServerSocket(0, 1, HERE));
        server.setSoTimeout(timeoutMillis);
        return server::accept;
    }

    private interface Use<T> {
        void of(T thing) throws IOException;
    }

    private static Resident fileRead(String kind, Use<FileInputStream> use, String... tops) {
        return fifo(kind, path -> {
            try (FileInputStream in = new FileInputStream(path)) {
                use.of(in);
            }
        }, tops);
    }

    /** One at an end of a FIFO; the other end is open for both directions, so that no open blocks. */
    private static Resident fifo(String kind, Use<File> use, String... tops) {
        return io(kind, self -> {
            File path = new File(Files.createTempDirectory("zoo").toFile(), kind);
            self.onRelease(() -> {
                Files.delete(path.toPath());
                Files.delete(path.getParentFile().toPath());
            });
            int status = new ProcessBuilder("mkfifo", path.getPath()).inheritIO().start().waitFor();
            if (status != 0)
                throw new IOException("mkfifo ended with " + status);
            RandomAccessFile otherEnd = self.closing(new RandomAccessFile(path, "rw"));
            self.onRelease(() -> {
                byte[] sink = new byte[1 << 16];
                if (kind.equals("file-write"))
                    for (int left = MORE_THAN_A_FIFO_HOLDS; left > 0;)
                        left -= otherEnd.read(sink);
                else
                    otherEnd.write(0);
            });
            return () -> use.of(path);
        }, tops);
    }
}
