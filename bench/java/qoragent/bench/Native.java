package qoragent.bench;

/** The measurements' native part, build/bench/libbench.so. */
final class Native {
    static {
        System.load(System.getProperty("bench.library"));
    }

    private Native() {
    }

    /** Nanoseconds that one bare GetAllStackTraces call takes. */
    static native long getAllStackTraces(int maxFrames);

    /** Bytes of the thread print that comes from the attach socket at `path`. */
    static native long threadPrint(String path);

    static native void signalAttach();
}
