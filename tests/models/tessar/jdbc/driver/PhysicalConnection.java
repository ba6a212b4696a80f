package tessar.jdbc.driver;

import java.io.IOException;
import tessar.net.ns.Communication;

/** A connection of the driver's second generation, whose versions differ in what they add. */
public class PhysicalConnection {
    String url;
    Communication net;
    long answers;

    public PhysicalConnection(String url, Communication net) {
        this.url = url;
        this.net = net;
    }

    final void fetch() throws IOException {
        net.receive();
        answers++;
    }
}
