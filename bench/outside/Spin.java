import java.util.concurrent.atomic.LongAdder;

/** Two threads that call and allocate, and a line each second with how often they did. */
public final class Spin {
    private static final LongAdder DONE = new LongAdder();
    private static volatile Object kept;

    private static int fibonacci(int n) { return n < 2 ? n : fibonacci(n - 1) + fibonacci(n - 2); }

    public static void main(String[] arguments) throws InterruptedException {
        for (int i = 0; i < 2; i++) {
            Thread thread = new Thread(() -> {
                for (;;) {
                    kept = new int[fibonacci(12) + 8];
                    DONE.increment();
                }
            });
            thread.setDaemon(true);
            thread.start();
        }
        for (;;) {
            Thread.sleep(1000);
            System.out.println(DONE.sumThenReset());
        }
    }
}
