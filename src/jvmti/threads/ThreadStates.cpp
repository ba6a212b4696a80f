#include "ThreadSystem.h"

#include "qorStrUtils.h"
#include "qorlog.h"
#include "qortiers.h"

#include <cstring>

int64_t gBciThreadIds[MAX_BCI_THREADS];
int32_t gBciThreadIdCount;

namespace {

constexpr int32_t TIMED_ACCEPT_DEPTH = 2;        // Net.poll, NioSocketImpl.park, NioSocketImpl.timedAccept
constexpr int32_t RMI_DEPTH = 3;                 // frames above it may show a remote call
constexpr int32_t SETTLED_DEPTH = RMI_DEPTH + 1; // with a frame of Object.wait0 on top
constexpr int32_t PARKED_DEPTH = 16; // frames above it may be those of a thread parked in a remote call
static_assert(TIMED_ACCEPT_DEPTH < RMI_DEPTH, "QorStateIsSettled looks at one depth only");

constexpr const char *STATE_TEXTS[STATE_COUNT] = {
    "Runnable",   "Interrupted",  "Suspended",    "Object Wait", "Lock",
    "Sleeping",   "CondVar Wait", "Network Wait", "IO Wait",     "DB Wait",
    "Terminated", "Native",       "Unknown",      "RMI Wait",    "Other",
};

// Whether a text begins with another. The first character settles nearly every test, and a sample makes
// several for each frame.
template <size_t N>
bool StartsWith(const char *text, const char (&start)[N]) {
    return text[0] == start[0] && strncmp(text, start, N - 1) == 0;
}

// Texts compared in whole include their terminator.
template <size_t N>
bool Equals(const char *text, const char (&other)[N]) {
    return text[0] == other[0] && strncmp(text, other, N) == 0;
}

constexpr int32_t NO_CHANGE = -1;

// What a runnable thread does by the file or channel call on top of its stack.
int32_t StateOfIoCall(const char *className, const char *method) {
    if (StartsWith(method, "accept0") || StartsWith(method, "poll0"))
        return STATE_OBJECT_WAIT;
    // Since JDK 13 sockets accept through this call, whether they come from java.net or from a channel.
    if (Equals(className, "sun.nio.ch.Net") && Equals(method, "accept"))
        return STATE_OBJECT_WAIT;
    return StartsWith(className, "sun.nio.ch.") ? STATE_NETWORK_WAIT : STATE_IO_WAIT;
}

int32_t StateOfOtherCall(const char *className, const char *method) {
    // A thread that is in the agent's own request entry waits for the worker.
    if (StartsWith(className, "qoragent.Agent"))
        return StartsWith(method, "dataFromNative") ? STATE_OBJECT_WAIT : NO_CHANGE;
    if (Equals(className, "vostok.ext.epoll.EPoll"))
        return StartsWith(method, "epollWait0") ? STATE_OBJECT_WAIT : NO_CHANGE;
    if (StartsWith(className, "java.net."))
        return StartsWith(method, "socketAccept") ? STATE_OBJECT_WAIT : STATE_NETWORK_WAIT;
    return StartsWith(className, "vostok.net.") ? STATE_NETWORK_WAIT : NO_CHANGE;
}

void SetState(QorThreadRecord *thread, int32_t state) {
    if (state == NO_CHANGE)
        return;
    thread->state = state;
    thread->enhancedState = state;
}

// JVMTI calls every thread runnable that is in native code, so the call on top says what it waits for.
void RefineRunnable(const char *className, const char *method, QorThreadRecord *thread) {
    if (StartsWith(className, "java.io.") || StartsWith(className, "sun.nio."))
        SetState(thread, StateOfIoCall(className, method));
    else
        SetState(thread, StateOfOtherCall(className, method));
    if (StartsWith(className, "tessar.jdbc.zdi8.ZDIDBAccess")) {
        SetState(thread, STATE_DB_WAIT);
        tessar_thick_driver = 1;
    }
}

void RefineCondVarWait(const char *className, const char *method, QorThreadRecord *thread) {
    if (StartsWith(className, "java.lang.Thread") && StartsWith(method, "sleep"))
        SetState(thread, STATE_SLEEPING);
    else if (StartsWith(className, "java.lang.Object") && StartsWith(method, "wait"))
        SetState(thread, STATE_OBJECT_WAIT);
}

} // namespace

