import java.net.ServerSocket;
import java.net.Socket;
import java.util.concurrent.Executors;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;
import tessar.jdbc.dbaccess.DBAccess;
import tessar.jdbc.driver.TessarConnection;
import tessar.jdbc.driver.TessarPreparedStatement;
import tessar.net.ns.Communication;
import tessar.net.nt.SilentServer;

/** Two thousand virtual threads, none of them mounted, for JDK 21 and later. Ends with its input. */
final class VirtualGroups {
    interface Work {
        void run() throws Exception;
    }

    static void crowd(int count, Work work) {
        for (int i = 0; i < count; i++)
            Thread.startVirtualThread(() -> {
                try {
                    work.run();
                    park();
                } catch (Exception e) {
                    e.printStackTrace();
                }
            });
    }

    static void park() {
        while (true)
            LockSupport.park();
    }

    static void queryDatabase(String table) throws Exception {
        SilentServer server = new SilentServer();
        TessarConnection connection = new TessarConnection(
            "jdbc:orders", "shop", new DBAccess(Communication.connect("plain", server.port())));
        new TessarPreparedStatement(connection, "select total from " + table).executeQuery();
    }

    /** A structured scope, by the class under all of them. */
    static void open(int count) throws Exception {
        Class<?> type = Class.forName("jdk.internal.misc.ThreadFlock");
        Object scope = type.getMethod("open", String.class).invoke(null, "crowd-scope");
        for (int i = 0; i < count; i++)
            type.getMethod("start", Thread.class)
                .invoke(scope, Thread.ofVirtual().unstarted(VirtualGroups::park));
    }

    /** Threads whose ids, which are their hashes, share a bin of the JDK's list: it becomes a tree. */
    static void crowdOneBin(int count) {
        for (int id = 1; id <= count * 4096; id++) {
            Thread thread = Thread.ofVirtual().unstarted(VirtualGroups::park);
            if (id % 4096 == 0)
                thread.start();
        }
    }

    public static void main(String[] args) throws Exception {
        ReentrantLock lock = new ReentrantLock();
        ServerSocket silent = new ServerSocket(0), accepts = new ServerSocket(0);
        lock.lock();
        crowd(1000, VirtualGroups::park);
        crowdOneBin(40);
        crowd(200, () -> Thread.sleep(1L << 40));
        crowd(100, lock::lock);
        crowd(20, () -> new Socket("127.0.0.1", silent.getLocalPort()).getInputStream().read());
        crowd(1, accepts::accept);
        for (String table : new String[] {"orders", "bills", "offers"})
            crowd(1, () -> queryDatabase(table));
        crowd(1, () -> open(30));
        open(5);
        var executor = Executors.newVirtualThreadPerTaskExecutor();
        for (int i = 0; i < 700; i++)
            executor.execute(VirtualGroups::park);
        System.out.println("ready " + Thread.currentThread().threadId());
        System.in.read();
        System.exit(0);
    }
}
