package qoragent.testing;

import java.io.BufferedReader;
import java.io.IOException;
import java.io.InputStreamReader;
import java.util.concurrent.locks.LockSupport;

/**
 * A JVM that stops answering on request: "hang" on its standard input starts a counted loop without a safepoint
 * poll, once the server compiler has compiled it under a collector that needs none, "gc" asks for a collection
 * in a thread "gc-asker", "collect" does so all the time, and "fill" makes each one long; "virtual" leaves a
 * virtual thread on its carrier, deep in calls that began before it was last put there. Before it has threads in
 * known places, interpreted and compiled, and with argument "busy" some that run all the time and come and go.
 */
public final class Hang {
    private static volatile int result;
    private static Object[] filled;
    private static final Object LOCK = new Object();

    private Hang() {}

    public static void main(String[] arguments) throws IOException {
        start("sleeper-\u00e4\u4e2d", () -> deep(20, Hang::sleep));
        start("parker", () -> deep(200, Hang::park));
        start("holder", Hang::holdLock);
        for (int i = 0; i < 3; i++) {
            start("compiled-" + i, () -> {
                for (int k = 0; k < 30000; k++) {
                    first(k, false);
                }
                first(20, true);
            });
        }
        if (arguments.length > 0) {
            start("busy", () -> {
                for (;;) {
                    result += fibonacci(20);
                }
            });
            start("churn", Hang::churn);
        }
        for (int i = 0; i < 20000; i++) {
            spin(i, 5, 50);
        }
        System.out.println("ready");
        BufferedReader words = new BufferedReader(new InputStreamReader(System.in));
        for (String word; (word = words.readLine()) != null;) {
            obey(word);
        }
    }

    private static void holdLock() {
        synchronized (LOCK) {
            start("blocked-by-lock", Hang::wantLock);
            sleep();
        }
    }

    private static void wantLock() {
        synchronized (LOCK) {
            result++;
        }
    }

    private static void obey(String word) {
        if (word.equals("hang")) {
            start("runaway", () -> {
                System.out.println("hangs"); // from here, as all others may be held up at once
                result = spin(3, 2000000, 2147483646);
            });
        } else if (word.equals("gc")) {
            start("gc-asker", System::gc);
        } else if (word.equals("fill")) {
            for (int i = 0; i < 2000000; i++) {
                filled = new Object[] {filled};
            }
        } else if (word.equals("virtual")) {
            startVirtual(() -> deep(100, () -> {
                             LockSupport.parkNanos(1);
                             Pinned.stay();
                         }));
        } else if (word.equals("collect")) {
            start("gc-asker", () -> {
                for (;;) {
                    System.gc();
                }
            });
        }
    }

    /** Its initializer waits, which keeps a virtual thread on its carrier. */
    private static final class Pinned {
        static { park(); }

        static void stay() {}
    }

    /** A virtual thread; null before JDK 21. */
    static Thread startVirtual(Runnable body) {
        try {
            return (Thread)Thread.class.getMethod("startVirtualThread", Runnable.class).invoke(null, body);
        } catch (ReflectiveOperationException e) {
            return null;
        }
    }

    private static int spin(int seed, int rounds, int length) {
        int sum = seed;
        for (int j = 0; j < rounds; j++) {
            for (int i = 0; i < length; i++) {
                sum = sum * 31 + (i ^ sum);
            }
            sum ^= j;
        }
        return sum;
    }

    private static int first(int k, boolean stay) { return second(k + 1, stay) + 1; }

    private static int second(int k, boolean stay) {
        int deeper = third(k, stay, k & 15);
        return deeper + k;
    }

    private static int third(int k, boolean stay, int depth) {
        if (depth > 0) {
            return third(k ^ depth, stay, depth - 1) + 1;
        }
        if (stay) {
            park();
        }
        return k * 31;
    }

    private static int fibonacci(int n) { return n < 2 ? n : fibonacci(n - 1) + fibonacci(n - 2); }

    private static void churn() {
        for (;;) {
            Thread one = start("short-lived", () -> result += fibonacci(5));
            try {
                one.join();
            } catch (InterruptedException e) {
                return;
            }
        }
    }

    private static int deep(int depth, Runnable then) {
        if (depth == 0) {
            then.run();
            return 0;
        }
        return deep(depth - 1, then) + 1;
    }

    private static void sleep() {
        try {
            Thread.sleep(Long.MAX_VALUE);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        }
    }

    private static void park() {
        for (;;) {
            LockSupport.park();
        }
    }

    private static Thread start(String name, Runnable body) {
        Thread thread = new Thread(body, name);
        thread.setDaemon(true);
        thread.start();
        return thread;
    }
}
