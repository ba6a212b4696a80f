package ferrule.rmi.spi;

import java.net.InetSocketAddress;

public class Channel {
    protected int port;
    protected InetSocketAddress address;

    public Channel(InetSocketAddress address) {
        this.address = address;
        port = address.getPort();
    }
}
