#include "platforms/forked_child.h"

#include "Child.h"
#include "platforms/linux.h"

#include <algorithm>
#include <atomic>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <fstream>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>

namespace {

// What a copy reports of itself.
struct Report {
    bool fileOpen, otherOpen, canOpen, handlesSignals;
    int deathSignal, priority;
    std::atomic<bool> begun, released; // the second by the parent
};
Report *report;
int keptFile, otherFile;
char *statistics; // memory that other processes read

// Makes a copy, which does `walk` and sleeps as a walk's thread does after it, while the parent does `look`.
QorForkState RunCopy(void (*walk)(), void (*look)()) {
    int32_t pipe[2], error = 0;
    EXPECT_TRUE(qor_create_pipe(pipe));
    keptFile = open("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(QorPrepareFork({keptFile,
                                {pipe[0], pipe[1]},
                                sizeof(Report),
                                [] { return true; },
                                [] { return false; },
                                [] { return 0; },
                                [](QorForkState, int32_t, const void *) {},
                                false}));
    report = static_cast<Report *>(QorForkResult());
    if (QorForkHere() == 0)
        for (walk();;)
            pause();
    qor_close_handle(&pipe[1]);
    look();
    while (!qor_can_read_internal(pipe[0], 1))
        EXPECT_TRUE(QorForkedChildLives());
    static Report kept;
    memcpy(static_cast<void *>(&kept), report, sizeof kept);
    report = &kept;
    const QorForkState state = QorForkOutcome(&error);
    QorForgetFork();
    qor_close_pipe(pipe);
    return state;
}

void AwaitRelease() {
    for (report->begun = true; !report->released; usleep(1000))
        QorForkStep();
}

} // namespace

TEST(ForkedChild, HoldsNothingOfItsParentAndIsTheLeastOfTheMachine) {
    setpriority(PRIO_PROCESS, 0, getpriority(PRIO_PROCESS, 0) + 1); // as a JVM may have been started
    signal(SIGUSR1, [](int) {});
    otherFile = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const int shared = static_cast<int>(syscall(SYS_memfd_create, "hsperfdata_test", MFD_CLOEXEC));
    ASSERT_EQ(ftruncate(shared, 4096), 0);
    statistics = static_cast<char *>(mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED, shared, 0));
    close(shared);
    statistics[0] = 'p';
    const auto look_at_itself = [] {
        report->fileOpen = fcntl(keptFile, F_GETFD) >= 0;
        report->otherOpen = fcntl(otherFile, F_GETFD) >= 0 || fcntl(2, F_GETFD) >= 0;
        report->canOpen = open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0;
        report->priority = getpriority(PRIO_PROCESS, 0);
        prctl(PR_GET_PDEATHSIG, &report->deathSignal);
        struct sigaction action;
        sigaction(SIGUSR1, nullptr, &action);
        report->handlesSignals = action.sa_handler != SIG_DFL;
        statistics[0] = statistics[0] == 'p' ? 'c' : '?';
        AwaitRelease();
    };
    const auto look_from_outside = [] {
        std::string score;
        while (!report->begun && QorForkedChildLives())
            usleep(1000);
        std::ifstream("/proc/" + std::to_string(QorForkedPid()) + "/oom_score_adj") >> score;
        EXPECT_EQ(score, "1000") << "the first to be killed when memory runs out";
        report->released = true;
    };
    EXPECT_EQ(RunCopy(look_at_itself, look_from_outside), FORK_DONE);
    EXPECT_TRUE(report->fileOpen && !report->otherOpen && !report->canOpen && !report->handlesSignals);
    EXPECT_EQ(report->deathSignal, SIGKILL) << "its parent's end is its own";
    EXPECT_EQ(report->priority, std::min(getpriority(PRIO_PROCESS, 0) + 5, 19));
    EXPECT_EQ(statistics[0], 'p') << "the JVM's statistics are its own";
    munmap(statistics, 4096);
    close(otherFile);
}

std::atomic<int> calls; // of the application's handlers

// Whatever an application does with its children's signal, and however it waits for its children: the copy
// isn't one of them, and the agent collects it.
TEST(ForkedChild, IsUnseenByTheApplication) {
    pthread_atfork([] { calls++; }, [] { calls++; }, [] { calls++; });
    const auto look = [] {
        report->released = true;
        siginfo_t end = {}; // its end, which the agent hasn't seen yet
        EXPECT_EQ(waitid(P_PID, static_cast<id_t>(QorForkedPid()), &end, WEXITED | WNOWAIT | __WALL), 0);
        EXPECT_EQ(waitpid(-1, nullptr, 0), -1) << "the application sees it";
    };
    for (const auto handler : {SIG_DFL, SIG_IGN, static_cast<void (*)(int)>([](int) { calls++; })}) {
        signal(SIGCHLD, handler);
        EXPECT_EQ(RunCopy(AwaitRelease, look), FORK_DONE);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG | __WALL), -1) << "it is left";
        EXPECT_EQ(signal(SIGCHLD, SIG_DFL), handler);
    }
    EXPECT_EQ(calls, 0);
}

TEST(ForkedChild, CorrectsTheIdsThatOldLibrariesKeep) {
    int32_t old[] = {7, 12, 12, 10, 12, 10};
    EXPECT_FALSE(QorCorrectKeptIds(old, 3, {12, 10}, {99, 99})) << "the pair isn't whole";
    EXPECT_TRUE(QorCorrectKeptIds(old, 6, {12, 10}, {99, 99}));
    EXPECT_EQ(std::vector<int32_t>(old, old + 6), (std::vector<int32_t>{7, 12, 99, 99, 12, 10}));
}
