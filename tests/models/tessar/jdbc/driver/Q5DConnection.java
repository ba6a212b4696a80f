package tessar.jdbc.driver;

import java.io.IOException;
import tessar.net.ns.Communication;

/** A connection that names its user "userName" and knows its statements. */
public class Q5DConnection extends PhysicalConnection {
    String userName;
    TessarStatement statements;

    public Q5DConnection(String url, String user, Communication net) {
        super(url, net);
        userName = user;
    }

    /** Waits for the server. */
    public long commit() throws IOException {
        fetch();
        return answers;
    }
}
