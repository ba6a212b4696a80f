#include "forked_child.h"

#include "linux.h"
#include "memory_maps.h"
#include "reaper.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

int32_t gbiForkStandstill = 30000;
bool qorInForkedChild;
volatile uint64_t *qorForkSteps;

namespace {

constexpr size_t STACK_SIZE = 64 * 1024;
constexpr int64_t POLL_MSEC = 2;
constexpr int QUIET_POLLS = 25; // sleeping and no step: the walk is over
constexpr int64_t NSEC_PER_MSEC = 1000 * 1000;
constexpr int64_t MSEC_PER_SEC = 1000;
constexpr int64_t LONGEST_LOOK = 2000; // what one look of the parent's counts at most
constexpr int64_t LONGEST_END = 10000; // for a killed copy to be gone
constexpr int CHILD_PRIORITY = 5;
constexpr int EXIT_FAILURE_CODE = 3;
constexpr int MAX_STATISTICS = 4;
constexpr uint64_t LARGEST_STATISTICS = 1 << 20;
constexpr long CLOSE_RANGE_CALL = 436; // younger than the oldest headers that this builds with
constexpr int KEPT_DESCRIPTORS = 3;

struct Page {
    std::atomic<uint64_t> beat; // moves while the copy runs at all
    volatile uint64_t steps;
    std::atomic<int32_t> state, error;
};

QorForkPlan plan = {-1, {-1, -1}, 0, nullptr, nullptr};
Page *page; // with the result behind it
size_t pageSize;
char *watcherStack;
std::atomic<pid_t> childPid; // of the last fork
int forkError;
pid_t parentPid;
int walkerStat = -1; // in the copy: the walking thread's figures in /proc

// The JVM's statistics are memory that other processes read. The copy gets a private copy of them.
struct Range {
    char *start;
    size_t size;
};
Range statistics[MAX_STATISTICS];
int statisticsCount;

// The parent's last look.
uint64_t seenBeat;
int64_t seenAt, stoodStill;

size_t RoundedToPages(size_t size) {
    const auto unit = static_cast<size_t>(getpagesize());
    return (size + unit - 1) / unit * unit;
}

void *MapMemory(size_t size, int flags) {
    void *memory = mmap(nullptr, size, PROT_READ | PROT_WRITE, flags | MAP_ANONYMOUS, -1, 0);
    return memory == MAP_FAILED ? nullptr : memory;
}

void Unmap() {
    if (page)
        munmap(page, pageSize);
    if (watcherStack)
        munmap(watcherStack, STACK_SIZE);
    page = nullptr;
    watcherStack = nullptr;
    qorForkSteps = nullptr;
}

bool NoteStatistics(const QorMapping &mapping, void *) {
    const uint64_t size = mapping.end - mapping.start;
    if (mapping.shared && mapping.writable && size <= LARGEST_STATISTICS &&
        strstr(mapping.name, "hsperfdata_") && statisticsCount < MAX_STATISTICS)
        statistics[statisticsCount++] = {reinterpret_cast<char *>(mapping.start), static_cast<size_t>(size)};
    return true;
}

int64_t MonotonicMsec() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * MSEC_PER_SEC + now.tv_nsec / NSEC_PER_MSEC;
}

// System calls of the watching thread while the other one walks. It has no thread data of its own, so it must
// not touch errno.
long BareCall(long number, long a, long b, long c, long d) {
    long result;
    register long fourth __asm__("r10") = d;
    __asm__ volatile("syscall"
                     : "=a"(result)
                     : "a"(number), "D"(a), "S"(b), "d"(c), "r"(fourth)
                     : "rcx", "r11", "memory");
    return result;
}

void qor_signal_fork_child_to_parent() {
    if (plan.pipe[1] >= 0 && write(plan.pipe[1], FORK_HANDSHAKE, FORK_HANDSHAKE_SIZE) < 0) {
        // nobody waits any more
    }
}

[[noreturn]] void Leave(QorForkState state, int32_t error) {
    page->error = error;
    page->state = state;
    qor_signal_fork_child_to_parent();
    for (;;)
        syscall(SYS_exit_group, state == FORK_DONE ? 0 : EXIT_FAILURE_CODE);
}

void DieOfFault(int) {
    Leave(FORK_FAULT, 0);
}