int32_t mapThreadStatetoQorState(jint jvmtiState, int64_t tid) {
    struct StateRow {
        jint needed, anyOf;
        QorThreadState state;
    };
    constexpr jint WAITING_KINDS = JVMTI_THREAD_STATE_WAITING_INDEFINITELY |
                                   JVMTI_THREAD_STATE_WAITING_WITH_TIMEOUT | JVMTI_THREAD_STATE_PARKED |
                                   JVMTI_THREAD_STATE_IN_OBJECT_WAIT;
    constexpr StateRow ROWS[] = {
        // The last row that fits holds.
        {JVMTI_THREAD_STATE_ALIVE, JVMTI_THREAD_STATE_SUSPENDED, STATE_SUSPENDED},
        {JVMTI_THREAD_STATE_ALIVE, JVMTI_THREAD_STATE_INTERRUPTED, STATE_INTERRUPTED},
        {JVMTI_THREAD_STATE_ALIVE, JVMTI_THREAD_STATE_BLOCKED_ON_MONITOR_ENTER, STATE_LOCK},
        {JVMTI_THREAD_STATE_ALIVE | JVMTI_THREAD_STATE_WAITING, WAITING_KINDS, STATE_OBJECT_WAIT},
        {JVMTI_THREAD_STATE_ALIVE | JVMTI_THREAD_STATE_WAITING, JVMTI_THREAD_STATE_SLEEPING, STATE_SLEEPING},
        {JVMTI_THREAD_STATE_ALIVE, JVMTI_THREAD_STATE_RUNNABLE, STATE_RUNNABLE},
    };
    int32_t state = STATE_UNKNOWN;
    for (const StateRow &row : ROWS)
        if ((jvmtiState & row.needed) == row.needed && (jvmtiState & row.anyOf) != 0)
            state = row.state;
    if ((jvmtiState & JVMTI_THREAD_STATE_ALIVE) == 0 && (jvmtiState & JVMTI_THREAD_STATE_TERMINATED) != 0)
        state = STATE_TERMINATED;

    // The instrumentation knows that these threads do work, so they must not count as idle.
    if (state == STATE_RUNNABLE || state == STATE_LOCK)
        return state;
    for (int32_t i = 0; i < gBciThreadIdCount && i < MAX_BCI_THREADS; i++) {
        if (gBciThreadIds[i] != tid)
            continue;
        QORLOG(LOG_DETAIL, " BCI thread_id is =%d nativeId=%d original_state=%d will changed to OTHER state ",
               static_cast<int>(gBciThreadIds[i]), static_cast<int>(tid), state);
        return STATE_OTHER;
    }
    return state;
}

void mapQorThreadState2String(int32_t state, char *dest) {
    if (state < 0 || state >= STATE_COUNT)
        state = STATE_UNKNOWN;
    QorStrncpy(dest, STATE_TEXTS[state], STATE_TEXT_SIZE, STATE_TEXT_SIZE);
}

bool QorStateIsSettled(int32_t state, int32_t frameIndex) {
    if (state == STATE_RUNNABLE || state == STATE_NETWORK_WAIT)
        return false;
    const bool mayBeRemote = state == STATE_OBJECT_WAIT && QorTiersKnowRemoteCalls();
    return frameIndex >= (mayBeRemote ? PARKED_DEPTH : SETTLED_DEPTH);
}

int32_t GetThreadEnhancedState(const QorFrameRecord *frame, QorThreadRecord *thread) {
    if (!frame) {
        SetState(thread, STATE_OBJECT_WAIT);
        return 0;
    }
    const char *className = frame->className;
    const uint32_t tiers = frame->facts ? frame->facts->tiers : 0;
    if (frame->frameIndex == 0) {
        // On newer JDKs Object.wait has a separate frame for the native call.
        thread->nativeWaitFrames = Equals(className, "java.lang.Object") && Equals(frame->method, "wait0");
        if (thread->state == STATE_RUNNABLE)
            RefineRunnable(className, frame->method, thread);
        else if (thread->state == STATE_CONDVAR_WAIT)
            RefineCondVarWait(className, frame->method, thread);
    }
    if (thread->state == STATE_NETWORK_WAIT && frame->frameIndex == TIMED_ACCEPT_DEPTH &&
        Equals(className, "sun.nio.ch.NioSocketImpl") && Equals(frame->method, "timedAccept"))
        SetState(thread, STATE_OBJECT_WAIT);
    // A driver deep in the stack marks a runnable thread as waiting for the database.
    const bool isRunnable = thread->state == STATE_RUNNABLE || thread->state == STATE_NETWORK_WAIT;
    if (isRunnable && (StartsWith(className, "tessar.net.") || StartsWith(className, "ferrule.jdbc.") ||
                       (tiers & TIER_DB_STATE)))
        SetState(thread, STATE_DB_WAIT);
    else if (isRunnable && (tiers & TIER_RMI_STATE))
        SetState(thread, STATE_RMI_WAIT);
    // Parked threads wait for many things inside a client, so it takes a frame that is in nothing but a call.
    if (thread->state == STATE_OBJECT_WAIT && frame->frameIndex < PARKED_DEPTH && (tiers & TIER_RMI_STATE) &&
        (tiers & TIER_RMI))
        SetState(thread, STATE_RMI_WAIT);
    if (frame->frameIndex - thread->nativeWaitFrames < RMI_DEPTH &&
        (thread->state == STATE_OBJECT_WAIT || thread->state == STATE_OTHER) &&
        StartsWith(className, "ferrule.rjvm.ResponseImpl"))
        SetState(thread, STATE_RMI_WAIT);
    return 0;
}
