package qoragent.testing;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * Threads that stay in known places, one for each state and call, named "zoo-" and their kind; those of
 * Tiers are among them.
 *
 * All methods are static with plain arguments, so that native tests can call them. start() and its relatives
 * return when every thread of theirs is provably where it belongs; stop() returns when all have ended.
 * One caller at a time.
 */
public final class Zoo {
    private static final Map<String, Resident> residents = new LinkedHashMap<>();
    private static int deepBase = -1;

    private Zoo() {}

    /** Starts all kinds but "spin", or those named in a comma-separated list when it isn't empty. */
    public static synchronized void start(String kinds) throws Exception {
        Set<String> wanted = new HashSet<>(Arrays.asList(kinds.split(",")));
        boolean all = wanted.remove("");
        for (List<Resident> known : Arrays.asList(ZooIo.all(), ZooLocks.all(), ZooRun.all()))
            for (Resident resident : known)
                if (wanted.remove(resident.kind) || all && !resident.kind.equals("spin"))
                    admit(resident);
        if (!wanted.isEmpty())
            throw new IllegalArgumentException("no such residents: " + wanted);
    }

    /** Starts "zoo-deep-N", which has exactly `frames` frames. */
    public static synchronized void startDeep(int frames) throws Exception {
        admit(ZooRun.deep("deep-" + frames, frames - deepBase()));
    }

    /** Starts "zoo-many-0" to "zoo-many-(count - 1)", each of exactly `frames` frames. */
    public static synchronized void startMany(int count, int frames) throws Exception {
        for (int i = 0; i < count; i++)
            admit(ZooRun.deep("many-" + i, Math.max(0, frames - deepBase())));
    }

    /** Ends all threads of the zoo, the customers and all churn. */
    public static synchronized void stop() throws Exception {
        List<Resident> leaving = new ArrayList<>(residents.values());
        residents.clear();
        for (Resident resident : leaving)
            resident.release();
        for (Resident resident : leaving)
            resident.awaitEnd();
        Customers.stop();
        Churn.stop();
    }

    /** Makes "zoo-swapper" give back its monitor and take the other one, at the same place. */
    public static synchronized void swap() throws Exception { ZooLocks.swap(residents.get("swapper")); }

    /** The thread of a kind. */
    public static synchronized Object thread(String kind) { return residents.get(kind).thread(); }

    public static synchronized void rename(String kind, String name) { ((Thread)thread(kind)).setName(name); }

    public static long id(String kind) { return ((Thread)thread(kind)).getId(); }

    static synchronized void admit(Resident resident) throws Exception {
        residents.put(resident.kind, resident);
        resident.start();
    }

    /**
     * Frames of a deep thread that calls itself no further. It differs between JDKs: Thread.getStackTrace() leaves
     * some out from JDK 21 on, such as Thread.runWith.
     */
    private static int deepBase() throws Exception {
        if (deepBase < 0) {
            Resident shallow = ZooRun.deep("shallow", 0);
            shallow.start();
            deepBase = Thread.getAllStackTraces().get(shallow.thread()).length;
            shallow.release();
            shallow.awaitEnd();
        }
        return deepBase;
    }
}
