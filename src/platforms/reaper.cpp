#include "reaper.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sys/wait.h>

namespace {

constexpr int MAX_OWN_CHILDREN = 64;

// Process ids, 0 for a free place. Negated while the child must not be collected.
std::atomic<int32_t> ownChildren[MAX_OWN_CHILDREN];
struct sigaction earlierAction; // what the signal did before
bool installed;

bool HasEarlierHandler() {
    return earlierAction.sa_handler != SIG_DFL && earlierAction.sa_handler != SIG_IGN;
}

void CallEarlierHandler(int signal, siginfo_t *info, void *context) {
    if (!HasEarlierHandler())
        return;
    if (earlierAction.sa_flags & SA_SIGINFO)
        earlierAction.sa_sigaction(signal, info, context);
    else
        earlierAction.sa_handler(signal);
}

void ChildSignal(int signal, siginfo_t *info, void *context) {
    const int interrupted = errno;
    zombie_reaper();
    CallEarlierHandler(signal, info, context);
    errno = interrupted;
}

void InstallHandler() {
    if (installed || sigaction(SIGCHLD, nullptr, &earlierAction) != 0)
        return;
    struct sigaction ours = {};
    ours.sa_sigaction = ChildSignal;
    ours.sa_mask = earlierAction.sa_mask;
    ours.sa_flags = SA_SIGINFO | SA_ONSTACK;
    ours.sa_flags |= earlierAction.sa_flags & (SA_NOCLDSTOP | SA_NOCLDWAIT | SA_RESTART);
    // A signal without a handler interrupts nothing.
    if (!HasEarlierHandler())
        ours.sa_flags |= SA_RESTART;
    // Ignoring the signal means that nobody has to wait for a child; a handler alone would end that.
    if (!(earlierAction.sa_flags & SA_SIGINFO) && earlierAction.sa_handler == SIG_IGN)
        ours.sa_flags |= SA_NOCLDWAIT;
    installed = sigaction(SIGCHLD, &ours, nullptr) == 0;
}

} // namespace

bool QorRecordChild(pid_t pid) {
    InstallHandler();
    for (std::atomic<int32_t> &place : ownChildren) {
        int32_t none = 0;
        if (place.compare_exchange_strong(none, pid))
            return true;
    }
    return false;
}

bool QorChildIsRecorded(pid_t pid) {
    for (std::atomic<int32_t> &place : ownChildren)
        if (pid > 0 && (place == pid || place == -pid))
            return true;
    return false;
}

void QorKillChild(pid_t pid) {
    for (std::atomic<int32_t> &place : ownChildren) {
        int32_t alive = pid;
        if (pid <= 0 || !place.compare_exchange_strong(alive, -pid))
            continue;
        kill(pid, SIGKILL); // as nobody collects it now, the number is still its own
        place = pid;
    }
}

int32_t zombie_reaper() {
    int32_t last = 0;
    for (std::atomic<int32_t> &place : ownChildren) {
        int32_t pid = place;
        if (pid <= 0)
            continue;
        last = waitpid(pid, nullptr, WNOHANG);
        if (last != 0 && !(last < 0 && errno == EINTR))
            place.compare_exchange_strong(pid, 0); // ended, or no child of this process any more
    }
    return last;
}
