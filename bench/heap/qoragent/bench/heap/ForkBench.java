package qoragent.bench.heap;

import com.sun.management.HotSpotDiagnosticMXBean;
import java.io.File;
import java.io.IOException;
import java.io.RandomAccessFile;
import java.lang.management.ManagementFactory;
import java.nio.charset.StandardCharsets;
import java.nio.file.Files;
import java.util.ArrayList;
import java.util.HashMap;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.concurrent.atomic.LongAdder;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import qoragent.Agent;

/**
 * How long the JVM is paused for a forked dump and a forked histogram, and for its own, by its own log of
 * safepoints; and what an application gets done while the copy works. Arguments: turns, megabytes of live
 * objects, directory of the dumps, the JVM's log.
 */
public final class ForkBench {
    private static final Pattern STOP = Pattern.compile("Safepoint \"(\\w+)\".* Total: +(\\d+) ns");
    private static final long WINDOW = 2_000;
    /** The copies are ended after a second: their stops are measured, and not what they do. */
    private static final boolean STOPS_ONLY = Boolean.getBoolean("bench.stops");

    private final File directory;
    private final RandomAccessFile log;
    private final Map<String, List<double[]>> rows = new LinkedHashMap<>(); // {stopped, whole} milliseconds
    private final LongAdder done = new LongAdder();
    private volatile boolean ended;

    private interface Work {
        void run() throws Exception;
    }

    private ForkBench(File directory, String log) throws Exception {
        this.directory = directory;
        this.log = new RandomAccessFile(log, "r");
    }

    public static void main(String[] args) throws Exception {
        int turns = Integer.parseInt(args[0]), megabytes = Integer.parseInt(args[1]);
        Object[] heap = HeapBench.fill(megabytes);
        System.gc();
        Agent.start("relay=off,forkdump=true,timeout=" + (STOPS_ONLY ? 3 : 3000));
        Agent.request("516|NoProcessing|qorheapdir|" + args[2]);
        ForkBench bench = new ForkBench(new File(args[2]), args[3]);
        for (int turn = -1; turn < turns; turn++) {
            if (turn == 0)
                bench.rows.clear(); // the first one warms up
            bench.turn();
        }
        System.out.printf("Java %s, %s: %d MB of live objects%n%n", System.getProperty("java.version"),
                          ManagementFactory.getGarbageCollectorMXBeans().get(0).getName(),
                          ManagementFactory.getMemoryMXBean().getHeapMemoryUsage().getUsed() >> 20);
        bench.print("forked dump", "GC.heap_dump -all");
        bench.print("forked histogram", "GC.class_histogram -all");
        for (int threads = 1; !STOPS_ONLY && threads <= Runtime.getRuntime().availableProcessors(); threads++)
            bench.throughput(heap, threads);
        Agent.request("SHUTDOWN");
    }

    private void turn() throws Exception {
        System.gc();
        measure("forked dump", this::forkedDump);
        settle();
        File file = new File(directory, "bench-fork.hprof");
        measure("GC.heap_dump -all",
                ()
                    -> ManagementFactory.getPlatformMXBean(HotSpotDiagnosticMXBean.class)
                           .dumpHeap(file.getPath(), false));
        delete(file);
        measure("forked histogram",
                () -> ask("516|showmem|512|ClassHistogramOnly", STOPS_ONLY ? "" : "JVM Class Details"));
        if (STOPS_ONLY)
            endCopy(); // which would count on for the next who asks
        settle();
        measure("GC.class_histogram -all", HeapBench::histogramOfTheJvm);
    }

    /** After a request that timed out the next may get its late reply. */
    private static void settle() throws InterruptedException {
        for (int i = 0; STOPS_ONLY && i < 2; i++) {
            Thread.sleep(WINDOW);
            Agent.request("516|NoProcessing|qorretry|0");
        }
    }

    private void forkedDump() throws Exception {
        File file = new File(directory, "bench-fork.txt");
        ask("516|showmem|256|" + file.getName() + "|1", STOPS_ONLY ? "" : "completed sucessfully");
        if (STOPS_ONLY)
            endCopy();
        delete(file);
    }

