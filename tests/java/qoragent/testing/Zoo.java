package qoragent.testing;

import java.util.ArrayList;
import java.util.Arrays;
import java.util.HashSet;
import java.util.LinkedHashMap;
import java.util.List;
import java.util.Map;
import java.util.Set;

/**
 * Threads that stand still in known places, one for each state and call, named "zoo-" and their kind.
 *
 * All methods are static with plain arguments, so that native tests can call them. start() and its relatives
 * return when every thread of theirs is provably where it belongs; stop() returns when all have ended.
 * One caller at a time.
 */
public final class Zoo {
    private static final Map<String, Resident> residents = new LinkedHashMap<>();
    private static int deepBase = -1;

    private Zoo() {}

    /** Starts all kinds, or those named in a comma-separated list when it isn't null or empty. */
    public static synchronized void start(String kinds) throws Exception {
        Set<String> wanted =
            kinds == null || kinds.isEmpty() ? null : new HashSet<>(Arrays.asList(kinds.split(",")));
        for (Resident resident : all())
            if (wanted == null || wanted.remove(resident.kind))
                admit(resident);
        if (wanted != null && !wanted.isEmpty())
            throw new IllegalArgumentException("no such residents: " + wanted);
    }

    /** Starts "zoo-deep-N", which has exactly `frames` frames, and returns the thread. */
    public static synchronized Thread startDeep(int frames) throws Exception {
        int extra = frames - deepBase();
        if (extra < 0)
            throw new IllegalArgumentException("a deep thread has at least " + deepBase() + " frames");
        Resident deep = new ZooRun.Deep("deep-" + frames, extra);
        admit(deep);
        if (frames(deep.thread()).length != frames)
            throw new IllegalStateException("zoo-deep-" + frames + " has another depth");
        return deep.thread();
    }

    /** Starts "zoo-many-0" to "zoo-many-(count - 1)", each of exactly `frames` frames. */
    public static synchronized void startMany(int count, int frames) throws Exception {
        int extra = Math.max(0, frames - deepBase());
        for (int i = 0; i < count; i++)
            admit(new ZooRun.Deep("many-" + i, extra));
    }

    /** Starts "zoo-wide-FIRST" to "zoo-wide-(END - 1)", whose stacks take more than the agent keeps of one. */
    public static synchronized void startWide(int first, int end) throws Exception {
        for (int i = first; i < end; i++)
            admit(
                new ZooRun
                    .WithANameSoLongThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHasThatAFewHundredFramesOfItFillAllTheRoomThatAStackHas(
                        "wide-" + i));
    }

    /** Ends all threads of the zoo. */
    public static synchronized void stop() throws Exception {
        List<Resident> leaving = new ArrayList<>(residents.values());
        residents.clear();
        for (Resident resident : leaving)
            resident.release();
        for (Resident resident : leaving)
            resident.awaitEnd();
    }

    /** Makes "zoo-swapper" give back its monitor and take the other one, at the same place. */
    public static synchronized void swap() throws Exception {
        ((ZooLocks.Swapper)residents.get("swapper")).swap();
    }

    /** Throws unless every thread still stands where it belongs. */
    public static synchronized void check() throws Exception {
        for (Resident resident : residents.values())
            resident.awaitParked();
    }

    /** The thread of a kind; null when there is none. */
    public static synchronized Thread thread(String kind) {
        Resident resident = residents.get(kind);
        return resident == null ? null : resident.thread();
    }

    /** The Java id of that thread, -1 when there is none. */
    public static long id(String kind) {
        Thread thread = thread(kind);
        return thread == null ? -1 : thread.getId();
    }

    /**
     * All frames of a thread: Thread.getStackTrace() leaves some out from JDK 21 on, such as Thread.runWith.
     */
    private static StackTraceElement[] frames(Thread thread) {
        return Thread.getAllStackTraces().get(thread);
    }

    private static List<Resident> all() {
        List<Resident> all = ZooIo.residents();
        all.addAll(ZooLocks.residents());
        all.addAll(ZooRun.residents());
        return all;
    }

    private static void admit(Resident resident) throws Exception {
        if (residents.containsKey(resident.kind))
            throw new IllegalStateException("zoo-" + resident.kind + " is here already");
        residents.put(resident.kind, resident);
        resident.start();
    }

    /** Frames of a deep thread that calls itself no further; differs between JDKs. */
    private static int deepBase() throws Exception {
        if (deepBase < 0) {
            Resident shallow = new ZooRun.Deep("shallow", 0);
            shallow.start();
            deepBase = frames(shallow.thread()).length;
            shallow.release();
            shallow.awaitEnd();
        }
        return deepBase;
    }
}
