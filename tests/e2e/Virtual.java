import java.util.concurrent.CountDownLatch;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/** Virtual threads in known places, for JDK 21 and later. Ends with its input. */
final class Virtual {
    static final ReentrantLock LOCK = new ReentrantLock();
    static final Object MONITOR = new Object();
    static final CountDownLatch STARTED = new CountDownLatch(2);
    static volatile long sum;

    static void spin() {
        STARTED.countDown();
        while (true)
            sum++;
    }

    static void own() {
        LOCK.lock();
        while (true)
            LockSupport.park();
    }

    static void rest() {
        while (true)
            LockSupport.park();
    }

    static void hold(CountDownLatch local) {
        synchronized (MONITOR) {
            while (true)
                LockSupport.park();
        }
    }

    static synchronized void want() { hold(STARTED); }

    static void start(Thread.Builder kind, String name, Runnable work, Thread.State state) throws Exception {
        Thread thread = kind.name(name).start(work);
        while (thread.getState() != state)
            Thread.sleep(1);
    }

    /** A virtual thread holds the monitor, another wants it and holds the class, which a third one wants. */
    public static void main(String[] args) throws Exception {
        start(Thread.ofVirtual(), "v-owner", Virtual::own, Thread.State.WAITING);
        start(Thread.ofPlatform(), "p-wants", LOCK::lock, Thread.State.WAITING);
        for (int i = 0; i < 20; i++)
            Thread.startVirtualThread(Virtual::rest);
        Thread.ofVirtual().name("v-spins").start(Virtual::spin);
        Thread.startVirtualThread(Virtual::spin);
        STARTED.await();
        start(Thread.ofVirtual(), "m-holds", () -> hold(STARTED), Thread.State.WAITING);
        start(Thread.ofVirtual(), "m-wants", Virtual::want, Thread.State.BLOCKED);
        start(Thread.ofVirtual(), "m-wants-class", Virtual::want, Thread.State.BLOCKED);
        start(Thread.ofPlatform(), "m-platform", () -> hold(STARTED), Thread.State.BLOCKED);
        System.out.println("monitor " + System.identityHashCode(MONITOR));
        System.out.println("class " + System.identityHashCode(Virtual.class));
        System.out.println("ready");
        System.in.read();
        System.exit(0);
    }
}
