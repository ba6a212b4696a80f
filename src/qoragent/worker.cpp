#include "worker.h"

#include "RequestHandler/listening_ports.h"
#include "direct/gc_lock.h"
#include "fault_handler.h"
#include "platforms/qorsysinfo.h"
#include "qorStrUtils.h"
#include "qoragent/requests/channel.h"
#include "qoragent/requests/dispatch.h"
#include "qoragent/requests/forked_dump.h"
#include "qoragent/requests/library_dump.h"
#include "qoragent/requests/request_text.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "shutdown.h"

#include "Xtier/Enrichment.h"
#include "direct/memory_text.h"
#include "jvmti/Session.h"
#include "platforms/linux.h"
#include "qorthreads/qorthreads.h"
#include "reply/records.h"

#include <cstdio>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace {

constexpr int32_t LOOK_ROUND_SECONDS = 10; // between looks at what may end an idle worker
constexpr int STRIKE_LIMIT = 51;
constexpr int JAVA_CALL_WAITS = 21;
constexpr int32_t JAVA_CALL_WAIT_SECONDS = 5;
constexpr size_t NIMB_STACK_SIZE = 1024 * 1024;
constexpr long POLL_NSEC = 1000 * 1000;
constexpr char HEAP_DETAIL_REQUEST[] = "showmem|512";
constexpr char MEMORY_REQUEST[] = "showqor|128";

// The number of the current start: only the worker that carries it may touch the channel. Negative while that
// worker is asked to leave, 0 when nobody serves.
std::atomic<intptr_t> currentStart;
std::atomic<intptr_t> starts;
std::atomic<int32_t> liveWorkers;

// True when this worker must leave. Answering true to a request to leave is final.
bool Outdated(intptr_t start) {
    intptr_t asked = -start;
    return currentStart.compare_exchange_strong(asked, 0) || asked != start;
}

time_t MonotonicSeconds() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

void ShortSleep() {
    const timespec pause = {0, POLL_NSEC};
    nanosleep(&pause, nullptr);
}

bool StartsWith(const char *text, const char *word) {
    return text && strncmp(text, word, strlen(word)) == 0;
}

// Appends a text and a section end to the reply, by way of `buf`.
void AppendByWayOfBuf(const char *text) {
    snprintf(buf, sizeof buf, "%s%c", text, SECTION_END);
    QorAgentStrncat(pagebuf, buf, PAGEBUF_SIZE, BUF_SIZE);
}

void Answered() {
    qorlocks[1] = 0;
    QorAnswerRequest();
}

void WaitForJavaCall() {
    for (int i = 0; i < JAVA_CALL_WAITS && flagcompiled_java_code; i++) {
        if (i > 0 && qorloglevel > LOG_TRACE)
            qor_perror("QorAgent Waiting to return from Tulvo Api \n");
        qor_safe_sleep(JAVA_CALL_WAIT_SECONDS);
    }
}

// Counts a wake-up that was none. A request that waits is answered, as its wake-up may be what was spoilt.
// The count never goes down: from the limit on each further one restarts the loop at once.
void Strike(volatile int *strikes) {
    QORLOG(LOG_WARNING, "Pipe not invoked by Parent");
    *strikes = *strikes + 1;
    if (QorTakeRequest()) {
        pagebuf[0] = 0;
        AppendByWayOfBuf("Unable to complete Request, Try Again");
        Answered();
    }
    if (*strikes >= STRIKE_LIMIT && gbIbmJvm)
        qor_enable_gc();
}

// A refused request for memory activity still has the use of the heap as it is in the midst of a collection.
void AppendMemoryOfRefused(const char *command) {
    if (!StartsWith(command, MEMORY_REQUEST))
        return;
    QorText reply;
    QorTextStart(&reply, pagebuf, PAGEBUF_SIZE);
    qormemsum(&reply, QORREQ_MEMORY_ACTIVITY);
}

bool TakeGcLock(uint32_t flags, const char *command) {
    if (no_gc || !QorCanInspect() || qor_disable_gc(flags & FLAG_GC_RETRY_MODE) == 0)
        return true;
    AppendMemoryOfRefused(command);
    if (qorlocks[1])
        AppendByWayOfBuf(
            "Unable to complete Request. Please Try Again\n Garbage Collector currently running.");
    Answered();
    return false;
}

