package qoragent.testing;

import java.io.ByteArrayOutputStream;
import java.io.PrintStream;
import java.util.Hashtable;

/** An object to read fields of, and to call, for tests of the native JNI calls. */
public final class Fields {
    public static Object staticObject = "static";

    public boolean aBoolean = true;
    public int anInt = -310000;
    public long aLong = 63000000000L;
    public Object anObject = "instance";
    public Object nothing;

    public boolean[] booleans = {true, false};
    public byte[] bytes = {1, -2};
    public char[] chars = {'a', '\u00e9'};
    public short[] shorts = {3, -4};
    public int[] ints = {5, -6};
    public long[] longs = {7, -8};
    public float[] floats = {0.5f, -0.5f};
    public double[] doubles = {9.5, -9.5};

    private static PrintStream err;
    private static ByteArrayOutputStream caught;

    private Object told;

    public static Fields make() { return new Fields(); }

    public static Hashtable<String, String> table(int size) {
        Hashtable<String, String> table = new Hashtable<>();
        for (int i = 0; i < size; i++)
            table.put("key" + i, "value" + i);
        return table;
    }

    public int intOf() { return anInt; }

    public boolean booleanOf() { return aBoolean; }

    public long longOf() { return aLong; }

    public void tell(Object what) { told = what; }

    public Object told() { return told; }

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
