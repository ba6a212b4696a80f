package qoragent.bench;

import java.io.File;
import java.lang.management.ManagementFactory;
import java.lang.management.ThreadMXBean;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.LinkedHashMap;
import java.util.Map;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import qoragent.Agent;

/**
 * Measures the agent's sample side by side with what the JVM offers itself, in one process and in turns, and
 * prints the medians and their ratios as Markdown. Arguments: turns (7), seconds of a throughput window (10).
 */
public final class Bench {
    private static final int[][] CROWDS = {{50, 100}, {50, 300}, {500, 20}, {500, 100}};
    private static final int CALLS_A_TURN = 5;
    private static final int WARM_UP_CALLS = 20;
    private static final int MAX_FRAMES = 1000;

    /** All threads with details, as a console polls: no GC lock 4, details 16, all threads 256. */
    private static final String REQUEST = "276|showstack|32768";
    private static final Pattern TIMING =
        Pattern.compile("Time spent in JVM for processing request.(\\d+) usec");

    private static final String WORKER = "worker";
    private static final String SAMPLE = "sample";
    private static final String WALK = "GetAllStackTraces";
    private static final String DUMP = "dumpAllThreads";
    private static final String PRINT = "thread print";

    private static final ThreadMXBean BEAN = ManagementFactory.getThreadMXBean();

    private final int turns;
    private final int windowSeconds;
    private String attachSocket;
    /** The worker's own time in the last sample, microseconds. */
    private long workerMicros;
    private int replyLength;
    private long lastWalkNanos;

    private Bench(int turns, int windowSeconds) {
        this.turns = turns;
        this.windowSeconds = windowSeconds;
    }

    public static void main(String[] args) throws Exception {
        Bench bench = new Bench(args.length > 0 ? Integer.parseInt(args[0]) : 7,
                                args.length > 1 ? Integer.parseInt(args[1]) : 10);
        System.out.printf("JDK %s, %d processors, medians of %d turns of %d calls, times in ms%n",
                          System.getProperty("java.version"), Runtime.getRuntime().availableProcessors(),
                          bench.turns, CALLS_A_TURN);
        bench.attachSocket = openAttachSocket();
        bench.sampleAlone();
        bench.sampleWithLocks();
        bench.pauses();
        bench.throughput();
    }

    private static void startAgent(int lockInfo) { Agent.start("relay=off,lockinfo=" + lockInfo); }

    private static void stopAgent() { Agent.request("SHUTDOWN"); }

    private void sampleAlone() throws Exception {
        startAgent(3);
        System.out.printf(
            "%n## Without lock data%n%n| threads x frames | reply, KiB | sample: worker | sample: whole call"
            + " | GetAllStackTraces | dumpAllThreads(false, false) | thread print"
            + " | worker/GetAllStackTraces | call/GetAllStackTraces | call/print | call/dump |%n"
            + "|---|---|---|---|---|---|---|---|---|---|---|%n");
        Map<String, Runnable> tasks = new LinkedHashMap<>();
        tasks.put(SAMPLE, this::sample);
        tasks.put(WALK, this::walk);
        tasks.put(DUMP, () -> BEAN.dumpAllThreads(false, false));
        tasks.put(PRINT, () -> Native.threadPrint(attachSocket));
        for (int[] size : CROWDS) {
            try (Crowd crowd = new Crowd(size[0], size[1])) {
                Figures f = measure(tasks);
                System.out.printf(
                    "| %d x %d | %d | %s | %.2f | %.2f | %.2f | %.2f | %s | %.2f | %.2f | %.2f |%n", size[0],
                    size[1], replyLength / 1024, workerTime(f), f.median(SAMPLE), f.median(WALK),
                    f.median(DUMP), f.median(PRINT), workerRatio(f), f.ratio(SAMPLE, WALK),
                    f.ratio(SAMPLE, PRINT), f.ratio(SAMPLE, DUMP));
            }
        }
        stopAgent();
    }

    private void sampleWithLocks() throws Exception {
        startAgent(2);
        System.out.printf(
            "%n## With lock data%n%n| threads x frames | reply, KiB | sample: worker | sample: whole call"
            + " | dumpAllThreads(true, true) | call/dump |%n|---|---|---|---|---|---|%n");
        Map<String, Runnable> tasks = new LinkedHashMap<>();
        tasks.put(SAMPLE, this::sample);
        tasks.put(DUMP, () -> BEAN.dumpAllThreads(true, true));
        for (int[] size : CROWDS) {
            try (Crowd crowd = new Crowd(size[0], size[1])) {
                Figures f = measure(tasks);
                System.out.printf("| %d x %d | %d | %s | %.2f | %.2f | %.2f |%n", size[0], size[1],
                                  replyLength / 1024, workerTime(f), f.median(SAMPLE), f.median(DUMP),
                                  f.ratio(SAMPLE, DUMP));
            }
        }
        stopAgent();
    }

    /** The tasks in turns; each turn's figure is the median of its calls. */
    private Figures measure(Map<String, Runnable> tasks) {
        for (Runnable task : tasks.values())
            for (int i = 0; i < WARM_UP_CALLS; i++)
                task.run();
        Figures figures = new Figures();
        for (int turn = 0; turn < turns; turn++)
            for (Map.Entry<String, Runnable> task : tasks.entrySet())
                timeCalls(figures, task.getKey(), task.getValue());
        return figures;
    }

