#include "frame_state.h"

#include "qorutil.h"

#include <cstring>

namespace {

struct StateRow {
    int32_t frame;
    QorDirectState from;
    const char *className; // compared by its beginning
    const char *method;    // likewise
    QorDirectState to;
};

// The first row that applies decides.
constexpr StateRow ROWS[] = {
    {0, DIRECT_RUNNABLE, "java.io.", "accept0", DIRECT_OBJECT_WAIT},
    {0, DIRECT_RUNNABLE, "java.io.", "poll0", DIRECT_OBJECT_WAIT},
    {0, DIRECT_RUNNABLE, "java.io.", "", DIRECT_IO_WAIT},
    {0, DIRECT_RUNNABLE, "sun.nio.", "accept0", DIRECT_OBJECT_WAIT},
    {0, DIRECT_RUNNABLE, "sun.nio.", "poll0", DIRECT_OBJECT_WAIT},
    {0, DIRECT_RUNNABLE, "sun.nio.", "", DIRECT_IO_WAIT},
    {0, DIRECT_RUNNABLE, "java.net.", "socketAccept", DIRECT_OBJECT_WAIT},
    {0, DIRECT_RUNNABLE, "java.net.", "", DIRECT_NETWORK_WAIT},
    {0, DIRECT_RUNNABLE, "tessar.jdbc.zdi8.ZDIDBAccess", "", DIRECT_DB_WAIT},
    {2, DIRECT_RUNNABLE, "tessar.net.", "", DIRECT_DB_WAIT},
    {2, DIRECT_NETWORK_WAIT, "tessar.net.", "", DIRECT_DB_WAIT},
    {2, DIRECT_RUNNABLE, "ferrule.jdbc.", "", DIRECT_DB_WAIT},
    {2, DIRECT_NETWORK_WAIT, "ferrule.jdbc.", "", DIRECT_DB_WAIT},
};

// The same for whole names.
constexpr StateRow WHOLE_ROWS[] = {
    {0, DIRECT_CONDVAR_WAIT, "java.lang.Thread", "sleep", DIRECT_SLEEPING},
    {0, DIRECT_CONDVAR_WAIT, "java.lang.Object", "wait", DIRECT_OBJECT_WAIT},
};

// Threads of the JVM that wait without any frame.
constexpr const char *WAITING_THREADS[] = {"Signal Dispatcher", "Low Memory Detector", "Attach Listener"};

bool Begins(const char *text, const char *start) {
    return strncmp(text, start, strlen(start)) == 0;
}

} // namespace

QorDirectState QorRefineState(QorDirectState state, int32_t frame, const char *className,
                              const char *method) {
    for (const StateRow &row : ROWS)
        if (row.frame == frame && row.from == state && Begins(className, row.className) &&
            Begins(method, row.method))
            return row.to;
    for (const StateRow &row : WHOLE_ROWS)
        if (row.frame == frame && row.from == state && strcmp(className, row.className) == 0 &&
            strcmp(method, row.method) == 0)
            return row.to;
    return state;
}

bool QorKeepsState(QorDirectState state) {
    return rulesKeepWork && (state == DIRECT_LOCK || state == DIRECT_DB_WAIT || state == DIRECT_RMI_WAIT);
}

QorDirectState QorStateWithoutFrames(QorDirectState state, const char *threadName) {
    for (const char *name : WAITING_THREADS)
        if (strcmp(threadName, name) == 0)
            return DIRECT_CONDVAR_WAIT;
    return state;
}
