import java.util.concurrent.CountDownLatch;
import java.util.concurrent.locks.LockSupport;
import java.util.concurrent.locks.ReentrantLock;

/** Virtual threads in known places, for JDK 21 and later. Ends with its input. */
final class Virtual {
    static volatile long sum;

    static void spin(CountDownLatch started) {
        started.countDown();
        while (true)
            sum++;
    }

    static final ReentrantLock LOCK = new ReentrantLock();

    static void own(CountDownLatch started) {
        LOCK.lock();
        started.countDown();
        while (true)
            LockSupport.park();
    }

    static void rest() {
        while (true)
            LockSupport.park();
    }

    static final Object MONITOR = new Object();

    static void hold(CountDownLatch held) {
        synchronized (MONITOR) {
            held.countDown();
            while (true)
                LockSupport.park();
        }
    }

    static synchronized void want() { hold(new CountDownLatch(1)); }

    /** A virtual thread holds the monitor, another wants it and holds the class, which a third one wants. */
    static void startWaiters() throws Exception {
        CountDownLatch held = new CountDownLatch(1);
        Thread.ofVirtual().name("m-holds").start(() -> hold(held));
        held.await();
        for (Thread waiter : new Thread[] {Thread.ofVirtual().name("m-wants").unstarted(Virtual::want),
                                           Thread.ofVirtual().name("m-wants-class").unstarted(Virtual::want),
                                           new Thread(() -> hold(held), "m-platform")}) {
            waiter.start();
            while (waiter.getState() != Thread.State.BLOCKED)
                Thread.sleep(1);
        }
    }

    public static void main(String[] args) throws Exception {
        CountDownLatch owned = new CountDownLatch(1), started = new CountDownLatch(2);
        Thread.ofVirtual().name("v-owner").start(() -> own(owned));
        owned.await();
        new Thread(LOCK::lock, "p-wants").start();
        for (int i = 0; i < 20; i++)
            Thread.ofVirtual().start(Virtual::rest);
        Thread.ofVirtual().name("v-spins").start(() -> spin(started));
        Thread.ofVirtual().start(() -> spin(started));
        started.await();
        startWaiters();
        System.out.println("monitor " + System.identityHashCode(MONITOR));
        System.out.println("class " + System.identityHashCode(Virtual.class));
        System.out.println("ready");
        while (System.in.read() >= 0)
            continue;
        System.exit(0);
    }
}
