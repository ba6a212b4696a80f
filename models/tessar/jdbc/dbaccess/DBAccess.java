package tessar.jdbc.dbaccess;

import tessar.net.ns.Communication;

/** A connection's way to its server. */
public class DBAccess {
    Communication net;
    long answers;

    public DBAccess(Communication net) { this.net = net; }

    public void fetch() throws java.io.IOException {
        net.receive();
        answers++;
    }

    public Communication net() { return net; }
}
