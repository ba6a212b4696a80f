package qoragent.demo;

import java.io.File;
import java.io.FileInputStream;
import java.io.IOException;
import java.io.InputStream;
import java.io.RandomAccessFile;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.List;

/** Threads in the network and in files, with partners that never send anything. */
final class Feeds {
    static final String[] SOCKET_READ = {"socketRead0", "read0"};

    /** Kept open, as closing a far end would end the read at the near one. */
    private static final List<Socket> FAR_ENDS = new ArrayList<>();

    private Feeds() {}

    /** A connection to this process itself. */
    static Socket silentConnection() throws IOException {
        try (ServerSocket server = new ServerSocket(0, 1, InetAddress.getLoopbackAddress())) {
            Socket near = new Socket(server.getInetAddress(), server.getLocalPort());
            FAR_ENDS.add(server.accept());
            return near;
        }
    }

    static final class StockFeed extends Actor {
        private final Socket socket;

        StockFeed(Socket socket) {
            super("demo-socket-read", Thread.State.RUNNABLE, SOCKET_READ);
            this.socket = socket;
        }

        @Override
        void act() throws Exception {
            readStock();
        }

        private void readStock() throws IOException { socket.getInputStream().read(); }
    }

    static final class FrontDoor extends Actor {
        private final ServerSocket server = new ServerSocket(0, 1, InetAddress.getLoopbackAddress());

        FrontDoor() throws IOException {
            super("demo-accept", Thread.State.RUNNABLE, "socketAccept", "accept");
        }

        @Override
        String truth() {
            return "port=" + server.getLocalPort();
        }

        @Override
        void act() throws Exception {
            server.accept();
        }

        /** The native accept, not the Java methods of that name above it. */
        @Override
        boolean inPlace() {
            StackTraceElement[] frames = getStackTrace();
            return frames.length > 0 && frames[0].isNativeMethod() && super.inPlace();
        }
    }

    /** Reads a named pipe that stays empty. */
    static final class PriceFile extends Actor {
        private final File pipe;
        private final RandomAccessFile writer;
        private final InputStream reader;

        PriceFile() throws Exception {
            super("demo-file-read", Thread.State.RUNNABLE, "readBytes");
            File dir = Files.createTempDirectory("qoragent-demo").toFile();
            pipe = new File(dir, "prices");
            dir.deleteOnExit(); // after the pipe: the last one told goes first
            pipe.deleteOnExit();
            if (new ProcessBuilder("mkfifo", pipe.getPath()).inheritIO().start().waitFor() != 0)
                throw new IOException("mkfifo " + pipe + " failed");
            writer = new RandomAccessFile(pipe, "rw"); // keeps the pipe open, so that a reader waits
            reader = new FileInputStream(pipe);
        }

        @Override
        String truth() {
            return "file=" + pipe;
        }

        @Override
        void act() throws Exception {
            readPrices(new byte[512]);
        }

        private void readPrices(byte[] line) throws IOException {
            reader.read(line);
            writer.close();
        }
    }
}
