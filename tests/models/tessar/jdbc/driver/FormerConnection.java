package tessar.jdbc.driver;

import tessar.net.ns.Communication;

/** A connection that names its user "user" and doesn't know its statements. */
public class FormerConnection extends PhysicalConnection {
    String user;

    public FormerConnection(String url, String user, Communication net) {
        super(url, net);
        this.user = user;
    }
}
