package tessar.net.ns;

import java.io.InputStream;

/** What a network session is made of. */
public class SessionAtts {
    InputStream ntInputStream;

    public SessionAtts(InputStream ntInputStream) { this.ntInputStream = ntInputStream; }
}
