#include "caller.h"

#include "agent_state.h"
#include "direct/gc_lock.h"
#include "direct/server_port.h"
#include "qoragent/requests/channel.h"
#include "qoragent/requests/direct_threads.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "worker.h"

#include "Xtier/Enrichment.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/ReplyString.h"
#include "platforms/linux.h"
#include "qorthreads/qorthreads.h"

#include <cstring>
#include <ctime>

int32_t thread_timed_out;

namespace {

constexpr char REPLY_TIMED_OUT[] = "Request TIMED OUT|\t|\t\t||";
constexpr char SHUTDOWN[] = "SHUTDOWN";
constexpr char XTIER_REQUEST[] = "xtier01";
constexpr int64_t MSEC_PER_SEC = 1000;
constexpr int64_t POLL_MSEC = 5;

enum class Outcome { ANSWERED, TIMED_OUT, NO_ANSWER };

std::atomic<int32_t> callerServed;    // 1 while one of them has the worker to itself
std::atomic<int32_t> closedToCallers; // 1 while start-up replaces what callers use

struct CallerScope {
    CallerScope() { callersInside++; }
    ~CallerScope() { callersInside--; }
};

int64_t NowMsec() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * MSEC_PER_SEC + now.tv_nsec / 1000000;
}

void SleepMsec(int64_t msec) {
    const timespec pause = {0, msec * 1000000};
    nanosleep(&pause, nullptr);
}

// Waits for the callers before this one; false when `end` comes first, or the agent's.
bool TakeTurn(int64_t end) {
    while (callerServed.exchange(1) != 0) {
        if (NowMsec() >= end || closedToCallers || agentstatus == AGENT_SHUTDOWN)
            return false;
        SleepMsec(POLL_MSEC);
    }
    return true;
}

bool StartsWith(const char *text, const char *word) {
    return strncmp(text, word, strlen(word)) == 0;
}

void AskToLeave() {
    QORLOG(LOG_NOTE, "SHUTDOWN command was sent from Java thread");
    agentstatus = AGENT_SHUTDOWN;
    qorLeave = 1;
    qor_resume_all_threads();
    qor_signal_child_to_process();
}

// What a request whose time is over leaves behind.
void GiveUp() {
    prev_ch_pid = ch_pid.load();
    QORLOG(LOG_NOTE, "Request TIMED OUT");
    thread_timed_out = 1;
    const bool directRoad = !QorOnJvmtiRoad();
    if (directRoad && agentstatus != AGENT_SHUTDOWN) // at a SHUTDOWN the worker ends the agent
        qor_terminate_child_thread();
    if (no_gc == 0)
        qor_enable_gc();
    if (directRoad)
        qor_create_child_thread(&thread);
    QORLOG(LOG_NOTE, "New thread %d created after TIMEOUT", static_cast<int>(thread));
}

// Waits until the worker has answered the request of this number. A handshake of another one is dropped.
Outcome AwaitAnswer(uint32_t number, int64_t end) {
    while (!QorIsAnswered(number)) {
        const int64_t left = end - NowMsec();
        const bool ours = QorChannelIsOurs();
        if (!QorWorkerLives() && (closedToCallers || !ours))
            return Outcome::NO_ANSWER;
        if (left <= 0 || agentstatus == AGENT_SHUTDOWN)
            return Outcome::TIMED_OUT;
        if (ours)
            qor_wait_for_child_reponse(static_cast<int32_t>((left + MSEC_PER_SEC - 1) / MSEC_PER_SEC));
        else
            SleepMsec(POLL_MSEC); // the worker may have this request in hand; it can't wake anybody
    }
    return Outcome::ANSWERED;
}

