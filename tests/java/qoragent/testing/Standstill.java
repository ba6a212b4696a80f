package qoragent.testing;

/**
 * An application in which nothing moves: the zoo, calls of all tiers, objects to look into, a known heap.
 *
 * It prints the client port of a database call and "ready", and ends when its input does.
 */
public final class Standstill {
    private Standstill() {}

    public static void main(String[] args) throws Exception {
        HeapShop.fill();
        Zoo.start(""); // one of which keeps the JDK's reaper of children
        Zoo.startDeep(400);
        Zoo.startDeep(990);
        Tiers.start();
        Specimens.startHolder();
        Zoo.rename("specimen", "specimen-hold");
        Obstacles.inInitializer();
        Customers.start(3, 6000);
        System.out.println("port=" + Customers.localPort(1));
        while (reapers() > 1)
            Thread.sleep(10);
        System.out.println("ready");
        while (System.in.read() >= 0)
            continue;
        System.exit(0);
    }

    /** Threads of the JDK's that wait for children; those of children that have ended end a minute later. */
    private static long reapers() {
        return Thread.getAllStackTraces()
            .keySet()
            .stream()
            .filter(thread -> thread.getName().startsWith("process reaper"))
            .count();
    }
}
