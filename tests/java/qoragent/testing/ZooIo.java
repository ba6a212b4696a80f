package qoragent.testing;

import java.io.Closeable;
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

/** Residents that stand in a network or file call. */
final class ZooIo {
    private static final int HOUR_MILLIS = 3_600_000;
    private static final int MORE_THAN_A_FIFO_HOLDS = 4 << 20;

    private ZooIo() {}

    static List<Resident> residents() {
        return new ArrayList<>(Arrays.asList(
            new SocketRead("socket-read", 0), new SocketRead("socket-read-timeout", HOUR_MILLIS),
            new SocketWrite(), new Accept("accept", 0), new Accept("accept-timeout", HOUR_MILLIS),
            new ChannelAccept(), new ChannelRead(), new Select(), new Receive(),
            new FileRead("file-read", "java.io.FileInputStream.read0") {
                @Override
                void read(FileInputStream in) throws IOException {
                    in.read();
                }
            },
            new FileRead("file-read-bytes", "java.io.FileInputStream.readBytes") {
                @Override
                void read(FileInputStream in) throws IOException {
                    in.read(new byte[64]);
                }
            },
            new FileRead("file-channel-read", "sun.nio.ch.FileDispatcherImpl.read0",
                         "sun.nio.ch.UnixFileDispatcherImpl.read0") {
                @Override
                void read(FileInputStream in) throws IOException {
                    in.getChannel().read(ByteBuffer.allocateDirect(64));
                }
            },
            new ReaderRead(), new RandomRead(), new FileWrite()));
    }

    /** A resident in a call that ends when what it opened is closed. */
    private abstract static class Io extends Resident {
        private final List<Closeable> opened = new ArrayList<>();

        Io(String kind, String... tops) { super(kind, Thread.State.RUNNABLE, tops); }

        final <T extends Closeable> T open(T resource) {
            opened.add(0, resource);
            return resource;
        }

        @Override
        void letGo() throws Exception {
            for (Closeable resource : opened)
                resource.close();
        }
    }

    /** A connection over the loopback; what goes in at `near` comes out at `far`. */
    private abstract static class Connected extends Io {
        Socket near;
        Socket far;

        Connected(String kind, String... tops) { super(kind, tops); }

        @Override
        void prepare() throws Exception {
            try (ServerSocket server = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
                near = open(new Socket(server.getInetAddress(), server.getLocalPort()));
                far = open(server.accept());
            }
        }
    }

    private static final class SocketRead extends Connected {
        private final int timeoutMillis;

        SocketRead(String kind, int timeoutMillis) {
            super(kind, "java.net.SocketInputStream.socketRead0",
                  timeoutMillis == 0 ? "sun.nio.ch.SocketDispatcher.read0" : "sun.nio.ch.Net.poll");
            this.timeoutMillis = timeoutMillis;
        }

        @Override
        void live() throws Exception {
            near.setSoTimeout(timeoutMillis);
            near.getInputStream().read();
        }
    }

    /** Writes into a connection that has no room left and whose far end never reads. */
    private static final class SocketWrite extends Io {
        private SocketChannel near;

        SocketWrite() {
            super("socket-write", "sun.nio.ch.FileDispatcherImpl.write0",
                  "sun.nio.ch.SocketDispatcher.write0");
        }

        @Override
        void prepare() throws Exception {
            try (ServerSocketChannel server = ServerSocketChannel.open()) {
                server.bind(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0));
                near = open(SocketChannel.open(server.getLocalAddress()));
                open(server.accept());
            }
            near.configureBlocking(false);
            ByteBuffer chunk = ByteBuffer.allocateDirect(1 << 16);
            do
                chunk.clear();
            while (near.write(chunk) > 0);
            near.configureBlocking(true);
        }