// On the JVMTI road a dump or the histogram is known to the view by `dumpfile`.
void PrepareDumpfile(const char *command) {
    if (!QorOnJvmtiRoad())
        return;
    dumpfile[0] = 0;
    if (StartsWith(command, DUMP_REQUEST))
        QorParseDumpRequest(buf);
    else if (StartsWith(command, HEAP_DETAIL_REQUEST) && strstr(command, HISTOGRAM_WORD))
        QorStrncpy(dumpfile, HISTOGRAM_WORD, sizeof dumpfile, sizeof HISTOGRAM_WORD - 1);
}

void LogFlags() {
    QORLOG(qorIsPollOrTrace ? LOG_TRACE : LOG_DETAIL,
           "Flags: details=%d|singlethread=%d|jsp=%d|system=%d|allthreads=%d|ispoll=%d", poll_details,
           trace_single_thread_details, show_jsp_info, get_system_data, trace_all_threads, qorIsPollOrTrace);
}

// True when a dump by a copy of the process has answered; without a path only the memory view is asked for.
bool AnsweredByCopy(const char *command) {
    if (!QorMayForkForDump(command))
        return false;
    set_qor_handler();
    QorParseDumpRequest(buf);
    reset_qor_handler();
    if (!dumpfile[0])
        return false;
    QorAnswerForkedDump();
    return true;
}

// Answers the posted request. One without a bar gets no answer at all.
void HandleRequest() {
    if (!QorTakeRequest())
        return;
    pagebuf[0] = pagebuf[PAGEBUF_SIZE - 1] = 0;
    if (strstr(buf, DUMP_REQUEST))
        QorNameJvmByPort();
    if (QorAnswerLibraryDump()) {
        QorAnswerRequest();
        return;
    }
    const char *command = QorNextField(buf);
    if (!command) {
        QORLOG(LOG_ERROR, "Cannot get console flags from buf: %s", buf);
        return;
    }
    const uint32_t flags = QorParseNumber(buf);
    QorUnpackFlags(flags);
    LogFlags();
    if (offsetind == BUILD_UNSUPPORTED)
        no_gc = FLAG_NO_GC;
    if (!TakeGcLock(flags, command))
        return;
    if (!AnsweredByCopy(command)) {
        set_qor_handler();
        PrepareDumpfile(command);
        ch_pid = qor_current_thread_id();
        process_data();
        reset_qor_handler();
        if (no_gc == 0)
            qor_enable_gc();
    }
    Answered();
}

enum WakeUp { WOKEN, STRAY, NOTHING, LEAVE };

// Takes one wake-up out of the pipe.
WakeUp ReadWakeUp() {
    char pipe_str[HANDSHAKE_SIZE] = {};
    if (!QorChannelIsOurs())
        return LEAVE;
    const ssize_t got = qor_read_file(pipe_fd_PP[0], pipe_str, HANDSHAKE_SIZE);
    if (got != HANDSHAKE_SIZE)
        QORLOG(LOG_ERROR, "Qor Agent Error : IPC CH :");
    if (agentstatus == AGENT_SHUTDOWN) {
        QORLOG(LOG_NOTE, "agentstatus = SHUTDOWN. Breaking out before processing command");
        return LEAVE;
    }
    QORLOG(LOG_TRACE, READ_RETURNED, static_cast<int>(got));
    if (got < 0)
        return NOTHING;
    return memcmp(pipe_str, WAKE_UP, HANDSHAKE_SIZE) == 0 ? WOKEN : STRAY;
}

// One wake-up, once there is one. False when the worker must leave.
bool ServeWakeUp(volatile int *strikes) {
    switch (ReadWakeUp()) {
    case WOKEN:
        HandleRequest();
        break;
    case STRAY:
        Strike(strikes);
        break;
    case NOTHING:
        break;
    case LEAVE:
        return false;
    }
    return true;
}

