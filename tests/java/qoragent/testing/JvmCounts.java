package qoragent.testing;

import java.lang.management.ManagementFactory;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.management.ObjectName;

/** Figures that the JVM gives of itself. */
public final class JvmCounts {
    private static final Pattern GLOBAL_REFS = Pattern.compile("JNI global ref(?:erence)?s: (\\d+)");
    private static final Pattern WEAK_REFS = Pattern.compile("weak ref(?:erence)?s: (\\d+)");

    private JvmCounts() {}

    /** JNI global references in use, by the JVM's own thread print. */
    public static long globalRefs() throws Exception { return count(GLOBAL_REFS); }

    /** The weak ones, which JVMs before JDK 11 don't count. */
    public static long weakRefs() throws Exception { return count(WEAK_REFS); }

    /** What a command of the JVM's own tools prints. */
    static String command(String name, String... arguments) throws Exception {
        return (String)ManagementFactory.getPlatformMBeanServer().invoke(
            new ObjectName("com.sun.management:type=DiagnosticCommand"), name, new Object[] {arguments},
            new String[] {String[].class.getName()});
    }

    private static long count(Pattern figure) throws Exception {
        String print = command("threadPrint");
        Matcher found = figure.matcher(print);
        if (!found.find())
            throw new IllegalStateException("no " + figure + " in: " + print);
        return Long.parseLong(found.group(1));
    }

    public static long liveThreads() { return ManagementFactory.getThreadMXBean().getThreadCount(); }
}
