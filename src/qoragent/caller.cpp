#include "caller.h"

#include "channel.h"
#include "gc_lock.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "worker.h"

#include "jvmti/JniCalls.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

std::atomic<int32_t> callersInside;
int32_t thread_timed_out;

namespace {

constexpr char REPLY_TIMED_OUT[] = "Request TIMED OUT|\t|\t\t||";
constexpr char SHUTDOWN[] = "SHUTDOWN";
constexpr char XTIER_REQUEST[] = "xtier01";
constexpr int64_t POLL_MSEC = 5;
constexpr int64_t CLOSE_WAIT_MSEC = 5000;

// What an earlier time-out has left in the channel. The request right after a time-out is granted to read the
// late worker's handshake, and with it that worker's reply; the one after it must find all of it cleared, or
// each request would get its forerunner's reply for ever.
enum ChannelDebt : int32_t {
    DEBT_NONE,
    DEBT_TIMED_OUT, // the last request ran out of time
    DEBT_GRANTED,   // the last request may have read a stale handshake
};
std::atomic<int32_t> channelDebt;

// 1 while start-up replaces what callers use.
std::atomic<int32_t> closedToCallers;

struct CallerScope {
    CallerScope() { callersInside++; }
    ~CallerScope() { callersInside--; }
};

int64_t NowMsec() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1000 + now.tv_nsec / 1000000;
}

void SleepMsec(int64_t msec) {
    const timespec pause = {0, msec * 1000000};
    nanosleep(&pause, nullptr);
}

// Waits until the worker has dealt with all that it was woken for, then clears the handshakes nobody read.
// False when the time of a request goes by over it.
bool PayDebt() {
    const int32_t limit = qor_max_timeout > 0 ? qor_max_timeout : DEFAULT_WAIT_SECONDS;
    const int64_t end = NowMsec() + limit * int64_t{1000};
    while (!QorWorkerIsIdle()) {
        if (NowMsec() >= end || agentstatus == AGENT_SHUTDOWN || closedToCallers)
            return false;
        SleepMsec(POLL_MSEC);
    }
    QorDrainHandshakes();
    return true;
}

// Clears the way for a request. False when its time is over before that.
bool PrepareChannel() {
    switch (channelDebt.exchange(DEBT_NONE)) {
    case DEBT_TIMED_OUT:
        channelDebt = DEBT_GRANTED;
        return true;
    case DEBT_GRANTED:
        return PayDebt();
    default:
        QorDrainHandshakes();
        return true;
    }
}

void TakeRequest(const char *chars) {
    if (!chars)
        return; // what the last request left is asked again
    buf[0] = 0;
    QorStrncpy(buf, chars, BUF_SIZE, REQUEST_LIMIT);
    QORLOG(LOG_DETAIL, "dataFromNative(mgrCmd=%s), MAXNETDATA=%d, QOREOTLEN=%d, buf=%s", chars, MAXNETDATA,
           QOREOTLEN, buf);
}

bool BufStartsWith(const char *word) {
    return strncmp(buf, word, strlen(word)) == 0;
}

void AskToLeave() {
    QORLOG(LOG_NOTE, "SHUTDOWN command was sent from Java thread");
    agentstatus = AGENT_SHUTDOWN;
    qor_signal_child_to_process();
}

void CutAtMarker() {
    if (char *marker = strstr(buf, END_OF_TRANSMISSION))
        *marker = 0;
}

// The reply of a request whose time is over.
jstring GiveUp(JNIEnv *env) {
    channelDebt = DEBT_TIMED_OUT;
    prev_ch_pid = ch_pid.load();
    QORLOG(LOG_NOTE, "Request TIMED OUT");
    thread_timed_out = 1;
    jstring reply = QorNewStringUTF(env, REPLY_TIMED_OUT);
    const bool directRoad = !QorOnJvmtiRoad();
    if (directRoad)
        qor_terminate_child_thread();
    if (no_gc == 0)
        qor_enable_gc();
    buf[0] = 0;
    if (directRoad)
        qor_create_child_thread(&thread);
    QORLOG(LOG_NOTE, "New thread %d created after TIMEOUT", static_cast<int>(thread));
    return reply;
}

// The reply as it stands. When a late worker may still be writing, the JVM must not see the text change while
// it measures and reads it: it gets a copy.
jstring TakeReply(JNIEnv *env, const char *page) {
    if (channelDebt == DEBT_NONE)
        return QorNewStringUTF(env, page);
    char *copy = strndup(page, PAGEBUF_SIZE - 1);
    jstring reply = copy ? QorNewStringUTF(env, copy) : nullptr;
    free(copy);
    return reply;
}

// Hands `buf` over and gives back what the worker made of it.
jstring Ask(JNIEnv *env, char *page) {
    qorlocks[1] = 1;
    CutAtMarker();
    if (page)
        page[0] = page[PAGEBUF_SIZE - 1] = 0;
    if (!qor_signal_child_to_process())
        return nullptr;
    if (qor_wait_for_child_reponse(qor_max_timeout) == 0)
        return GiveUp(env);
    return page ? TakeReply(env, page) : nullptr;
}

jstring TakeAndAsk(JNIEnv *env, const char *chars) {
    if (chars && strncmp(chars, SHUTDOWN, sizeof SHUTDOWN - 1) == 0) {
        AskToLeave(); // `buf` stays as it is: a request in hand is finished first
        return nullptr;
    }
    if (!PrepareChannel())
        return GiveUp(env);
    TakeRequest(chars);
    if (offsetind < 0 && !BufStartsWith(XTIER_REQUEST))
        return nullptr;
    return Ask(env, __atomic_load_n(&pagebuf, __ATOMIC_SEQ_CST));
}

} // namespace

jstring QorDataFromNative(JNIEnv *env, jstring request) {
    CallerScope inside;
    if (closedToCallers)
        return nullptr;
    thread_timed_out = 0;
    const char *chars = request ? QorGetStringUTFChars(env, request, nullptr) : nullptr;
    jstring reply = TakeAndAsk(env, chars);
    if (chars)
        QorReleaseStringUTFChars(env, request, chars);
    return reply;
}

bool QorCloseToCallers() {
    closedToCallers = 1;
    const int64_t end = NowMsec() + CLOSE_WAIT_MSEC;
    while (callersInside != 0) {
        if (NowMsec() >= end) {
            closedToCallers = 0;
            return false;
        }
        QorSignalParent();
        SleepMsec(POLL_MSEC);
    }
    return true;
}

void QorOpenToCallers() {
    channelDebt = DEBT_NONE;
    closedToCallers = 0;
}
