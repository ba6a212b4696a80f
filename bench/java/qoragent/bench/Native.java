package qoragent.bench;

/** The measurements' native part, build/bench/libbench.so. */
final class Native {
    static { System.load(System.getProperty("bench.library")); }

    private Native() {}

    /** Nanoseconds that one bare GetAllStackTraces call takes. */
    static native long getAllStackTraces(int maxFrames);

    /** Bytes of the thread print that comes from the attach socket at `path`. */
    static native long threadPrint(String path);

    static native void signalAttach();

    /** What this JVM's tools get of the processor clocks of threads: 0 all, 1 steps of 10 ms, 2 an error. */
    static native void setClock(int kind);
}
