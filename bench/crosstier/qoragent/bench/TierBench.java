package qoragent.bench;

import java.io.IOException;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.nio.file.Path;
import java.nio.file.Paths;
import java.util.ArrayList;
import java.util.List;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import qoragent.Agent;

/**
 * Measures what cross-tier frames cost a poll and the application, and prints the figures as Markdown.
 * Arguments: turns (5), seconds of a window (10), megabytes of live objects (1000), folder for the log.
 */
public final class TierBench {
    private static final int THREADS = 500;
    private static final int DEPTH = 100;
    private static final int WARM_UP_POLLS = 20;
    private static final int NO_CONTROL = 100;
    /** Falling, since a walk under a small quota bars the next one for long, across starts too. */
    private static final int[] QUOTAS = {25, 10, 5, 1};
    private static final int WALKS_OF_A_SHARE = 3;

    /** Rows of all threads: no GC lock 4, all threads 256; a poll, unless 512 says that it is none. */
    private static final String POLL = "260|showstack|32768";
    private static final String NO_POLL = "772|showstack|32768";
    private static final Pattern TIMING =
        Pattern.compile("Time spent in JVM for processing request.(\\d+) usec");
    /** The line is written when a walk has ended. */
    private static final Pattern WALK =
        Pattern.compile("<\\S+ (\\d+):(\\d+):(\\d+)\\.(\\d+)> "
                        + ".*Local Variable traversal - process time : (\\d+) sec,(\\d+) usec");
    private static final double DAY_MILLIS = 24 * 3600e3;
    private static final String SHOWN = "select o.id";
    /** The level at which each walk's time is logged. */
    private static final int LEVEL_OF_TIMES = 5;

    private final int turns;
    private final int windowSeconds;
    private final Path log;
    private long workerMicros;
    private long logRead;

    private TierBench(int turns, int windowSeconds, Path log) {
        this.turns = turns;
        this.windowSeconds = windowSeconds;
        this.log = log;
    }

    public static void main(String[] args) throws Exception {
        int megabytes = args.length > 2 ? Integer.parseInt(args[2]) : 1000;
        List<Object> heap = fill(megabytes);
        TierBench bench =
            new TierBench(args.length > 0 ? Integer.parseInt(args[0]) : 5,
                          args.length > 1 ? Integer.parseInt(args[1]) : 10, Paths.get(args[3], "walks.log"));
        System.out.printf(
            "JDK %s, %d processors, %d threads x %d frames, %d MB of objects, %d turns, windows of %d s%n",
            System.getProperty("java.version"), Runtime.getRuntime().availableProcessors(), THREADS, DEPTH,
            megabytes, bench.turns, bench.windowSeconds);
        bench.cost();
        bench.shares();
        bench.throughput();
        if (heap.isEmpty())
            throw new IllegalStateException();
    }

    /** Small objects in small arrays, as applications have them. */
    private static List<Object> fill(int megabytes) {
        List<Object> heap = new ArrayList<>();
        for (int block = 0; block < megabytes; block++) {
            Object[] objects = new Object[10_000];
            for (int i = 0; i < objects.length; i++)
                objects[i] = new long[10];
            heap.add(objects);
        }
        return heap;
    }

    private void start(int quota) throws IOException {
        Files.deleteIfExists(log);
        logRead = 0;
        Agent.start("relay=off,lockinfo=3,dbquery=1,handquota=100,localquota=" + quota + ",logfile=" + log);
    }

    private static void stop() { Agent.request("SHUTDOWN"); }

    private String ask(String request) {
        String reply = Agent.request(request);
        Matcher timing = TIMING.matcher(reply.substring(Math.max(0, reply.length() - 100)));
        workerMicros = timing.find() ? Long.parseLong(timing.group(1)) : -1;
        if (!reply.contains("bench-1"))
            throw new IllegalStateException("the reply lacks the crowd");
        return reply;
    }

    private String poll() { return ask(POLL); }

    /** A walk, in milliseconds: its length, and its start in the day. */
    private static final class Walk {
        final double length;
        final double start;

        Walk(Matcher line) {
            length = Long.parseLong(line.group(5)) * 1e3 + Long.parseLong(line.group(6)) / 1e3;
            int minutes = Integer.parseInt(line.group(1)) * 60 + Integer.parseInt(line.group(2));
            start = (minutes * 60 + Integer.parseInt(line.group(3))) * 1e3 + Integer.parseInt(line.group(4)) -
                    length;
        }
    }

    /** The walks logged since the last call. */
    private List<Walk> walks() throws IOException {
        byte[] all = Files.readAllBytes(log);
        String text = new String(all, (int)logRead, (int)(all.length - logRead), StandardCharsets.UTF_8);
        logRead = all.length;
        Matcher line = WALK.matcher(text);
        List<Walk> found = new ArrayList<>();
        while (line.find())
            found.add(new Walk(line));
        return found;
    }

