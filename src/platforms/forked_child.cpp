#include "forked_child.h"

#include "linux.h"
#include "memory_maps.h"
#include "own_memory.h"

#include <cerrno>
#include <csignal>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

int32_t gbiForkStandstill = 30000, gbiForkSleep = 1000;
bool qorInForkedChild;
volatile uint64_t *qorForkSteps;

namespace {

constexpr size_t STACK_SIZE = 64 * 1024, BODY_STACK_SIZE = 8 << 20;
constexpr int64_t POLL_MSEC = 2;
constexpr int QUIET_POLLS = 25; // sleeping and no step: the walk is over
constexpr int64_t NSEC_PER_MSEC = 1000 * 1000;
constexpr int64_t MSEC_PER_SEC = 1000;
// What one look counts at most: whoever looks may have been held up together with what it looks at.
constexpr int64_t LONGEST_PARENT_LOOK = 2000, LONGEST_WATCHER_LOOK = 100;
constexpr int64_t LONGEST_END = 10000; // for a killed copy to be gone
constexpr int64_t SHORT_END = 100;     // the same at the agent's end
constexpr int CHILD_PRIORITY = 5;      // added to the JVM's
constexpr int EXIT_FAILURE_CODE = 3, EXIT_MOVED_CODE = 4;
constexpr int NO_EXIT_SIGNAL = 0; // and nothing shared
constexpr int MAX_STATISTICS = 4;
constexpr uint64_t LARGEST_STATISTICS = 1 << 20;
constexpr long CLOSE_RANGE_CALL = 436; // younger than the oldest headers that this builds with
constexpr int KEPT_DESCRIPTORS = 4;

struct Page {
    std::atomic<uint64_t> beat; // moves while the copy runs at all
    volatile uint64_t steps;
    std::atomic<int32_t> state, error;
};

QorForkPlan plan = {-1, {-1, -1}, 0, nullptr, nullptr, nullptr, nullptr};
Page *page; // with the result after it
size_t pageSize;
char *watcherStack, *bodyStack;
std::atomic<pid_t> childPid; // of the last copy
std::atomic<pid_t> livePid;  // the same until it has been collected
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
    if (bodyStack)
        munmap(bodyStack, BODY_STACK_SIZE);
    page = nullptr;
    watcherStack = bodyStack = nullptr;
    qorForkSteps = nullptr;
}

bool NoteStatistics(const QorMapping &mapping, void *) {
    const uint64_t size = mapping.end - mapping.start;
    if (mapping.shared && mapping.writable && size <= LARGEST_STATISTICS &&
        strstr(mapping.name, "hsperfdata_") && statisticsCount < MAX_STATISTICS)
        statistics[statisticsCount++] = {reinterpret_cast<char *>(mapping.start), static_cast<size_t>(size)};
    return true;
}

// System calls of the watching thread while the other one walks. It has no thread data, so it must
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

int64_t MonotonicMsec() {
    timespec now = {};
    BareCall(SYS_clock_gettime, CLOCK_MONOTONIC, reinterpret_cast<long>(&now), 0, 0);
    return now.tv_sec * MSEC_PER_SEC + now.tv_nsec / NSEC_PER_MSEC;
}

// Milliseconds since the last look, at most `longest`.
int64_t SinceLook(int64_t *last, int64_t longest) {
    const int64_t now = MonotonicMsec(), since = now - *last;
    *last = now;
    return since < longest ? since : longest;
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
    const int code = state == FORK_DONE ? 0 : state == FORK_MOVED ? EXIT_MOVED_CODE : EXIT_FAILURE_CODE;
    for (;;)
        syscall(SYS_exit_group, code);
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

void CorrectKeptIds(pid_t parentThread) {
    constexpr size_t NUMBERS = 256; // the pair is 720 bytes into the structure, the structure is larger
    auto *memory = reinterpret_cast<int32_t *>(pthread_self());
    const auto pid = static_cast<pid_t>(syscall(SYS_getpid));
    QorCorrectKeptIds(memory, NUMBERS, {parentThread, parentPid}, {pid, pid});
}

// The copy from its first moment to where the walk goes on.
void BecomeChild(pid_t parentThread) {
    qorInForkedChild = true;
    CorrectKeptIds(parentThread);
    ResetSignals();
    if (prctl(PR_SET_PDEATHSIG, SIGKILL) != 0 || getppid() != parentPid)
        Leave(FORK_FAILED, ESRCH);
    prctl(PR_SET_NAME, "QORD Heap Dump");
    OfferToTheKiller();
    setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + CHILD_PRIORITY); // 19 at most
    walkerStat = open("/proc/thread-self/stat", O_RDONLY | O_CLOEXEC);
    if (walkerStat < 0)
        Leave(FORK_FAILED, errno);
    int kept[KEPT_DESCRIPTORS] = {plan.file, plan.pipe[1], walkerStat, QorKeepOwnMemory()};
    CloseAllBut(kept);
    prctl(PR_SET_DUMPABLE, 0); // no core, which a limit of 0 doesn't keep from a program that takes cores
    Limit(RLIMIT_NOFILE, 0);   // what is open stays; the JVM's code can't open anything
    TakeStatisticsApart();
    constexpr int THREAD = CLONE_VM | CLONE_FS | CLONE_FILES | CLONE_SIGHAND | CLONE_THREAD | CLONE_SYSVSEM;
    if (clone(start_forked_thread, watcherStack + STACK_SIZE, THREAD, nullptr) < 0)
        Leave(FORK_FAILED, errno);
}

// QorForkNow's, in the copy.
struct Body {
    int32_t (*run)();
    pid_t parentThread;
};

