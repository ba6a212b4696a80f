#include "caller.h"

#include "channel.h"
#include "gc_lock.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "worker.h"

#include "jvmti/JniCalls.h"
#include "jvmti/ReplyString.h"

#include <cstdlib>
#include <cstring>
#include <ctime>

std::atomic<int32_t> callersInside;
int32_t thread_timed_out;

namespace {

constexpr char REPLY_TIMED_OUT[] = "Request TIMED OUT|\t|\t\t||";
constexpr char SHUTDOWN[] = "SHUTDOWN";
constexpr char XTIER_REQUEST[] = "xtier01";
constexpr int64_t MSEC_PER_SEC = 1000;
constexpr int64_t POLL_MSEC = 5;
constexpr int64_t CLOSE_WAIT_MSEC = 5000;

// What a request gets instead of seconds.
enum : int32_t {
    NO_TIME = 0,
    NO_ANSWER = -1,
};

// What an earlier time-out has left in the channel. The request right after a time-out is granted to read the
// late worker's handshake, and with it that worker's reply; the one after it must find all of it cleared, or
// each request would get its forerunner's reply for ever.
enum ChannelDebt : int32_t {
    DEBT_NONE,
    DEBT_TIMED_OUT, // the last request ran out of time
    DEBT_GRANTED,   // the last request may have read a stale handshake
};
std::atomic<ChannelDebt> channelDebt;

// 1 while start-up replaces what callers use.
std::atomic<int32_t> closedToCallers;

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

// Waits until the worker has dealt with all that it was woken for. The seconds left of `seconds`, in whole
// ones, or NO_TIME.
int32_t AwaitIdleWorker(int32_t seconds) {
    const int64_t end = NowMsec() + seconds * MSEC_PER_SEC;
    while (!QorWorkerIsIdle()) {
        if (NowMsec() >= end || agentstatus == AGENT_SHUTDOWN || closedToCallers)
            return NO_TIME;
        SleepMsec(POLL_MSEC);
    }
    return static_cast<int32_t>((end - NowMsec() + MSEC_PER_SEC - 1) / MSEC_PER_SEC);
}

// Clears the way for a request. The seconds that it may still take, or NO_TIME.
int32_t PrepareChannel() {
    int32_t seconds = qor_max_timeout > 0 ? qor_max_timeout : DEFAULT_WAIT_SECONDS;
    const ChannelDebt debt = channelDebt.exchange(DEBT_NONE);
    if (debt == DEBT_TIMED_OUT) {
        channelDebt = DEBT_GRANTED;
        return seconds;
    }
    if (debt == DEBT_GRANTED)
        seconds = AwaitIdleWorker(seconds);
    if (seconds != NO_TIME)
        QorDrainHandshakes();
    return seconds;
}

void TakeRequest(const char *chars) {
    if (!chars)
        return; // what the last request left is asked again
    buf[0] = 0;
    QorStrncpy(buf, chars, BUF_SIZE, REQUEST_LIMIT);
    QORLOG(LOG_DETAIL, "dataFromNative(mgrCmd=%s), MAXNETDATA=%d, QOREOTLEN=%d, buf=%s", chars, MAXNETDATA,
           QOREOTLEN, buf);
}

bool StartsWith(const char *text, const char *word) {
    return strncmp(text, word, strlen(word)) == 0;
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

// The reply as it stands. When the worker may still be writing, late or for another caller, the JVM must not
// see the text change while it measures and reads it: it gets a copy.
jstring TakeReply(JNIEnv *env, const char *page) {
    if (channelDebt == DEBT_NONE && callersInside == 1)
        return QorNewReplyString(env, page);
    char *copy = strndup(page, PAGEBUF_SIZE - 1);
    jstring reply = copy ? QorNewReplyString(env, copy) : nullptr;
    free(copy);
    return reply;
}

// Hands `buf` over and gives back what the worker makes of it within `seconds`.
jstring Ask(JNIEnv *env, char *page, int32_t seconds) {
    qorlocks[1] = 1;
    CutAtMarker();
    if (page)
        page[0] = page[PAGEBUF_SIZE - 1] = 0;
    if (!qor_signal_child_to_process())
        return nullptr;
    const int32_t answer = qor_wait_for_child_reponse(seconds);
    if (answer == 0)
        return GiveUp(env);
    if (answer < 0)
        channelDebt = DEBT_GRANTED; // the true handshake is still to come
    return page ? TakeReply(env, page) : nullptr;
}

// Takes a request in. The seconds that it may take, NO_TIME, or NO_ANSWER when there is nothing to wait for.
int32_t TakeIn(const char *chars) {
    if (chars && StartsWith(chars, SHUTDOWN)) {
        AskToLeave(); // `buf` stays as it is: a request in hand is finished first
        return NO_ANSWER;
    }
    if (offsetind < 0 && !StartsWith(chars ? chars : buf, XTIER_REQUEST))
        return NO_ANSWER;
    const int32_t seconds = PrepareChannel();
    if (seconds != NO_TIME)
        TakeRequest(chars);
    return seconds;
}

} // namespace

jstring QorDataFromNative(JNIEnv *env, jstring request) {
    CallerScope inside;
    if (closedToCallers)
        return nullptr;
    thread_timed_out = 0;
    const char *chars = request ? QorGetStringUTFChars(env, request, nullptr) : nullptr;
    const int32_t seconds = TakeIn(chars);
    if (chars)
        QorReleaseStringUTFChars(env, request, chars);
    if (seconds == NO_ANSWER)
        return nullptr;
    if (seconds == NO_TIME)
        return GiveUp(env);
    return Ask(env, __atomic_load_n(&pagebuf, __ATOMIC_SEQ_CST), seconds);
}

bool QorCloseToCallers() {
    closedToCallers = 1;
    const int64_t end = NowMsec() + CLOSE_WAIT_MSEC;
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
