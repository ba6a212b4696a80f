package qoragent.models;

/** Uses objects after a call, so that the locals which hold them stay live during it. */
public final class Keep {
    private static volatile int sink;

    private Keep() {}

    public static void alive(Object... objects) {
        for (Object object : objects)
            sink += System.identityHashCode(object);
    }
}
