package qoragent.bench;

import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.util.LinkedHashMap;
import java.util.Locale;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import qoragent.Agent;

/**
 * Measures the sample as the product makes it by default (locks on, frames of other tiers present) beside the
 * JVM's own ways to the same facts, in one process and in turns, and prints medians and their ratios as
 * Markdown. Arguments: turns (200), seconds of a throughput window (5).
 */
final class LockBench {
    /** Enabled options only say that there is no relay: the rest is the default. */
    private static final String OPTIONS = "relay=off";
    /** A poll of all threads with details, and the same by hand. */
    private static final String POLL = "276|showstack|32768";
    private static final String BY_HAND = "788|showstack|32768";
    private static final Pattern TIMING =
        Pattern.compile("Time spent in JVM for processing request.(\\d+) usec");
    private static final int[][] CROWDS = {{50, 20}, {50, 100}, {500, 20}};
    private static final int TIER_THREADS = 5;
    private static final int TIER_DEPTH = 20;
    private static final int FIRST_SAMPLES = 5;
    private static final int WARM_UP_CALLS = 20;
    private static final int MAX_FRAMES = 1000;

    private static final String SAMPLE = "sample";
    private static final String WORKER = "worker";
    private static final String FIRST = "first";
    private static final String PRINT = "thread print";
    private static final String DUMP = "dumpAllThreads(true, false)";
    private static final String WALK = "GetAllStackTraces";

    private static final ThreadMXBean BEAN = ManagementFactory.getThreadMXBean();

    private final int turns;
    private final int windowSeconds;
    private final String attachSocket;
    private double workerMillis;
    private double walkMillis;

    private LockBench(int turns, int windowSeconds) throws Exception {
        this.turns = turns;
        this.windowSeconds = windowSeconds;
        attachSocket = Bench.openAttachSocket();
    }

    public static void main(String[] args) throws Exception {
        Locale.setDefault(Locale.ROOT);
        LockBench bench = new LockBench(args.length > 0 ? Integer.parseInt(args[0]) : 200,
                                        args.length > 1 ? Integer.parseInt(args[1]) : 5);
        System.out.printf("JDK %s, %d processors, load %.2f, medians of %d turns, times in ms%n",
                          System.getProperty("java.version"), Runtime.getRuntime().availableProcessors(),
                          load(), bench.turns);
        bench.crowds();
        bench.clocks();
        bench.stops();
        bench.throughput();
        System.out.printf("%nload at the end %.2f%n", load());
    }

    private static double load() {
        return ManagementFactory.getOperatingSystemMXBean().getSystemLoadAverage();
    }

    private void crowds() throws Exception {
        System.out.printf(
            "%n## With lock data%n%n| crowd | first | repeated: worker | repeated: whole call | %s | %s | %s"
                + " | call/print | call/dump |%n|---|---|---|---|---|---|---|---|---|%n",
            PRINT, DUMP, WALK);
        for (int[] size : CROWDS)
            try (Crowd crowd = new Crowd(size[0], size[1])) {
                row(size[0] + " x " + size[1], OPTIONS);
            }
        try (Pool pool = new Pool()) {
            row("200 parked, 20 at work", OPTIONS);
        }
        System.out.printf(
            "%n## Without lock data%n%n| crowd | first | repeated: worker | repeated: whole call"
                + " | %s | %s | %s | call/print | call/dump | worker/walk |%n"
                + "|---|---|---|---|---|---|---|---|---|---|%n",
            PRINT, DUMP, WALK);
        for (int[] size : CROWDS)
            try (Crowd crowd = new Crowd(size[0], size[1])) {
                Figures f = row(size[0] + " x " + size[1], OPTIONS + ",lockinfo=3", false);
                System.out.printf(" %.2f |%n", f.ratio(WORKER, WALK));
            }
    }

    private void row(String name, String options) throws Exception {
        row(name, options, true);
        System.out.println();
    }

    private Figures row(String name, String options, boolean tiers) throws Exception {
        Figures f = new Figures();
        try (TierCrowd known = tiers ? new TierCrowd(TIER_THREADS, TIER_DEPTH, true) : null) {
            for (int i = 0; i < FIRST_SAMPLES; i++) {
                Agent.start(options);
                f.add(FIRST, millis(this::sample));
                Agent.request("SHUTDOWN");
            }
            Agent.start(options);
            Map<String, Runnable> tasks = new LinkedHashMap<>();
            tasks.put(SAMPLE, this::sample);
            tasks.put(PRINT, () -> Native.threadPrint(attachSocket));
            tasks.put(DUMP, () -> BEAN.dumpAllThreads(true, false));
            tasks.put(WALK, this::walk);
            for (Runnable task : tasks.values())
                for (int i = 0; i < WARM_UP_CALLS; i++)
                    task.run();
            for (int turn = 0; turn < turns; turn++)
                for (Map.Entry<String, Runnable> task : tasks.entrySet()) {
                    double taken = millis(task.getValue());
                    f.add(task.getKey(), task.getKey().equals(WALK) ? walkMillis : taken);
                    if (task.getKey().equals(SAMPLE))
                        f.add(WORKER, workerMillis);
                }
            Agent.request("SHUTDOWN");
        }
        System.out.printf("| %s | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f | %.2f |", name,
                          f.median(FIRST), f.median(WORKER), f.median(SAMPLE), f.median(PRINT),
                          f.median(DUMP), f.median(WALK), f.ratio(SAMPLE, PRINT), f.ratio(SAMPLE, DUMP));
        return f;
    }

