package ferrule.rjvm;

import qoragent.models.Keep;

/** The answer of a remote call; waitForData() waits for arrive(). */
public class ResponseImpl {
    protected int id;
    protected RJVM rjvm;
    private boolean arrived;

    public ResponseImpl(int id, RJVM rjvm) {
        this.id = id;
        this.rjvm = rjvm;
    }

    public synchronized void waitForData() throws InterruptedException {
        while (!arrived)
            wait();
        Keep.alive(this);
    }

    public synchronized void arrive() {
        arrived = true;
        notifyAll();
    }
}
