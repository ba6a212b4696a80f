#include "qorthreads.h"

#include "ask_thread.h"
#include "hold_log.h"
#include "sig_susp_handler.h"
#include "task_stat.h"

#include "qorlog.h"
#include "qorutil/vm_reader.h"

#include <csignal>
#include <ctime>
#include <sys/syscall.h>
#include <unistd.h>

std::atomic<QorHold> segv_suspended_thread, null_sp_suspended_thread;
std::atomic<int32_t> qorWaitingCaller;

namespace {

constexpr int64_t NSEC_PER_MSEC = 1000 * 1000;
constexpr int64_t STAY_NSEC[] = {50 * NSEC_PER_MSEC, 50 * NSEC_PER_MSEC,
                                 5000 * NSEC_PER_MSEC}; // by QorHoldCase
constexpr int64_t ARRIVAL_NSEC = 20 * NSEC_PER_MSEC;
constexpr int64_t LEAVE_NSEC = 5 * NSEC_PER_MSEC;
constexpr int64_t TURN_NSEC = 10 * NSEC_PER_MSEC;
constexpr long SHORT_SLEEP_NSEC = 50 * 1000;
constexpr uint32_t LARGEST_DEPTH =
    8192; // a thread in Java code has touched that much below its stack pointer

const QorHoldTests *tests; // null: nobody is held
bool pendingShown;         // /proc shows a thread's pending signals
std::atomic<int32_t> turnTaken;

void ShortSleep() {
    const timespec pause = {0, SHORT_SLEEP_NSEC};
    nanosleep(&pause, nullptr);
}

// One worker at a time claims a slot or takes the action back, as a claim between the look at the slots and
// the taking back would send its signal to the action before. A worker that was given up on may still run.
class Turn {
public:
    Turn() {
        const int64_t end = QorMonotonicNsec() + TURN_NSEC;
        while (!(taken_ = turnTaken.exchange(1) == 0) && QorMonotonicNsec() < end)
            ShortSleep();
    }
    ~Turn() {
        if (taken_)
            turnTaken = 0;
    }
    Turn(const Turn &) = delete;
    Turn &operator=(const Turn &) = delete;
    explicit operator bool() const { return taken_; }

private:
    bool taken_;
};

int32_t OwnId() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}

// Claims a slot with our action in force. 0 when either isn't to be had.
QorHold Claim(const QorThreadName &thread, uint64_t owner, int64_t end) {
    const Turn turn;
    return turn && QorInstallSuspAction() ? QorClaimSlot(thread, owner, end) : 0;
}

// 0, or the error.
int32_t Send(QorHold hold, int32_t id) {
    const int32_t error = QorSendSuspSignal(hold, id);
    if (error)
        QorSlotNotSent(hold);
    else
        QorSlotSent(hold);
    return error;
}

// Has the calling thread take one signal, first pending and then as a hold whose time is over.
bool HoldSelf() {
    sigset_t ours, before;
    if (sigpending(&before) != 0 || sigismember(&before, HOLD_SIGNAL))
        return false;
    sigemptyset(&ours);
    sigaddset(&ours, HOLD_SIGNAL);
    sigprocmask(SIG_BLOCK, &ours, &before); // this thread's
    const int32_t me = OwnId();
    QorTaskStat task = {};
    const QorHold hold = Claim({me, 0}, 0, 0);
    const bool sent = hold && Send(hold, me) == 0;
    pendingShown = sent && QorLookAtTask(me, &task) == TASK_SEEN && (task.pending >> (HOLD_SIGNAL - 1) & 1);
    sigprocmask(SIG_UNBLOCK, &ours, nullptr);
    sigprocmask(SIG_SETMASK, &before, nullptr);
    return sent;
}

// May it be asked? Not a number out of memory that has become somebody else's meanwhile.
bool Holdable(uint64_t thread, int32_t id) {
    return QorMayHold(id) && thread != 0 && tests->listed(thread, id);
}

} // namespace

bool QorPrepareHolds(const QorHoldTests *given) {
    tests = nullptr;
    const bool taken = HoldSelf();
    QorTendHolds();
    const uint32_t depth = taken ? QorHandlerDepth() : 0;
    if (depth == 0 || depth > LARGEST_DEPTH) {
        QORLOG(LOG_ERROR, "Threads in Java code are left out: signal %d takes %u bytes of stack (0: unknown)",
               HOLD_SIGNAL, depth);
        return false;
    }
    tests = given;
    return true;
}

bool QorMayHold(int32_t id) {
    return tests && id > 0 && id != OwnId() && id != qorWaitingCaller;
}

bool QorIsInJavaCode(uint64_t thread, int32_t id) {
    return tests && tests->inJava(thread, id);
}

void QorWaitForLeavers(int32_t id) {
    const int64_t end = QorMonotonicNsec() + LEAVE_NSEC;
    while (!QorSlotsLeftBy(id) && QorMonotonicNsec() < end)
        ShortSleep();
}

QorHold QorAskThread(uint64_t thread, const QorThreadName &name, QorHoldCase why,
                     bool (*still)(uint64_t thread, int32_t id)) {
    const QorHold hold = Claim(name, thread, QorMonotonicNsec() + STAY_NSEC[why]);
    if (!hold) {
        QorNoteHold({HOLD_REFUSED, why, name.id, thread});
        return 0;
    }
    if (!still(thread, name.id)) {
        QorSlotNotSent(hold);
        return 0;
    }
    if (Send(hold, name.id) != 0) {
        QorNoteHold({HOLD_NOT_SENT, why, name.id, thread});
        return 0;
    }
    QorNoteHold({HOLD_BEGUN, why, name.id, thread});
    return hold;
}

QorHold qor_suspend_thread(uint64_t thread, int32_t id, QorHoldCase why) {
    QorTaskStat task = {};
    if (!Holdable(thread, id) || QorLookAtTask(id, &task) == TASK_GONE)
        return 0;
    QorWaitForLeavers(id); // its last hold may have ended a moment ago
    return QorAskThread(thread, {id, task.start}, why, Holdable);
}

bool QorAwaitHeld(QorHold hold, QorRegisters *out) {
    const uint64_t thread = QorSlotOwner(hold);
    const int32_t id = QorSlotThread(hold);
    if (!QorAwaitSlot(hold, QorMonotonicNsec() + ARRIVAL_NSEC, out)) {
        if (hold)
            QorNoteHold({HOLD_LAPSED, HOLD_NULL_SP, id, thread});
        return false;
    }
    QorForgetPages();
    if (tests->inJava(thread, id))
        return true;
    QorReleaseSlot(hold);
    return false;
}

bool QorStillHeld(QorHold hold) {
    return QorSlotHeld(hold);
}

void qor_resume_thread(QorHold hold) {
    const uint64_t thread = QorSlotOwner(hold);
    const int32_t id = QorSlotThread(hold);
    const QorHoldCase why = hold == segv_suspended_thread ? HOLD_OBJECT_MOVE : HOLD_NULL_SP;
    if (QorReleaseSlot(hold))
        QorNoteHold({HOLD_DONE, why, id, thread});
}

void qor_resume_all_threads() {
    segv_suspended_thread = 0;
    null_sp_suspended_thread = 0;
    QorReleaseAllSlots();
}

void QorTendHolds() {
    if (const Turn turn; turn) {
        QorWaitForLeavers(0);
        QorSweepSlots(pendingShown);
        if (QorSlotsAllFree())
            QorRestoreSuspAction();
    }
    QorLogHolds(tests ? tests->name : nullptr);
}

void QorEndHolds() {
    qor_resume_all_threads();
    QorTendHolds();
}