// Hands a request over and waits for the worker's answer to it.
Outcome AskWorker(const char *chars, int64_t end) {
    thread_timed_out = 0;
    qorWaitingCaller = qor_current_thread_id();
    if (chars)
        QORLOG(LOG_DETAIL, "dataFromNative(mgrCmd=%s), MAXNETDATA=%d, QOREOTLEN=%d, buf=%.*s", chars,
               MAXNETDATA, QOREOTLEN, REQUEST_LIMIT, chars);
    const uint32_t number = QorPostRequest(chars);
    const Outcome outcome = qor_signal_child_to_process() ? AwaitAnswer(number, end) : Outcome::NO_ANSWER;
    if (outcome != Outcome::ANSWERED)
        QorWithdrawRequest();
    if (outcome == Outcome::TIMED_OUT)
        GiveUp();
    return outcome;
}

jstring ReplyFor(JNIEnv *env, Outcome outcome, const char *page) {
    if (outcome == Outcome::TIMED_OUT)
        return QorNewStringUTF(env, REPLY_TIMED_OUT);
    // The worker doesn't touch the page again before the next request, whose caller waits for this one.
    return outcome == Outcome::ANSWERED && page ? QorNewReplyString(env, page) : nullptr;
}

// What Java knows of a sample's threads. On the direct road it is asked here, as its worker isn't one of
// Java's threads. The page is this caller's until the next one's turn: a worker that comes too late for its
// request isn't replaced on this road, and a busy one isn't waited for long, as it has just answered.
void AddJavasPart(JNIEnv *env) {
    if (QorOnJvmtiRoad() || !(reqid & QORREQ_THREAD_DATA) || !e2eclass)
        return;
    const QorBusyScope busy;
    if (agentstatus != AGENT_SHUTDOWN && pagebuf && e2eclass)
        checkAndAppendInfo(env, QorFindDirectThreads);
}

// A request that is to be answered, from its turn to its reply.
jstring ServeCaller(JNIEnv *env, const char *chars) {
    const int32_t seconds = qor_max_timeout > 0 ? qor_max_timeout : DEFAULT_WAIT_SECONDS;
    const int64_t end = NowMsec() + seconds * MSEC_PER_SEC;
    if (!TakeTurn(end))
        return ReplyFor(env, closedToCallers ? Outcome::NO_ANSWER : Outcome::TIMED_OUT, nullptr);
    const char *page = __atomic_load_n(&pagebuf, __ATOMIC_SEQ_CST);
    const Outcome outcome = AskWorker(chars, end);
    if (outcome == Outcome::ANSWERED)
        AddJavasPart(env);
    jstring reply = ReplyFor(env, outcome, page);
    callerServed = 0;
    return reply;
}

jstring Answer(JNIEnv *env, const char *chars) {
    if (chars && StartsWith(chars, SHUTDOWN)) {
        AskToLeave(); // a request in hand is finished first
        return nullptr;
    }
    if (offsetind < 0 && !(chars && StartsWith(chars, XTIER_REQUEST)))
        return nullptr;
    return ServeCaller(env, chars);
}

} // namespace

jstring QorDataFromNative(JNIEnv *env, jstring request) {
    CallerScope inside;
    if (closedToCallers && !serverAwaited)
        return nullptr;
    const char *chars = request ? QorGetStringUTFChars(env, request, nullptr) : nullptr;
    jstring reply = nullptr;
    if (!closedToCallers)
        reply = Answer(env, chars);
    else if (chars && StartsWith(chars, SHUTDOWN))
        AskToLeave();
    if (chars)
        QorReleaseStringUTFChars(env, request, chars);
    return reply;
}

bool QorCloseToCallers(int32_t seconds) {
    closedToCallers = 1;
    const int64_t end = NowMsec() + seconds * MSEC_PER_SEC;
    while (callersInside != 0) {
        if (NowMsec() >= end) {
            closedToCallers = 0;
            return false;
        }
        if (!QorWorkerLives())
            QorSignalParent();
        SleepMsec(POLL_MSEC);
    }
    return true;
}

void QorOpenToCallers() {
    closedToCallers = 0;
}
