package qoragent.testing;

import java.io.IOException;
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
    Socket channel;

    public static Object open() throws IOException {
        Driver driver = new Driver();
        ServerSocketChannel server = ServerSocketChannel.open().bind(null);
        driver.channel = SocketChannel.open(server.getLocalAddress()).socket();
        return driver;
    }

    public static long localPort(Object driver) { return ((Driver)driver).channel.getLocalPort(); }
}