// The signals as in a new process. A closed pipe and a file that may not grow are seen as errors of the
// write.
void ResetSignals() {
    struct sigaction action = {};
    for (int signal = 1; signal < NSIG; signal++) {
        action.sa_handler = signal == SIGPIPE || signal == SIGXFSZ ? SIG_IGN : SIG_DFL;
        if (signal == SIGSEGV || signal == SIGBUS)
            action.sa_handler = DieOfFault;
        sigaction(signal, &action, nullptr);
    }
    sigset_t none;
    sigemptyset(&none);
    sigprocmask(SIG_SETMASK, &none, nullptr);
}

void OfferToTheKiller() {
    const int fd = open("/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC);
    if (fd < 0)
        return;
    if (write(fd, "1000", 4) < 0) {
        // it is then judged by its size
    }
    close(fd);
}

void Limit(int resource, rlim_t value) {
    const rlimit limit = {value, value};
    setrlimit(static_cast<__rlimit_resource_t>(resource), &limit);
}

void CloseFrom(int first, int last) {
    if (first <= last && syscall(CLOSE_RANGE_CALL, first, last, 0) == 0)
        return;
    rlimit limit;
    constexpr rlim_t MOST = 1 << 20;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur > MOST)
        limit.rlim_cur = MOST;
    for (int fd = first; fd <= last && fd < static_cast<int>(limit.rlim_cur); fd++)
        close(fd);
}

// Closes all descriptors but those, in any order, that are kept. -1 in the list stands for none.
void CloseAllBut(int (&kept)[KEPT_DESCRIPTORS]) {
    for (int i = 1; i < KEPT_DESCRIPTORS; i++) {
        for (int k = i; k > 0 && kept[k] < kept[k - 1]; k--) {
            const int other = kept[k];
            kept[k] = kept[k - 1];
            kept[k - 1] = other;
        }
    }
    int first = 0;
    for (int fd : kept) {
        if (fd > first)
            CloseFrom(first, fd - 1);
        if (fd >= first)
            first = fd + 1;
    }
    CloseFrom(first, INT32_MAX);
}

void TakeStatisticsApart() {
    for (int i = 0; i < statisticsCount; i++) {
        const Range &range = statistics[i];
        void *own = MapMemory(range.size, MAP_PRIVATE);
        if (!own)
            Leave(FORK_FAILED, ENOMEM);
        memcpy(own, range.start, range.size);
        if (mremap(own, range.size, range.size, MREMAP_MAYMOVE | MREMAP_FIXED, range.start) == MAP_FAILED)
            Leave(FORK_FAILED, errno);
    }
}

// The copy from its first moment to where the walk goes on.
void BecomeChild() {
    qorInForkedChild = true;
    ResetSignals();
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parentPid)
        Leave(FORK_FAILED, ESRCH);
    prctl(PR_SET_NAME, "QORD Heap Dump");
    OfferToTheKiller();
    setpriority(PRIO_PROCESS, 0, CHILD_PRIORITY);
    walkerStat = open("/proc/thread-self/stat", O_RDONLY | O_CLOEXEC);
    if (walkerStat < 0)
        Leave(FORK_FAILED, errno);
    int kept[KEPT_DESCRIPTORS] = {plan.file, plan.pipe[1], walkerStat};
    CloseAllBut(kept);
    Limit(RLIMIT_CORE, 0);
    Limit(RLIMIT_NOFILE, 0); // what is open stays; the JVM's code can't open anything
    TakeStatisticsApart();
    constexpr int THREAD = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM;
    if (clone(start_forked_thread, watcherStack + STACK_SIZE, THREAD, nullptr) < 0)
        Leave(FORK_FAILED, errno);
}

// The walking thread's state letter and its processor time in clock ticks.
struct WalkerLook {
    char state;
    uint64_t ticks;
};

WalkerLook LookAtWalker() {
    char line[512];
    WalkerLook look = {0, 0};
    const long length = BareCall(SYS_pread64, walkerStat, reinterpret_cast<long>(line), sizeof line - 1, 0);
    if (length <= 0)
        return look;
    line[length] = 0;
    const char *p = line + length;
    while (p > line && *p != ')') // the name may hold anything
        p--;
    if (p[0] != ')' || p[1] != ' ')
        return look;
    p += 2;
    look.state = *p;
    constexpr int FIELDS_TO_USER_TIME = 11, TIMES = 2;
    for (int field = 0; *p && field < FIELDS_TO_USER_TIME + TIMES; p++) {
        if (*p == ' ') {
            field++;
            continue;
        }
        if (field < FIELDS_TO_USER_TIME)
            continue;
        uint64_t value = 0;
        for (; *p >= '0' && *p <= '9'; p++)
            value = value * 10 + static_cast<uint64_t>(*p - '0');
        look.ticks += value;
        p--;
    }
    return look;
}

} // namespace

