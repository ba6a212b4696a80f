package qoragent;

import java.util.List;

/**
 * What an instrumentation of the application can tell of the threads in a sample. Registered with
 * {@link cJavaCall#register}; called on the agent's inspecting thread while a console waits, so it must be
 * quick and take no lock that the application holds for long. What it throws counts as having nothing.
 */
public interface EndToEndProvider {
    /** Text about the system as a whole, before all threads; null for none. */
    String systemData();

    /**
     * What is known of one thread.
     *
     * @param thread the thread
     * @param osThreadId the operating system's id of it, -1 when the agent has none
     * @param details the ten texts that the agent has gathered of it
     * @param poll true for a regular poll, false for a request that somebody made by hand
     * @return null for nothing
     */
    ThreadText describe(Thread thread, long osThreadId, List<String> details, boolean poll);

    /** The texts for one thread; each may be null. */
    final class ThreadText {
        final String framework;
        final String remote;
        final String endToEnd;

        /**
         * @param framework is in place of the thread's state field, at optlevel 3 only
         * @param remote an RMI or database block in place of the agent's own, at optlevel 3 only
         * @param endToEnd fields appended to the thread's record
         */
        public ThreadText(String framework, String remote, String endToEnd) {
            this.framework = framework;
            this.remote = remote;
            this.endToEnd = endToEnd;
        }
    }
}
