import java.io.*;
import java.net.*;
import java.sql.*;
import java.util.*;
import java.util.concurrent.SynchronousQueue;

/**
 * Threads that call real databases. Arguments are "NAME FORM...", URL and SQL for each thread, whose name is
 * the first. A "setup" runs its SQL at once and has no thread. On the line "warm" the threads make their calls
 * again and again, on "hold" once, with 1 for the parameter or the # of their SQL in place of 0, on others none;
 * those of a form "transaction" commit each. "done LINE" is printed when no call of an earlier line is left.
 * Embedded databases wait in the function hold.
 */
public class Calls extends Thread {
    static volatile ServerSocket gate;
    static volatile String latest;

    final SynchronousQueue<String> orders = new SynchronousQueue<>(); // for when it makes no call
    final List<String> form;
    final String sql;
    final Connection connection;

    Calls(String name, String url, String sql) throws SQLException {
        super(name);
        form = Arrays.asList(name.split(" "));
        this.sql = sql;
        connection = DriverManager.getConnection(url);
        setDaemon(true);
    }

    public static void main(String[] args) throws Exception {
        List<Calls> all = new ArrayList<>();
        for (int i = 0; i < args.length; i += 3) {
            if (args[i].equals("h2tcp prepared query"))
                serve(args[i + 1].replaceAll(".*:(\\d+)/.*", "$1"));
            Calls calls = new Calls(args[i], args[i + 1], args[i + 2]);
            calls.call(0);
            if (calls.form.contains("setup"))
                continue; // its connection stays, as does a database in memory
            all.add(calls);
            calls.start();
        }
        System.out.println("ready");
        BufferedReader in = new BufferedReader(new InputStreamReader(System.in));
        for (String line; (line = in.readLine()) != null;) {
            latest = line;
            if (line.equals("hold"))
                gate = new ServerSocket(0, 50, InetAddress.getLoopbackAddress());
            else if (gate != null)
                gate.close();
            for (Calls calls : all)
                calls.orders.put(line);
            System.out.println("done " + line);
        }
        System.exit(0);
    }

    /** H2's server; its class isn't there where this is compiled. */
    static void serve(String port) throws Exception {
        Object options = new String[] {"-tcp", "-tcpPort", port};
        Class.forName("org.h2.tools.Server").getMethod("main", String[].class).invoke(null, options);
    }

    /** Waits while the gate is there. */
    public static int hold(int key) {
        if (key == 0)
            return 0;
        try (Socket socket = new Socket(gate.getInetAddress(), gate.getLocalPort())) {
            return socket.getInputStream().read();
        } catch (IOException e) {
            return 1; // it was closed
        }
    }

    @Override
    public void run() {
        try {
            for (;;) {
                String order = orders.take();
                for (; order == latest && order.equals("warm"); Thread.sleep(50)) // for the compiler
                    call(0);
                if (order.equals("hold"))
                    call(1);
            }
        } catch (SQLException | InterruptedException e) {
            System.out.println("failed: " + getName() + ": " + e);
        }
    }

    void call(int key) throws SQLException {
        connection.setAutoCommit(!form.contains("transaction"));
        callStatement(key);
        if (form.contains("transaction"))
            connection.commit();
    }

    void callStatement(int key) throws SQLException {
        String text = sql.replace("#", "" + key);
        try (Statement s = sql.contains("?") ? prepare(key) : connection.createStatement()) {
            PreparedStatement p = sql.contains("?") ? (PreparedStatement)s : null;
            if (form.contains("batch")) {
                if (p != null)
                    p.addBatch();
                else
                    s.addBatch(text);
                s.executeBatch();
            } else if (form.contains("update")) {
                int rows = p != null ? p.executeUpdate() : s.executeUpdate(text);
            } else if (form.contains("query")) {
                s.setFetchSize(p != null ? s.getFetchSize() : 1);
                drain(p != null ? p.executeQuery() : s.executeQuery(text));
            } else if (p != null ? p.execute() : s.execute(text)) {
                drain(s.getResultSet());
            }
        }
    }

    PreparedStatement prepare(int key) throws SQLException {
        PreparedStatement s =
            form.contains("callable") ? connection.prepareCall(sql) : connection.prepareStatement(sql);
        s.setInt(1, key);
        return s;
    }

    static void drain(ResultSet rows) throws SQLException {
        try (ResultSet r = rows) {
            while (r.next()) {
            }
        }
    }
}