int RunBody(void *copied) {
    const Body &body = *static_cast<Body *>(copied);
    BecomeChild(body.parentThread);
    const int32_t error = body.run();
    Leave(error == 0 ? FORK_DONE : error == FORK_NOT_STILL ? FORK_MOVED : FORK_FAILED, error);
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

// The copy's number is its own until it has been collected, by this thread or, if the application waits for
// children of any kind, by that: which is looked for first.
void Kill() {
    zombie_reaper();
    if (livePid)
        kill(livePid, SIGKILL);
}

void NoteCopy(pid_t pid) {
    if (pid < 0)
        forkError = errno;
    else
        livePid = pid;
    childPid = pid;
}

void GiveBack() {
    int32_t error = 0;
    const QorForkState state = QorForkOutcome(&error);
    if (state != FORK_NONE && plan.ended)
        plan.ended(state, error, page + 1);
    if (plan.file >= 0 && page && state != FORK_DONE && ftruncate(plan.file, 0) != 0) {
        // nothing more can be done: the truncated file stays
    }
    Unmap();
    qor_close_handle(&plan.file);
}

} // namespace

// The steps alone can't tell the end from a long page fault, and the state alone can't tell it from a lock. A
// thread that only computes is never given up: a table of all tags that grows takes minutes.
int start_forked_thread(void *) {
    uint64_t steps = 0, ticks = 0;
    int quiet = 0;
    int64_t lastLook = MonotonicMsec(), asleep = 0, standstill = 0;
    for (;;) {
        timespec pause = {0, POLL_MSEC * NSEC_PER_MSEC};
        BareCall(SYS_nanosleep, reinterpret_cast<long>(&pause), 0, 0, 0);
        page->beat++;
        const int64_t passed = SinceLook(&lastLook, LONGEST_WATCHER_LOOK);
        const uint64_t now = page->steps;
        if (now != steps) {
            steps = now;
            quiet = 0;
            asleep = standstill = 0;
            continue;
        }
        const WalkerLook look = LookAtWalker();
        standstill = look.ticks == ticks ? standstill + passed : 0;
        ticks = look.ticks;
        const bool sleeps = look.state == 'S' && !plan.isWriting();
        const bool over = sleeps && !plan.ownStack && plan.walkCanBeOver();
        quiet = over ? quiet + 1 : 0;
        if (quiet >= QUIET_POLLS)
            break;
        if (sleeps && !over)
            asleep += passed;
        if (asleep > gbiForkSleep || standstill > gbiForkStandstill)
            Leave(FORK_STUCK, 0);
    }
    const int32_t error = plan.finish();
    Leave(error ? FORK_FAILED : FORK_DONE, error);
}

bool QorCorrectKeptIds(int32_t *memory, size_t count, const int32_t (&parent)[2], const int32_t (&child)[2]) {
    for (size_t i = 0; i + 1 < count; i++) {
        if (memcmp(memory + i, parent, sizeof parent) != 0)
            continue;
        memcpy(memory + i, child, sizeof child);
        return true;
    }
    return false;
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
    if (plan.ownStack)
        bodyStack = static_cast<char *>(MapMemory(BODY_STACK_SIZE, MAP_PRIVATE | MAP_NORESERVE));
    if (!page || !watcherStack || (plan.ownStack && !bodyStack) ||
        !QorVisitMappings(NoteStatistics, nullptr)) {
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
    const auto caller = static_cast<pid_t>(syscall(SYS_gettid));
    const auto pid = static_cast<pid_t>(
        syscall(SYS_clone, static_cast<long>(NO_EXIT_SIGNAL), nullptr, nullptr, nullptr, nullptr));
    if (pid == 0)
        BecomeChild(caller);
    else
        NoteCopy(pid);
    return pid;
}

pid_t QorForkNow(int32_t (*body)()) {
    Body copy = {body, static_cast<pid_t>(syscall(SYS_gettid))};
    const pid_t pid = clone(RunBody, bodyStack + BODY_STACK_SIZE, NO_EXIT_SIGNAL, &copy);
    NoteCopy(pid);
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
    zombie_reaper();
    if (!livePid)
        return false;
    if (!page)
        return true; // killed, and not yet gone
    const int64_t since = SinceLook(&seenAt, LONGEST_PARENT_LOOK);
    if (seenBeat != page->beat) {
        seenBeat = page->beat;
        stoodStill = 0;
        return true;
    }
    stoodStill += since;
    if (stoodStill > gbiForkStandstill)
        Kill();
    return true;
}

void QorForgetFork() {
    constexpr timespec PAUSE = {0, POLL_MSEC * NSEC_PER_MSEC};
    const int64_t end = MonotonicMsec() + LONGEST_END;
    while (QorForkedChildLives() && MonotonicMsec() < end) {
        Kill();
        nanosleep(&PAUSE, nullptr);
    }
    GiveBack();
}

void QorEndFork() {
    constexpr timespec PAUSE = {0, POLL_MSEC * NSEC_PER_MSEC};
    Kill();
    for (const int64_t end = MonotonicMsec() + SHORT_END;
         zombie_reaper() == 0 && livePid && MonotonicMsec() < end;)
        nanosleep(&PAUSE, nullptr);
    GiveBack();
}

void QorTendFork() {
    if (!QorForkedChildLives() && page)
        QorForgetFork();
}

int32_t zombie_reaper() {
    if (!livePid)
        return 0;
    const pid_t ended = waitpid(livePid, nullptr, WNOHANG | __WALL);
    if (ended != 0 && !(ended < 0 && errno == EINTR))
        livePid = 0; // or no child of this process any more
    return ended;
}