    private static void ask(String request, String expected) {
        String reply = Agent.request(request);
        if (reply == null || !reply.contains(expected))
            throw new IllegalStateException("answer to " + request + ": " + reply);
    }

    /** Ends the copy that goes on writing; the agent needs a look round to notice. */
    private static void endCopy() throws Exception {
        String self = new File("/proc/self").getCanonicalFile().getName();
        for (File process : new File("/proc").listFiles((all, name) -> name.matches("[0-9]+"))) {
            String stat;
            try {
                stat = new String(Files.readAllBytes(new File(process, "stat").toPath()),
                                  StandardCharsets.US_ASCII);
            } catch (IOException e) {
                continue; // it has ended meanwhile
            }
            if (stat.contains("(QORD Heap Dump)") && stat.split("\\) ")[1].split(" ")[1].equals(self))
                new ProcessBuilder("kill", "-9", process.getName()).start().waitFor();
        }
    }

    private static void delete(File file) {
        if (!file.delete())
            throw new IllegalStateException("can't delete " + file);
    }

    private void measure(String row, Work work) throws Exception {
        stopsSinceLastLook(null);
        long start = System.nanoTime();
        work.run();
        double whole = (System.nanoTime() - start) / 1e6;
        rows.computeIfAbsent(row, n -> new ArrayList<>()).add(new double[] {stopsSinceLastLook(row), whole});
    }

    /** Milliseconds of the stops that the log has gained, collections left out. */
    private double stopsSinceLastLook(String row) throws Exception {
        Thread.sleep(50); // the line of a stop is written after it
        byte[] gained = new byte[(int)(log.length() - log.getFilePointer())];
        log.readFully(gained);
        double stopped = 0;
        Map<String, Double> named = new HashMap<>();
        for (Matcher m = STOP.matcher(new String(gained, StandardCharsets.US_ASCII)); m.find();) {
            if (m.group(1).contains("Collect"))
                continue;
            double stop = Long.parseLong(m.group(2)) / 1e6;
            stopped += stop;
            named.merge(m.group(1), stop, Double::sum);
        }
        if (row != null && Boolean.getBoolean("bench.verbose"))
            System.out.println(row + " " + named);
        return stopped;
    }

    private double median(String row, int kind) {
        return HeapBench.median(rows.get(row).stream().mapToDouble(figures -> figures[kind]));
    }

    private void print(String ours, String theirs) {
        double stop = median(ours, 0), other = median(theirs, 0);
        System.out.printf("| %s | stopped ms | whole ms |%n|---|---|---|%n", "");
        System.out.printf("| %s | %.1f | %.0f |%n", ours, stop, median(ours, 1));
        System.out.printf("| %s | %.1f | %.0f |%n", theirs, other, median(theirs, 1));
        System.out.printf("stopped for %.3f of the JVM's own%n%n", stop / other);
    }

    /** What `threads` get done in a while before a dump, and while its copy writes. */
    private void throughput(Object[] heap, int threads) throws Exception {
        Thread[] workers = new Thread[threads];
        ended = false;
        for (int i = 0; i < threads; i++) {
            workers[i] = new Thread(() -> work(heap), "application " + i);
            workers[i].start();
        }
        Thread.sleep(WINDOW);
        double before = rate(() -> Thread.sleep(WINDOW));
        double during = rate(this::forkedDump);
        ended = true;
        for (Thread worker : workers)
            worker.join();
        System.out.printf("%d application threads: %.2f of their throughput while a copy writes%n", threads,
                          during / before);
    }

    private double rate(Work work) throws Exception {
        long count = done.sum(), start = System.nanoTime();
        work.run();
        return (done.sum() - count) * 1e9 / (System.nanoTime() - start);
    }

    /** Reads and changes objects all over the heap, and makes new ones. */
    private void work(Object[] heap) {
        long random = System.nanoTime() | 1;
        Object[] kept = new Object[1024];
        while (!ended) {
            for (int i = 0; i < 1000; i++) {
                random ^= random << 13;
                random ^= random >>> 7;
                random ^= random << 17;
                HeapBench.touch(heap, random);
                kept[i & 1023] = new byte[64];
            }
            done.add(1000);
        }
    }
}