// The steps alone can't tell the end from a long page fault, and the state alone can't tell it from a lock.
int start_forked_thread(void *) {
    uint64_t steps = 0, ticks = 0;
    int quiet = 0;
    int64_t standstill = 0;
    for (;;) {
        timespec pause = {0, POLL_MSEC * NSEC_PER_MSEC};
        BareCall(SYS_nanosleep, reinterpret_cast<long>(&pause), 0, 0, 0);
        page->beat++;
        const uint64_t now = page->steps;
        const bool moved = now != steps;
        steps = now;
        if (moved) {
            quiet = 0;
            standstill = 0;
            continue;
        }
        const WalkerLook look = LookAtWalker();
        standstill = look.ticks == ticks ? standstill + POLL_MSEC : 0;
        ticks = look.ticks;
        quiet = look.state == 'S' && plan.walkCanBeOver() ? quiet + 1 : 0;
        if (quiet >= QUIET_POLLS)
            break;
        if (standstill > gbiForkStandstill)
            Leave(FORK_STUCK, 0);
    }
    const int32_t error = plan.finish();
    Leave(error ? FORK_FAILED : FORK_DONE, error);
}

bool QorPrepareFork(const QorForkPlan &wanted) {
    if (QorForkedChildLives())
        return false;
    QorForgetFork();
    plan = wanted;
    childPid = 0;
    forkError = 0;
    statisticsCount = 0;
    pageSize = RoundedToPages(sizeof(Page) + plan.resultSize);
    page = static_cast<Page *>(MapMemory(pageSize, MAP_SHARED));
    watcherStack = static_cast<char *>(MapMemory(STACK_SIZE, MAP_PRIVATE));
    if (!page || !watcherStack || !QorVisitMappings(NoteStatistics, nullptr)) {
        plan.file = -1;
        Unmap();
        return false;
    }
    qorForkSteps = &page->steps;
    page->state = FORK_RUNNING;
    seenBeat = 0;
    seenAt = MonotonicMsec();
    stoodStill = 0;
    parentPid = getpid();
    return true;
}

pid_t QorForkHere() {
    pid_t pid = fork();
    if (pid == 0)
        BecomeChild();
    else if (pid < 0)
        forkError = errno;
    else if (!QorRecordChild(pid)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        forkError = EAGAIN;
        pid = -1;
    }
    childPid = pid;
    return pid;
}

pid_t QorForkedPid() {
    errno = forkError;
    return childPid;
}

void *QorForkResult() {
    return page + 1;
}

QorForkState QorForkOutcome(int32_t *error) {
    *error = 0;
    if (!page || childPid <= 0)
        return FORK_NONE;
    *error = page->error;
    return static_cast<QorForkState>(page->state.load());
}

bool QorForkedChildLives() {
    if (childPid <= 0)
        return false;
    zombie_reaper();
    if (!QorChildIsRecorded(childPid))
        return false;
    if (!page)
        return true; // left to itself
    const int64_t now = MonotonicMsec();
    const int64_t since = now - seenAt;
    seenAt = now;
    if (seenBeat != page->beat) {
        seenBeat = page->beat;
        stoodStill = 0;
        return true;
    }
    // A parent that itself was stopped must not take that time for its child's.
    stoodStill += since < LONGEST_LOOK ? since : LONGEST_LOOK;
    if (stoodStill > gbiForkStandstill)
        QorKillChild(childPid);
    return true;
}

void QorForgetFork() {
    constexpr timespec PAUSE = {0, POLL_MSEC * NSEC_PER_MSEC};
    for (int64_t waited = 0; waited < LONGEST_END && QorForkedChildLives(); waited += POLL_MSEC) {
        QorKillChild(childPid);
        nanosleep(&PAUSE, nullptr);
    }
    if (plan.file >= 0 && page && page->state != FORK_DONE && ftruncate(plan.file, 0) != 0) {
        // it stays cut off
    }
    QorLeaveFork();
}

void QorLeaveFork() {
    Unmap();
    qor_close_handle(&plan.file);
    if (!QorChildIsRecorded(childPid))
        childPid = 0;
}

void QorTendFork() {
    if (page && !QorForkedChildLives())
        QorForgetFork();
}
