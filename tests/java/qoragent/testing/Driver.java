package qoragent.testing;

import java.io.IOException;
import java.net.InetAddress;
import java.net.ServerSocket;
import java.net.Socket;
import java.nio.channels.SocketChannel;

/** An object as a driver has it, for rules: with texts, an array and its index, bytes and their range, sockets. */
public final class Driver {
    Driver self = this;
    Object any = "text of any";
    String text = "text";
    String none;
    Object[] queue = {this, "first", null};
    int[][] numbers = {{1}};
    int head;
    byte[] bytes = "GET /shop/orders HTTP".getBytes(java.nio.charset.StandardCharsets.US_ASCII);
    int from = 4;
    int to = 16;
    ServerSocket server;
    Socket socket;
    Socket channel;

    /** A name of an SQL statement, and a bad one: too long, none, or it throws. */
    public static String sqlText2sqlId(String sql) {
        if (sql.startsWith("t"))
            throw new IllegalArgumentException(sql);
        return sql.startsWith("n") ? null : sql.substring(0, 14);
    }

    public static Object open() throws IOException {
        Driver driver = new Driver();
        driver.server = new ServerSocket(0, 2, InetAddress.getLoopbackAddress());
        driver.socket = new Socket(driver.server.getInetAddress(), driver.server.getLocalPort());
        driver.channel = SocketChannel.open(driver.server.getLocalSocketAddress()).socket();
        return driver;
    }

    public static long serverPort(Object driver) { return ((Driver)driver).server.getLocalPort(); }

    public static long localPort(Object driver, boolean ofChannel) {
        return (ofChannel ? ((Driver)driver).channel : ((Driver)driver).socket).getLocalPort();
    }
}
