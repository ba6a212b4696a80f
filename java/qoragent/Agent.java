package qoragent;

import java.io.IOException;
import java.lang.instrument.Instrumentation;
import java.lang.ref.WeakReference;
import java.net.InetAddress;
import java.nio.file.Path;

/**
 * The agent of this JVM: its natives, its start and its end.
 *
 * It starts by -javaagent, by attaching, or by {@link #start(String)}; a start while it runs changes nothing.
 * Nothing here throws into the application except start(String), which the application calls itself. The
 * natives other than initvar may be called once the agent has been started.
 */
public final class Agent {
    /**
     * How the agent of this JVM fares, for tools that look from outside: starting, running, "running in
     * DIRECTORY" when its endpoint isn't in the usual one, stopped or "failed: why".
     */
    static final String STATUS_PROPERTY = "qoragent.status";

    private static final String STARTING = "starting";
    private static final String RUNNING = "running";
    private static final String STOPPED = "stopped";
    private static final String FAILED = "failed: ";
    private static final String SHUTDOWN = "SHUTDOWN";
    private static final String FORK_DUMPS = "516|NoProcessing|forkdump|1";
    private static final String NO_REQUEST = "ERROR a request reads FLAGS|COMMAND|...";
    private static final String HAND_QUOTA = "516|NoProcessing|handquota|";
    private static final int JVM_UNSUPPORTED = 7;
    private static final long ATTACH_MILLIS = 10_000;

    /**
     * Guards the changes of the three fields below. Under it the settings that a start sends are
     * waited for, but no request of a console.
     */
    private static final Object life = new Object();
    private static volatile boolean running;
    private static Options options;
    private static Relay relay;

    private Agent() {}

    public static void premain(String text, Instrumentation instrumentation) { startQuietly(text); }

    /** The calling thread is the one that serves all tools that attach: it isn't kept for long. */
    public static void agentmain(String text, Instrumentation instrumentation) {
        startAside(text, ATTACH_MILLIS);
    }

    /** Starts on a thread of its own and waits for that no longer than told. */
    static void startAside(String text, long millis) {
        Thread starter = new Thread(() -> startQuietly(text), "qoragent-start");
        starter.setDaemon(true);
        starter.setContextClassLoader(Agent.class.getClassLoader());
        try {
            starter.start();
            starter.join(millis);
        } catch (InterruptedException e) {
            Thread.currentThread().interrupt();
        } catch (Throwable t) {
            complain("no thread to start it on: " + t);
        }
    }

    private static void startQuietly(String text) {
        try {
            start(text);
        } catch (Throwable t) {
            complain(t.getMessage() != null ? t.getMessage() : t.toString());
        }
    }

    private static void complain(String message) {
        System.err.println("qoragent: " + message.replace('\n', ' '));
    }

    /**
     * Starts the agent with "key=value" options, comma-separated; null or empty are all defaults. When it
     * runs already its endpoint file is written again if that is gone, and nothing else happens, unless the
     * options ask for something that it doesn't run with.
     *
     * @throws IllegalArgumentException for an option that is unknown or has a bad value
     * @throws IllegalStateException when the agent can't start, runs with other options, or can't write its
     *     endpoint file again
     */
    public static void start(String text) {
        Options wanted = parse(text);
        synchronized (life) {
            if (running && !workerLives()) // a host that closes descriptors at large ends it
                end();
            if (running) {
                if (!wanted.agreeWith(options))
                    throw new IllegalStateException(
                        "it runs already, with other options; they hold until it is shut down");
                tellAgain();
                return;
            }
            if (System.getProperty(STATUS_PROPERTY, "").startsWith(RUNNING))
                throw new IllegalStateException("it runs already, loaded by another class loader");
            System.setProperty(STATUS_PROPERTY, STARTING);
            try {
                launch(wanted);
            } catch (RuntimeException | Error e) {
                System.setProperty(STATUS_PROPERTY, FAILED + e.getMessage());
                throw e;
            }
        }
    }

    /** A refusal is published as well, as whoever attached doesn't see what is thrown or printed here. */
    private static Options parse(String text) {
        try {
            return Options.parse(text);
        } catch (IllegalArgumentException e) {
            synchronized (life) {
                if (!System.getProperty(STATUS_PROPERTY, "").startsWith(RUNNING))
                    System.setProperty(STATUS_PROPERTY, FAILED + e.getMessage());
            }
            throw e;
        }
    }

    /** What can fail cheaply comes first; the door opens to the consoles when all else stands. */
    private static void launch(Options wanted) {
        Tiers tiers = Tiers.of(wanted.text("tiers"));
        String idleRules = IdleRules.request(wanted.text("rules"));
        NativeLibrary.load();
        Relay door = wanted.relay() ? openRelay(wanted) : null;
        try {
            setRelayPort(door == null ? 0 : door.port());
            int status = initialise(wanted);
            if (status != 0) {
                dataFromNative(SHUTDOWN); // a worker may be there all the same
                throw new IllegalStateException(reason(status));
            }
            running = true;
            if (wanted.text("forkdump").equals("true"))
                dataFromNative(FORK_DUMPS);
            if (!wanted.isPreset("handquota"))
                dataFromNative(HAND_QUOTA + wanted.number("handquota"));
            if (idleRules != null)
                dataFromNative(idleRules);
            String refused = tiers.send(Agent::dataFromNative);
            // What comes with the jar fits the library; a pause of the JVM isn't a reason not to run.
            if (refused != null && !wanted.text("tiers").isEmpty())
                throw new IllegalStateException("option tiers: " + refused);
            if (refused != null)
                complain("it runs without the rules of drivers and containers: " + refused);
            options = wanted;
            relay = door;
            System.setProperty(STATUS_PROPERTY, RUNNING);
            if (door != null)
                tellWhere(door.start());
        } catch (IOException e) {
            abandon(door);
            throw new IllegalStateException("the relay cannot start: " + e.getMessage(), e);
        } catch (RuntimeException | Error e) {
            abandon(door);
            throw e;
        }
    }

