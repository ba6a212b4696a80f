package qoragent.testing;

import java.io.IOException;
import java.net.InetSocketAddress;
import java.net.Socket;
import java.nio.channels.ServerSocketChannel;
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
    ServerSocketChannel server;
    Socket channel;

    public static Object open() throws IOException {
        Driver driver = new Driver();
        driver.server = ServerSocketChannel.open().bind(new InetSocketAddress("127.0.0.1", 0));
        driver.channel = SocketChannel.open(driver.server.getLocalAddress()).socket();
        return driver;
    }

    public static long localPort(Object driver) { return ((Driver)driver).channel.getLocalPort(); }
}
