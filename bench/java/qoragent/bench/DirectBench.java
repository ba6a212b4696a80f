package qoragent.bench;

import java.io.BufferedReader;
import java.io.InputStreamReader;
import java.io.OutputStream;
import java.lang.management.ManagementFactory;
import java.util.Locale;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import qoragent.Agent;

/**
 * Measures a sample of this JVM in turns with one of a JVM that is read by address, whose command answers
 * each line of input with a line of times. Arguments: that command, turns.
 */
final class DirectBench {
    private static final int THREADS = 200;
    private static final int FRAMES = 50;
    private static final int CALLS_A_TURN = 5;
    private static final String POLL = "276|showstack|32768";
    private static final Pattern TIMING =
        Pattern.compile("Time spent in JVM for processing request.(\\d+) usec");

    private DirectBench() {}

    public static void main(String[] args) throws Exception {
        Locale.setDefault(Locale.ROOT);
        int turns = Integer.parseInt(args[1]);
        Process direct =
            new ProcessBuilder(args[0], "samples").redirectError(ProcessBuilder.Redirect.INHERIT).start();
        Agent.start("relay=off");
        Figures figures = new Figures();
        String[] last = {};
        int replyLength = 0;
        try (Crowd crowd = new Crowd(THREADS, FRAMES);
             BufferedReader answers = new BufferedReader(new InputStreamReader(direct.getInputStream()));
             OutputStream turn = direct.getOutputStream()) {
            for (int i = -1; i < turns; i++) { // the first one warms up
                turn.write('\n');
                turn.flush();
                last = answers.readLine().split(" ");
                double[] worker = new double[CALLS_A_TURN];
                double[] call = new double[CALLS_A_TURN];
                for (int c = 0; c < CALLS_A_TURN; c++) {
                    long start = System.nanoTime();
                    String reply = Agent.request(POLL);
                    call[c] = (System.nanoTime() - start) / 1e6;
                    Matcher timing = TIMING.matcher(reply);
                    worker[c] = timing.find() ? Long.parseLong(timing.group(1)) / 1e3 : Double.NaN;
                    replyLength = reply.length();
                }
                if (i < 0)
                    continue;
                figures.add("direct worker", Double.parseDouble(last[0]));
                figures.add("direct call", Double.parseDouble(last[1]));
                figures.add("JVMTI worker", Figures.median(worker));
                figures.add("JVMTI call", Figures.median(call));
            }
        }
        System.out.printf(
            "JDK %s, %d processors, load %.1f, %d x %d, medians of %d turns of %d calls, times in ms%n%n",
            System.getProperty("java.version"), Runtime.getRuntime().availableProcessors(),
            ManagementFactory.getOperatingSystemMXBean().getSystemLoadAverage(), THREADS, FRAMES, turns,
            CALLS_A_TURN);
        System.out.printf("| road | reply, KiB | worker | whole call |%n|---|---|---|---|%n");
        System.out.printf("| by address, simulated JVM | %d | %.2f | %.2f |%n",
                          Integer.parseInt(last[2]) / 1024, figures.median("direct worker"),
                          figures.median("direct call"));
        System.out.printf("| JVMTI | %d | %.2f | %.2f |%n%nworker / worker: %.2f%n%n", replyLength / 1024,
                          figures.median("JVMTI worker"), figures.median("JVMTI call"),
                          figures.ratio("direct worker", "JVMTI worker"));
        System.exit(direct.waitFor());
    }
}
