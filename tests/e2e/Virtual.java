import java.util.concurrent.CountDownLatch;

/** Virtual threads in known places, for JDK 21 and later. Ends with its input. */
final class Virtual {
    static volatile long sum;

    static void spin(CountDownLatch started) {
        started.countDown();
        while (true)
            sum++;
    }

    public static void main(String[] args) throws Exception {
        CountDownLatch started = new CountDownLatch(2);
        Thread.ofVirtual().name("v-spins").start(() -> spin(started));
        Thread.ofVirtual().start(() -> spin(started));
        started.await();
        System.out.println("ready");
        while (System.in.read() >= 0)
            continue;
        System.exit(0);
    }
}
