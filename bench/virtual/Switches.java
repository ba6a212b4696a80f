import java.lang.management.ManagementFactory;
import java.util.concurrent.atomic.LongAdder;

/** Virtual threads on one carrier that do nothing but switch, or a little work between two switches. Prints a line for each round or
 *  second. Arguments: `cost ROUNDS SWITCHES ADDITIONS`, processor time of the process a switch, in nanoseconds; or `rate THREADS`, switches a
 *  second, until it is killed. */
public final class Switches {
    private static final LongAdder DONE = new LongAdder();
    private static volatile long sink;

    private static void switchAndWork(int switches, int additions) {
        for (int i = 0; i < switches; i++) {
            for (int j = 0; j < additions; j++)
                sink++;
            Thread.yield();
        }
    }

    private static double round(int switches, int additions) throws InterruptedException {
        var system = (com.sun.management.OperatingSystemMXBean)ManagementFactory.getOperatingSystemMXBean();
        long start = system.getProcessCpuTime();
        Thread[] threads = new Thread[2];
        for (int i = 0; i < threads.length; i++)
            threads[i] = Thread.ofVirtual().start(() -> switchAndWork(switches / 2, additions));
        for (Thread thread : threads)
            thread.join();
        return (system.getProcessCpuTime() - start) / (double)switches;
    }

    public static void main(String[] arguments) throws InterruptedException {
        if (arguments[0].equals("cost"))
            for (int i = 0; i < Integer.parseInt(arguments[1]); i++)
                System.out.println(
                    Math.round(round(Integer.parseInt(arguments[2]), Integer.parseInt(arguments[3]))));
        for (int i = 0; arguments[0].equals("rate") && i < Integer.parseInt(arguments[1]); i++)
            Thread.ofVirtual().start(() -> {
                for (;;) {
                    Thread.yield();
                    DONE.increment();
                }
            });
        while (arguments[0].equals("rate")) {
            Thread.sleep(1000);
            System.out.println(DONE.sumThenReset());
        }
    }
}