    private void timeCalls(Figures figures, String name, Runnable task) {
        double[] millis = new double[CALLS_A_TURN];
        double[] worker = new double[CALLS_A_TURN];
        for (int i = 0; i < CALLS_A_TURN; i++) {
            long start = System.nanoTime();
            task.run();
            millis[i] = (name.equals(WALK) ? lastWalkNanos : System.nanoTime() - start) / 1e6;
            worker[i] = workerMicros / 1e3;
        }
        figures.add(name, Figures.median(millis));
        if (name.equals(SAMPLE))
            figures.add(WORKER, Figures.median(worker));
    }

    private static String workerTime(Figures figures) {
        double millis = figures.median(WORKER);
        return millis < 0 ? "(full)" : String.format("%.2f", millis);
    }

    private static String workerRatio(Figures figures) {
        return figures.median(WORKER) < 0 ? "(full)" : String.format("%.2f", figures.ratio(WORKER, WALK));
    }

    private void walk() { lastWalkNanos = Native.getAllStackTraces(MAX_FRAMES); }

    private void sample() {
        String reply = Agent.request(REQUEST);
        Matcher timing = TIMING.matcher(reply.substring(Math.max(0, reply.length() - 100)));
        workerMicros =
            timing.find() ? Long.parseLong(timing.group(1)) : -1; // a full reply has no room for it
        replyLength = reply.length();
        if (!reply.contains("bench-1"))
            throw new IllegalStateException("the sample lacks the crowd: " +
                                            reply.substring(0, Math.min(200, reply.length())));
    }

    /** How long the application is paused: the longest gap that a thread reading the clock sees. */
    private void pauses() throws Exception {
        System.out.printf(
            "%n## Longest pause of the application, 500 x 100%n%n| what runs | pause |%n|---|---|%n");
        Figures figures = new Figures();
        try (Crowd crowd = new Crowd(500, 100); Jitter jitter = new Jitter()) {
            for (int lockInfo : new int[] {3, 2}) {
                startAgent(lockInfo);
                String name = lockInfo == 3 ? "sample" : "sample with locks";
                for (int i = 0; i < WARM_UP_CALLS; i++)
                    sample();
                for (int turn = 0; turn < turns * CALLS_A_TURN; turn++) {
                    figures.add("nothing", jitter.during(Bench::restABit));
                    figures.add(WALK, jitter.during(this::walk));
                    figures.add(name, jitter.during(this::sample));
                    figures.add("dumpAllThreads(" + (lockInfo == 3 ? "false, false)" : "true, true)"),
                                jitter.during(() -> BEAN.dumpAllThreads(lockInfo == 2, lockInfo == 2)));
                }
                stopAgent();
            }
        }
        for (String name : new String[] {"nothing", WALK, "sample", "dumpAllThreads(false, false)",
                                         "sample with locks", "dumpAllThreads(true, true)"})
            System.out.printf("| %s | %.2f |%n", name, figures.median(name));
    }

    private static void restABit() { sleep(10); }

    static void sleep(long millis) {
        try {
            Thread.sleep(millis);
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    /** Work done with one sample a second against work done without, in windows that take turns. */
    private void throughput() throws Exception {
        int workers = Runtime.getRuntime().availableProcessors();
        System.out.printf(
            "%n## Throughput with one sample a second, 500 x 100%n%n| sample | work with / without |%n"
            + "|---|---|%n");
        try (Crowd crowd = new Crowd(500, 100); Load load = new Load(workers)) {
            for (int lockInfo : new int[] {3, 2}) {
                startAgent(lockInfo);
                for (int i = 0; i < WARM_UP_CALLS; i++)
                    sample();
                Figures figures = new Figures();
                for (int turn = 0; turn < turns; turn++) {
                    figures.add("without", load.during(() -> sleep(windowSeconds * 1000L)));
                    figures.add("with", load.during(this::sampleEachSecond));
                }
                System.out.printf("| %s | %.4f |%n", lockInfo == 3 ? "without lock data" : "with lock data",
                                  figures.ratio("with", "without"));
                stopAgent();
            }
        }
    }

    private void sampleEachSecond() {
        long start = System.nanoTime();
        for (int i = 1; i <= windowSeconds; i++) {
            sample();
            long left = i * 1_000_000_000L - (System.nanoTime() - start);
            sleep(Math.max(0, left / 1_000_000));
        }
    }

    /** The JVM opens its socket when it finds this file of its own user and gets a SIGQUIT. */
    static String openAttachSocket() throws Exception {
        String pid = new File("/proc/self").getCanonicalFile().getName();
        Path trigger = Paths.get("/tmp/.attach_pid" + pid);
        Path socket = Paths.get("/tmp/.java_pid" + pid);
        Files.createFile(trigger);
        try {
            Native.signalAttach();
            while (!Files.exists(socket))
                Thread.sleep(10);
        } finally {
            Files.deleteIfExists(trigger);
        }
        return socket.toString();
    }
}
