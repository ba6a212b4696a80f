package tessar.jdbc.zdi8;

import tessar.jdbc.dbaccess.DBAccess;

/** The way through the native driver: it is at work in memory of its own, which begins at c_state. */
public class ZDIDBAccess extends DBAccess {
    long c_state;

    private volatile boolean done;
    private long turns;

    public ZDIDBAccess(long state) {
        super(null);
        c_state = state;
    }

    /** Stands for the native call: runs, with no call of its own, until told to end. */
    @Override
    public void fetch() {
        while (!done)
            turns++;
    }

    public void end() { done = true; }
}