    private static void abandon(Relay door) {
        if (door != null)
            door.close();
        boolean initialised = running;
        running = false;
        if (initialised)
            dataFromNative(SHUTDOWN);
        relay = null;
    }

    /**
     * Some hosts clean /tmp of what is old, and consoles would find no way to an agent that runs for weeks.
     */
    private static void tellAgain() {
        try {
            if (relay != null)
                tellWhere(relay.tellAgain());
        } catch (IOException e) {
            throw new IllegalStateException("it runs already, but its endpoint is gone: " + e.getMessage(),
                                            e);
        }
    }

    private static void tellWhere(Path elsewhere) {
        System.setProperty(STATUS_PROPERTY, elsewhere == null ? RUNNING : RUNNING + " in " + elsewhere);
    }

    private static Relay openRelay(Options wanted) {
        try {
            return Relay.open(Agent::answer, InetAddress.getByName(wanted.text("bind")),
                              wanted.number("port"), Endpoint.ofThisProcess());
        } catch (IOException e) {
            throw new IllegalStateException("the relay cannot start: " + e.getMessage(), e);
        }
    }

    /** A line without a bar is no request: the worker wouldn't answer it, and hold up who asks next. */
    private static String answer(String line) {
        return line.indexOf('|') < 0 && !line.startsWith(SHUTDOWN) ? NO_REQUEST : request(line);
    }

    private static int initialise(Options o) {
        String server = o.text("webserver");
        return initvar(o.number("loglevel"), o.number("optlevel"), o.number("maxbackoff"),
                       o.number("timeout"), o.number("sigchain"), o.text("vendor"), o.text("version"),
                       o.osName(), new Object(), new WeakReference<Object>(life), new Object[1], new int[1],
                       server.isEmpty() ? null : server, null, o.text("logfile"), o.text("jvmid"),
                       o.number("lockinfo"), o.number("dbquery"), o.number("sqlsize"), o.number("localquota"),
                       o.number("stackqueried"), o.number("stackrecorded"));
    }

    private static String reason(int status) {
        if (status == JVM_UNSUPPORTED)
            return "this JVM is not supported at optlevel 2; use optlevel 0 (status 7)";
        String told = startFailure();
        if (told != null)
            return told;
        return "the library's start-up failed with status " + status + "; loglevel=3 shows more";
    }

    /**
     * Sends one request and returns the reply, null for no answer. SHUTDOWN ends the agent, its relay
     * included, and waits for no request in hand; start(String) starts it anew. One request runs at a time; a
     * second caller waits, and is refused when a SHUTDOWN comes meanwhile.
     *
     * @throws IllegalStateException when the agent doesn't run
     */
    public static String request(String text) {
        if (text.startsWith(SHUTDOWN)) {
            shutdown(text);
            return null;
        }
        synchronized (Agent.class) { // in turn, and those who waited see a shutdown
            if (!running)
                throw new IllegalStateException("the agent does not run");
            return dataFromNative(text);
        }
    }

    private static void shutdown(String text) {
        synchronized (life) {
            if (!running)
                return;
            dataFromNative(text); // waits for nothing, not for a request in hand either
            end();
        }
    }

    private static void end() {
        running = false;
        System.setProperty(STATUS_PROPERTY, STOPPED);
        if (relay != null)
            relay.close();
        relay = null;
    }

    /**
     * Starts the native side. The four objects from `sample` on are one of each kind whose memory layout the
     * library may look at; `unused` is not read.
     *
     * @return 0 when the agent is usable, 7 for a JVM that the level doesn't support, else a failure
     */
    static native int initvar(int logLevel, int optLevel, int maxBackoff, int timeout, int sigChain,
                              String vendor, String version, String osName, Object sample,
                              Object sampleReference, Object sampleArray, Object sampleInts, String webServer,
                              Object unused, String logFile, String jvmId, int lockInfo, int dbQuery,
                              int sqlSize, int localQuota, int stackQueried, int stackRecorded);

    /** The relay's port, 0 for none: it isn't one of the application's, by which the JVM may be known. */
    private static native void setRelayPort(int port);

    /** Why the last start failed, null when there is nothing to be said. */
    private static native String startFailure();

    /** False when there is nobody to answer a request. */
    static native boolean workerLives();

    /** Hands a request to the worker and waits for its reply; callers take turns there, SHUTDOWN doesn't. */
    static native String dataFromNative(String request);

    /** The threads of the last sample that carried thread data, or null; call it between requests only. */
    public static native Object[] getThreadObjects();

    public static native int setLogLevel(int level);

    public static native int setOptLevel(int level);

    /** The host's addresses and names: "address,name," for each interface that is up. */
    public static native String addvips();

    public static native String getCpuData();

    /** Context switches of this process, voluntary and not. */
    public static native String getProcessContextSwitchCount();

    /** The operating system's id of the inspecting thread, -1 before there was one. */
    public static native long getAgentWorkerThreadId();

    public static native long getCurrentThreadOsId();

    public static native long getOpenFileDescriptorInProcess();

    public static native int getTotalFileDescriptorInProcess();

    public static native long getTotalReadCharPerThread(int osThreadId);

    public static native long getTotalWriteCharPerThread(int osThreadId);

    /** Loads a Java agent, "jar=options", into this JVM; 0, or negative when the JVM can't. */
    public static native int loadJavaAgent(String options);
}
