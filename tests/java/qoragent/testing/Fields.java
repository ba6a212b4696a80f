package qoragent.testing;

/** An object to call, for tests of the native JNI calls. */
public final class Fields {
    public static Object make() { return new Fields(); }

    public Object fail() { throw new IllegalStateException("as it should"); }
}
