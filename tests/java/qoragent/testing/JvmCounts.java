package qoragent.testing;

import java.lang.management.ManagementFactory;
import java.util.regex.Matcher;
import java.util.regex.Pattern;
import javax.management.ObjectName;

/** Figures that the JVM gives of itself. */
public final class JvmCounts {
    private JvmCounts() {}

    /** JNI references in use, by the JVM's own thread print: "global", or "weak", which JDK 8 doesn't count. */
    public static long references(String kind) throws Exception {
        String print = command("threadPrint");
        Matcher found = Pattern.compile(kind + " ref(?:erence)?s: (\\d+)").matcher(print);
        if (!found.find())
            throw new IllegalStateException("no " + kind + " references in: " + print);
        return Long.parseLong(found.group(1));
    }

    /** What a command of the JVM's own tools prints. */
    static String command(String name, String... arguments) throws Exception {
        return (String)ManagementFactory.getPlatformMBeanServer().invoke(
            new ObjectName("com.sun.management:type=DiagnosticCommand"), name, new Object[] {arguments},
            new String[] {String[].class.getName()});
    }

    public static long liveThreads() { return ManagementFactory.getThreadMXBean().getThreadCount(); }
}