    /** The same where the processor clocks of threads are of no use. */
    private void clocks() throws Exception {
        System.out.printf(
            "%n## With lock data, 500 x 20, clocks that can't be relied on%n%n| clock | sample: worker"
            + " | sample: whole call |%n|---|---|---|%n");
        String[] names = {"as it is", "coarse, 10 ms", "can't be read"};
        try (Crowd crowd = new Crowd(500, 20)) {
            for (int kind = 0; kind < names.length; kind++) {
                Native.setClock(kind);
                Agent.start(OPTIONS);
                Figures f = new Figures();
                for (int i = 0; i < WARM_UP_CALLS + turns / 4; i++) {
                    double taken = millis(this::sample);
                    if (i < WARM_UP_CALLS)
                        continue;
                    f.add(SAMPLE, taken);
                    f.add(WORKER, workerMillis);
                }
                Agent.request("SHUTDOWN");
                System.out.printf("| %s | %.2f | %.2f |%n", names[kind], f.median(WORKER), f.median(SAMPLE));
            }
        } finally {
            Native.setClock(0);
        }
    }

    /** The longest gap that a thread reading the clock sees in a call. */
    private void stops() throws Exception {
        System.out.printf("%n## Longest stop, 500 x 20, ms%n%n| what runs | stop |%n|---|---|%n");
        Figures f = new Figures();
        try (Crowd crowd = new Crowd(500, 20); Jitter jitter = new Jitter()) {
            Agent.start(OPTIONS);
            for (int turn = 0; turn < turns / 4; turn++) {
                f.add("nothing", jitter.during(() -> Bench.sleep(5)));
                f.add(WALK, jitter.during(this::walk));
                f.add("repeated sample", jitter.during(this::sample));
                f.add(PRINT, jitter.during(() -> Native.threadPrint(attachSocket)));
            }
            Agent.request("SHUTDOWN");
            for (int i = 0; i < FIRST_SAMPLES; i++) {
                Agent.start(OPTIONS);
                f.add("first sample", jitter.during(this::sample));
                Agent.request("SHUTDOWN");
            }
        }
        for (String name : new String[] {"nothing", WALK, "first sample", "repeated sample", PRINT})
            System.out.printf("| %s | %.2f |%n", name, f.median(name));
    }

    /** Work done with one request a second against work done without, in windows that take turns. */
    private void throughput() throws Exception {
        System.out.printf(
            "%n## Throughput with one request a second, 500 x 100%n%n| request | work with / without |%n"
            + "|---|---|%n");
        Map<String, Runnable> tasks = new LinkedHashMap<>();
        tasks.put("poll with locks", this::sample);
        tasks.put("by hand with locks", () -> Agent.request(BY_HAND));
        tasks.put(PRINT, () -> Native.threadPrint(attachSocket));
        Figures f = new Figures();
        try (Crowd crowd = new Crowd(500, 100);
             TierCrowd known = new TierCrowd(TIER_THREADS, TIER_DEPTH, true);
             Load load = new Load(Runtime.getRuntime().availableProcessors())) {
            Agent.start(OPTIONS);
            for (int i = 0; i < WARM_UP_CALLS; i++)
                tasks.values().forEach(Runnable::run);
            for (int turn = 0; turn < 2; turn++) {
                f.add("without", load.during(() -> Bench.sleep(windowSeconds * 1000L)));
                for (Map.Entry<String, Runnable> task : tasks.entrySet())
                    f.add(task.getKey(), load.during(() -> eachSecond(task.getValue())));
            }
            Agent.request("SHUTDOWN");
        }
        for (String name : tasks.keySet())
            System.out.printf("| %s | %.4f |%n", name, f.ratio(name, "without"));
    }

    private void eachSecond(Runnable task) {
        long start = System.nanoTime();
        for (int i = 1; i <= windowSeconds; i++) {
            task.run();
            Bench.sleep(Math.max(0, i * 1000L - (System.nanoTime() - start) / 1_000_000));
        }
    }

    private static double millis(Runnable task) {
        long start = System.nanoTime();
        task.run();
        return (System.nanoTime() - start) / 1e6;
    }

    private void sample() {
        String reply = Agent.request(POLL);
        Matcher timing = TIMING.matcher(reply.substring(Math.max(0, reply.length() - 100)));
        workerMillis = timing.find() ? Long.parseLong(timing.group(1)) / 1e3 : -1;
        if (!reply.contains("bench-1"))
            throw new IllegalStateException("the sample lacks the crowd");
    }

    private void walk() { walkMillis = Native.getAllStackTraces(MAX_FRAMES) / 1e6; }
}
