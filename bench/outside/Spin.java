import java.util.concurrent.atomic.LongAdder;
import java.util.concurrent.locks.LockSupport;

/** Two threads that call and allocate, others that rest at a depth, and a line each second with how often the two did.
 *  Arguments: how many others (0), and their frames. */
public final class Spin {
    private static final LongAdder DONE = new LongAdder();
    private static volatile Object kept;

    private static int fibonacci(int n) { return n < 2 ? n : fibonacci(n - 1) + fibonacci(n - 2); }

    private static void rest(int frames) {
        if (frames > 1)
            rest(frames - 1);
        else
            for (;;)
                LockSupport.park();
    }

    private static void start(Runnable work) {
        Thread thread = new Thread(work);
        thread.setDaemon(true);
        thread.start();
    }

    public static void main(String[] arguments) throws InterruptedException {
        for (int i = 0; i < (arguments.length > 0 ? Integer.parseInt(arguments[0]) : 0); i++)
            start(() -> rest(Integer.parseInt(arguments[1])));
        for (int i = 0; i < 2; i++)
            start(() -> {
                for (;;) {
                    kept = new int[fibonacci(12) + 8];
                    DONE.increment();
                }
            });
        for (;;) {
            Thread.sleep(1000);
            System.out.println(DONE.sumThenReset());
        }
    }
}
