package qoragent.testing;

import java.io.ByteArrayOutputStream;
import java.io.PrintStream;

/** An object to call, for tests of the native JNI calls. */
public final class Fields {
    private static PrintStream err;
    private static ByteArrayOutputStream caught;

    public static Object make() { return new Fields(); }

    public Object fail() { throw new IllegalStateException("as it should"); }

    /** From here on, what goes to System.err is kept. */
    public static synchronized void catchErr() {
        err = System.err;
        caught = new ByteArrayOutputStream();
        System.setErr(new PrintStream(caught, true));
    }

    /** What was kept; System.err is again what it was. */
    public static synchronized String caughtErr() {
        System.setErr(err);
        return caught.toString();
    }
}