// Serves wake-ups until the agent is asked to leave, this worker is outdated, or the channel is gone. A fault
// in a request comes back to the mark, so that nothing here has a destructor.
void ServeRequests(const intptr_t start) {
    volatile int strikes = 0;
    if (sigsetjmp(sig_jump, 1) != 0) {
        workerBusy = 0;
        if (gbIbmJvm)
            qor_enable_gc();
    }
    sigJumpThread = qor_current_thread_id();
    while (QorChannelIsOurs() && !Outdated(start)) {
        if (agentstatus == AGENT_SHUTDOWN) {
            QORLOG(LOG_NOTE, "agentstatus = SHUTDOWN. breaking out while loop in child process");
            break;
        }
        QorTendCopies();
        QorTendHolds();
        if (!qor_can_read(pipe_fd_PP[0], LOOK_ROUND_SECONDS))
            continue;
        if (Outdated(start))
            break;
        QorTakeBusy();
        const bool stays = ServeWakeUp(&strikes);
        workerBusy = 0;
        if (!stays)
            break;
    }
    if (sigJumpThread == qor_current_thread_id())
        sigJumpThread = 0; // the mark ends with this function; a successor's stays
}

// Starts a detached worker, the only one that may touch the channel from now on. 0 or the error number.
int32_t StartWorker(pthread_t *handle) {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    pthread_attr_setdetachstate(&attributes, PTHREAD_CREATE_DETACHED);
    if (gbNimbJvm)
        pthread_attr_setstacksize(&attributes, NIMB_STACK_SIZE);
    pthread_t created = 0;
    liveWorkers++;
    qorLeave = agentstatus == AGENT_SHUTDOWN;
    currentStart = ++starts;
    const int failed = pthread_create(&created, &attributes, qor_child_thread,
                                      reinterpret_cast<void *>(currentStart.load()));
    pthread_attr_destroy(&attributes);
    if (failed)
        liveWorkers--;
    else if (!gbNimbJvm)
        *handle = created;
    return failed;
}

void LogStart() {
    if (Pthread_NPTL)
        QORLOG(LOG_DETAIL, "Created new QorAgent Child Thread with PID %d-%d", getpid(), ch_pid.load());
    else
        QORLOG(LOG_DETAIL, "Created new QorAgent Child Thread with PID %d", ch_pid.load());
}

} // namespace

void *qor_child_thread(void *startNumber) {
    const auto start = reinterpret_cast<intptr_t>(startNumber);
    const bool jvmtiRoad = QorOnJvmtiRoad();
    if (jvmtiRoad) {
        gbThreadId = qor_current_thread_id();
        QorAttachThread();
        if (gbIbmJvm)
            checkCapabilities();
    }
    ch_pid = qor_current_thread_id();
    LogStart();
    ServeRequests(start);
    if (!Outdated(start))
        exitAgent(jvmtiRoad ? jvmtijni_env : nullptr);
    else if (jvmtiRoad)
        QorDetachThread();
    liveWorkers--;
    return nullptr;
}

int32_t qor_create_child_thread(pthread_t *handle) {
    child_env = nullptr;
    if (QorOnJvmtiRoad())
        iNotUsingSignalHandler = 1;
    if (ch_pid != 0 || offsetind < 0)
        return 0;
    const int32_t failed = StartWorker(handle);
    if (failed)
        QORLOG(LOG_ERROR, "Internal Error : 2000 :Failed to create new thread ");
    return failed;
}

void QorWorkerGone() {
    liveWorkers--;
}

int32_t QorReplaceWorker() {
    QorWorkerGone();
    sigJumpThread = 0;
    workerBusy = 0;
    return StartWorker(&thread);
}

void qor_terminate_child_thread() {
    qor_resume_all_threads();
    WaitForJavaCall();
    qorlocks[1] = 0;
    if (!thread)
        return;
    currentStart = 0;
    qorLeave = 1;
    qor_signal_child_to_process();
    thread = 0;
}

bool QorRetireWorkers(int32_t seconds) {
    if (!QorWorkerLives())
        return true;
    const intptr_t serving = currentStart;
    currentStart = -serving;
    qorLeave = 1;
    qor_signal_child_to_process();
    const time_t end = MonotonicSeconds() + seconds;
    for (; QorWorkerLives(); ShortSleep()) {
        intptr_t asked = -serving;
        if (MonotonicSeconds() > end && currentStart.compare_exchange_strong(asked, serving)) {
            qorLeave = agentstatus == AGENT_SHUTDOWN;
            return false;
        }
    }
    return true;
}

bool QorWorkerLives() {
    return liveWorkers != 0;
}