    /** A poll a second with frames that the agent knows, a walk in each, and without such frames. */
    private void cost() throws Exception {
        Figures figures = new Figures();
        for (int turn = 0; turn < turns; turn++) {
            for (boolean isKnown : new boolean[] {false, true}) {
                try (TierCrowd crowd = new TierCrowd(THREADS, DEPTH, isKnown)) {
                    start(NO_CONTROL);
                    pollEachSecond(3);
                    if (isKnown)
                        expectData();
                    figures.add(isKnown ? "known" : "plain", pollEachSecond(windowSeconds));
                    Agent.setLogLevel(LEVEL_OF_TIMES);
                    walks();
                    pollEachSecond(windowSeconds / 2 + 1);
                    List<Walk> walks = walks();
                    if (isKnown)
                        figures.add("walk",
                                    Figures.median(walks.stream().mapToDouble(w -> w.length).toArray()));
                    else if (!walks.isEmpty())
                        throw new IllegalStateException("a walk for nothing");
                    stop();
                }
            }
        }
        double plain = figures.median("plain");
        double known = figures.median("known");
        double walk = figures.median("walk");
        System.out.printf(
            "%n## A poll a second, a walk in each, worker's time in ms%n%n| without known frames | with"
                + " | of it the walk | (with - walk) / without |%n|---|---|---|---|%n"
                + "| %.2f | %.2f | %.2f | %.2f |%n",
            plain, known, walk, (known - walk) / plain);
    }

    private void expectData() {
        String reply = ask(NO_POLL);
        int shown = 0;
        for (int at = reply.indexOf(SHOWN); at >= 0; at = reply.indexOf(SHOWN, at + 1))
            shown++;
        if (shown < THREADS)
            throw new IllegalStateException(shown + " rows show their SQL");
    }

    /** The median of the worker's time, in milliseconds. */
    private double pollEachSecond(int seconds) throws InterruptedException {
        double[] millis = new double[seconds];
        for (int i = 0; i < seconds; i++) {
            long start = System.nanoTime();
            poll();
            millis[i] = workerMicros / 1e3;
            Thread.sleep(Math.max(0, 1000 - (System.nanoTime() - start) / 1_000_000));
        }
        return Figures.median(millis);
    }

    /** Polls without a pause: the walks' share of the time, from the start of one to that of a later one. */
    private void shares() throws Exception {
        System.out.printf(
            "%n## Share of time that walks take, polls without a pause%n%n| quota, %% | polls | walks"
            + " | longest walk, ms | share, %% |%n|---|---|---|---|---|%n");
        try (TierCrowd crowd = new TierCrowd(THREADS, DEPTH, true)) {
            for (int quota : QUOTAS) {
                start(quota);
                for (int i = 0; i < WARM_UP_POLLS; i++)
                    poll();
                Agent.setLogLevel(LEVEL_OF_TIMES);
                walks();
                List<Walk> walks = new ArrayList<>();
                int polls = 0;
                for (; walks.size() < WALKS_OF_A_SHARE; polls++) {
                    poll();
                    walks.addAll(walks());
                }
                stop();
                int last = walks.size() - 1;
                double elapsed = walks.get(last).start - walks.get(0).start;
                double stood = walks.subList(0, last).stream().mapToDouble(w -> w.length).sum();
                System.out.printf("| %d | %d | %d | %.1f | %.2f |%n", quota, polls, walks.size(),
                                  walks.stream().mapToDouble(w -> w.length).max().orElse(0),
                                  100 * stood / (elapsed > 0 ? elapsed : elapsed + DAY_MILLIS));
            }
        }
    }

    /** Work done with one poll a second against work done without, in windows that take turns. */
    private void throughput() throws Exception {
        System.out.printf(
            "%n## Throughput with one poll a second%n%n| quota, %% | work with / without |%n|---|---|%n");
        int workers = Runtime.getRuntime().availableProcessors();
        try (TierCrowd crowd = new TierCrowd(THREADS, DEPTH, true); Load load = new Load(workers)) {
            for (int quota : new int[] {10, 5, 1, 0}) {
                start(quota);
                pollEachSecond(5);
                Figures figures = new Figures();
                for (int turn = 0; turn < turns; turn++) {
                    figures.add("without", load.during(() -> rest(windowSeconds)));
                    figures.add("with", load.during(() -> pollFor(windowSeconds)));
                }
                stop();
                System.out.printf("| %d | %.4f |%n", quota, figures.ratio("with", "without"));
            }
        }
    }

    private static void rest(int seconds) {
        try {
            Thread.sleep(seconds * 1000L);
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }

    private void pollFor(int seconds) {
        try {
            pollEachSecond(seconds);
        } catch (InterruptedException e) {
            throw new IllegalStateException(e);
        }
    }
}