        @Override
        void live() throws Exception {
            ByteBuffer chunk = ByteBuffer.allocateDirect(1 << 24);
            while (near.write(chunk) >= 0)
                chunk.clear();
        }
    }

    private static final class Accept extends Io {
        private final int timeoutMillis;
        private ServerSocket server;

        Accept(String kind, int timeoutMillis) {
            super(kind, "java.net.PlainSocketImpl.socketAccept",
                  timeoutMillis == 0 ? "sun.nio.ch.Net.accept" : "sun.nio.ch.Net.poll");
            this.timeoutMillis = timeoutMillis;
        }

        @Override
        void prepare() throws Exception {
            server = open(new ServerSocket(0, 1, InetAddress.getLoopbackAddress()));
            server.setSoTimeout(timeoutMillis);
        }

        @Override
        void live() throws Exception {
            server.accept();
        }
    }

    private static final class ChannelAccept extends Io {
        private ServerSocketChannel server;

        ChannelAccept() {
            super("channel-accept", "sun.nio.ch.ServerSocketChannelImpl.accept0", "sun.nio.ch.Net.accept");
        }

        @Override
        void prepare() throws Exception {
            server = open(ServerSocketChannel.open());
            server.bind(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0));
        }

        @Override
        void live() throws Exception {
            server.accept();
        }
    }

    private static final class ChannelRead extends Io {
        private SocketChannel near;

        ChannelRead() {
            super("channel-read", "sun.nio.ch.FileDispatcherImpl.read0", "sun.nio.ch.SocketDispatcher.read0");
        }

        @Override
        void prepare() throws Exception {
            try (ServerSocketChannel server = ServerSocketChannel.open()) {
                server.bind(new InetSocketAddress(InetAddress.getLoopbackAddress(), 0));
                near = open(SocketChannel.open(server.getLocalAddress()));
                open(server.accept());
            }
        }

        @Override
        void live() throws Exception {
            near.read(ByteBuffer.allocateDirect(64));
        }
    }

    private static final class Select extends Io {
        private Selector selector;

        Select() { super("select", "sun.nio.ch.EPollArrayWrapper.epollWait", "sun.nio.ch.EPoll.wait"); }

        @Override
        void prepare() throws Exception {
            selector = open(Selector.open());
        }

        @Override
        void live() throws Exception {
            selector.select();
        }
    }

    private static final class Receive extends Io {
        private DatagramSocket socket;

        Receive() {
            super("datagram-receive", "java.net.PlainDatagramSocketImpl.receive0",
                  "sun.nio.ch.DatagramChannelImpl.receive0");
        }

        @Override
        void prepare() throws Exception {
            socket = open(new DatagramSocket(0, InetAddress.getLoopbackAddress()));
        }

        @Override
        void live() throws Exception {
            socket.receive(new DatagramPacket(new byte[64], 64));
        }
    }

    /** A resident at one end of a FIFO; `otherEnd` is open for both directions, so that no open blocks. */
    private abstract static class Fifo extends Io {
        File path;
        RandomAccessFile otherEnd;

        Fifo(String kind, String... tops) { super(kind, tops); }

        @Override
        void prepare() throws Exception {
            File dir = Files.createTempDirectory("zoo").toFile();
            path = new File(dir, kind);
            int status = new ProcessBuilder("mkfifo", path.getPath()).inheritIO().start().waitFor();
            if (status != 0)
                throw new IOException("mkfifo ended with " + status);
            otherEnd = new RandomAccessFile(path, "rw");
        }

        @Override
        void letGo() throws Exception {
            free();
            otherEnd.close();
            Files.delete(path.toPath());
            Files.delete(path.getParentFile().toPath());
        }

        /** Lets the blocked call come back. */
        void free() throws IOException { otherEnd.write(0); }
    }

    private abstract static class FileRead extends Fifo {
        FileRead(String kind, String... tops) { super(kind, tops); }

        abstract void read(FileInputStream in) throws IOException;

        @Override
        void live() throws Exception {
            try (FileInputStream in = new FileInputStream(path)) {
                read(in);
            }
        }
    }

    private static final class ReaderRead extends Fifo {
        ReaderRead() { super("file-reader", "java.io.FileInputStream.readBytes"); }

        @Override
        void live() throws Exception {
            try (FileReader reader = new FileReader(path)) {
                reader.read();
            }
        }
    }

    private static final class RandomRead extends Fifo {
        RandomRead() { super("random-access-read", "java.io.RandomAccessFile.read0"); }

        @Override
        void live() throws Exception {
            try (RandomAccessFile file = new RandomAccessFile(path, "rw")) {
                file.read();
            }
        }
    }

    private static final class FileWrite extends Fifo {
        FileWrite() { super("file-write", "java.io.FileOutputStream.writeBytes"); }

        @Override
        void live() throws Exception {
            try (FileOutputStream out = new FileOutputStream(path)) {
                out.write(new byte[MORE_THAN_A_FIFO_HOLDS]);
            }
        }

        @Override
        void free() throws IOException {
            byte[] sink = new byte[1 << 16];
            for (int left = MORE_THAN_A_FIFO_HOLDS; left > 0;)
                left -= otherEnd.read(sink);
        }
    }
}
