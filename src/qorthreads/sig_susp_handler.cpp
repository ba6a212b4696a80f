#include "sig_susp_handler.h"

#include <cerrno>
#include <cstring>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

std::atomic<const struct sigaction *> susp_old;
QorSuspCounts qorSuspCounts;

namespace {

// The value of our signals: a mark that nobody else's has, slot and generation.
constexpr uint64_t VALUE_MARK = 0x51D5, VALUE_MARK_SHIFT = 48;
constexpr uint64_t VALUE_HOLD_MASK = (1ULL << VALUE_MARK_SHIFT) - 1;
// Faults of the thread itself. Blocked, they would end the process.
constexpr int NEVER_BLOCKED[] = {SIGILL, SIGTRAP, SIGBUS, SIGFPE, SIGSEGV};

struct sigaction oldActions[2];
bool inForce; // ours was installed, and not taken back by us; worker

static_assert(sizeof(sigval) == sizeof(uint64_t), "the value must take slot and generation");

uint64_t ValueOf(const siginfo_t &info) {
    uint64_t value;
    memcpy(&value, &info.si_value, sizeof value);
    return value;
}

bool IsOurs(const struct sigaction &action) {
    return (action.sa_flags & SA_SIGINFO) && action.sa_sigaction == sig_susp_handler;
}

bool HasHandler(const struct sigaction &action) {
    return action.sa_handler != SIG_DFL && action.sa_handler != SIG_IGN;
}

bool SameAction(const struct sigaction &a, const struct sigaction &b) {
    return a.sa_sigaction == b.sa_sigaction && a.sa_flags == b.sa_flags &&
           memcmp(&a.sa_mask, &b.sa_mask, sizeof a.sa_mask) == 0;
}

void Keep(const struct sigaction &action) {
    const struct sigaction *kept = susp_old;
    if (kept && SameAction(*kept, action))
        return;
    struct sigaction *spare = kept == &oldActions[0] ? &oldActions[1] : &oldActions[0];
    *spare = action;
    susp_old = spare;
}

void Die(int signal) {
    struct sigaction byDefault = {};
    sigaction(signal, &byDefault, nullptr);
    syscall(SYS_tgkill, getpid(), syscall(SYS_gettid), signal);
}

// The mask that the kernel would have set for that action: the interrupted code's, the action's, the signal.
void TakeMask(const struct sigaction &action, int signal, const ucontext_t &interrupted) {
    sigset_t mask;
    sigorset(&mask, &interrupted.uc_sigmask, &action.sa_mask);
    if (!(action.sa_flags & SA_NODEFER))
        sigaddset(&mask, signal);
    sigprocmask(SIG_SETMASK, &mask, nullptr); // this thread's; pthread_sigmask has a newer name in glibc
}

void Forward(int signal, siginfo_t *info, void *context) {
    const struct sigaction *old = susp_old;
    if (old && HasHandler(*old)) {
        qorSuspCounts.forwarded++;
        TakeMask(*old, signal, *static_cast<const ucontext_t *>(context));
        old->sa_sigaction(signal, info, context); // one without SA_SIGINFO doesn't look at the other two
    } else if (info->si_code > 0) {
        Die(signal);
    } else {
        qorSuspCounts.dropped++;
    }
}

QorRegisters RegistersOf(const ucontext_t &context) {
    const greg_t *words = context.uc_mcontext.gregs;
    return {static_cast<uint64_t>(words[REG_RSP]), static_cast<uint64_t>(words[REG_RIP]),
            static_cast<uint64_t>(words[REG_RBP])};
}

// Holds the thread, or finds that it may go on, when the signal is the agent's. False when it isn't.
bool Take(const siginfo_t &info, const ucontext_t &context) {
    const auto me = static_cast<int32_t>(syscall(SYS_gettid));
    if (info.si_code == SI_QUEUE && info.si_pid == syscall(SYS_getpid) &&
        ValueOf(info) >> VALUE_MARK_SHIFT == VALUE_MARK) {
        QorParkInSlot(ValueOf(info) & VALUE_HOLD_MASK, me, RegistersOf(context));
        return true;
    }
    // With the user's limit of pending signals used up the kernel drops value and sender.
    if (info.si_code == SI_USER && info.si_pid == 0 && QorTakeNamelessAsk(me)) {
        qorSuspCounts.nameless++;
        return true;
    }
    QorFreeAbandonedOf(me);
    return false;
}

} // namespace

void sig_susp_handler(int signal, siginfo_t *info, void *context) {
    const int kept = errno;
    if (!Take(*info, *static_cast<const ucontext_t *>(context)))
        Forward(signal, info, context);
    errno = kept;
}

bool QorInstallSuspAction() {
    struct sigaction current;
    if (sigaction(HOLD_SIGNAL, nullptr, &current) != 0)
        return false;
    if (IsOurs(current))
        return true;
    if (inForce)
        return false;
    Keep(current); // first: the handler may run as soon as it is in force
    struct sigaction ours = {};
    ours.sa_sigaction = sig_susp_handler;
    ours.sa_flags = SA_RESTART | SA_SIGINFO | (current.sa_flags & SA_ONSTACK);
    sigfillset(&ours.sa_mask);
    for (const int signal : NEVER_BLOCKED)
        sigdelset(&ours.sa_mask, signal);
    if (sigaction(HOLD_SIGNAL, &ours, &current) != 0)
        return false;
    inForce = true;
    Keep(current); // the same, but where somebody changed it between the two calls
    return true;
}

void QorRestoreSuspAction() {
    struct sigaction current;
    const struct sigaction *old = susp_old;
    if (inForce && sigaction(HOLD_SIGNAL, nullptr, &current) == 0 && IsOurs(current))
        inForce = sigaction(HOLD_SIGNAL, old, nullptr) != 0;
}

int32_t QorSendSuspSignal(QorHold hold, int32_t id) {
    const uint64_t value = VALUE_MARK << VALUE_MARK_SHIFT | hold;
    siginfo_t info = {};
    info.si_signo = HOLD_SIGNAL;
    info.si_code = SI_QUEUE;
    info.si_pid = static_cast<pid_t>(syscall(SYS_getpid));
    info.si_uid = getuid();
    memcpy(&info.si_value, &value, sizeof value);
    return syscall(SYS_rt_tgsigqueueinfo, info.si_pid, id, HOLD_SIGNAL, &info) == 0 ? 0 : errno;
}
