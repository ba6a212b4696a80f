#include "platforms/forked_child.h"

#include "Descriptors.h"
#include "platforms/linux.h"

#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>

namespace {

bool over = true;
int finishError;

// What a copy tells of itself.
struct Report {
    bool finished, fileOpen, otherOpen, canOpen;
    int coreLimit, signals;
};
Report *report;
int keptFile, otherFile;

int32_t Finish() {
    report->finished = true;
    return finishError;
}

// Forks; the copy does `walk` and sleeps as a walk's thread does after it. The outcome and its error.
std::pair<QorForkState, int32_t> RunCopy(void (*walk)()) {
    int32_t pipe[2], error = 0;
    EXPECT_TRUE(qor_create_pipe(pipe));
    keptFile = open("/dev/null", O_WRONLY | O_CLOEXEC);
    EXPECT_TRUE(QorPrepareFork({keptFile, {pipe[0], pipe[1]}, sizeof(Report), [] { return over; }, Finish}));
    report = static_cast<Report *>(QorForkResult());
    if (QorForkHere() == 0) {
        walk();
        for (;;)
            pause();
    }
    qor_close_handle(&pipe[1]);
    while (!qor_can_read_internal(pipe[0], 1))
        EXPECT_TRUE(QorForkedChildLives());
    static Report kept;
    memcpy(&kept, report, sizeof kept);
    report = &kept;
    const QorForkState state = QorForkOutcome(&error);
    QorForgetFork();
    qor_close_pipe(pipe);
    return {state, error};
}

void Step() {
    for (int i = 0; i < 1000; i++)
        QorForkStep();
}

} // namespace

TEST(ForkedChild, EndsAsItsWalkDoes) {
    const int descriptors = OpenDescriptors();
    struct Case {
        const char *what;
        void (*walk)();
        QorForkState state;
        int32_t error;
    };
    gbiForkStandstill = 300;
    const Case cases[] = {
        {"to the end", Step, FORK_DONE, 0},
        {"a file that can't be written", [] { finishError = ENOSPC; }, FORK_FAILED, ENOSPC},
        {"a fault", [] { raise(SIGSEGV); }, FORK_FAULT, 0},
        {"asleep, with something missing", [] { over = false; }, FORK_STUCK, 0},
        {"killed", [] { raise(SIGKILL); }, FORK_RUNNING, 0},
        {"an abort like the JVM's own", [] { abort(); }, FORK_RUNNING, 0},
    };
    for (const Case &c : cases) {
        const auto [state, error] = RunCopy(c.walk);
        EXPECT_EQ(state, c.state) << c.what;
        EXPECT_EQ(error, c.error) << c.what;
        EXPECT_EQ(report->finished, c.state == FORK_DONE || c.state == FORK_FAILED) << c.what;
    }
    gbiForkStandstill = 30000;
    EXPECT_EQ(OpenDescriptors(), descriptors);
}

TEST(ForkedChild, HoldsNothingOfItsParent) {
    signal(SIGUSR1, [](int) {});
    otherFile = open("/dev/null", O_RDONLY | O_CLOEXEC);
    const auto [state, error] = RunCopy([] {
        rlimit core = {1, 1};
        report->fileOpen = fcntl(keptFile, F_GETFD) >= 0;
        report->otherOpen = fcntl(otherFile, F_GETFD) >= 0 || fcntl(2, F_GETFD) >= 0;
        report->canOpen = open("/dev/null", O_RDONLY | O_CLOEXEC) >= 0;
        getrlimit(RLIMIT_CORE, &core);
        report->coreLimit = static_cast<int>(core.rlim_cur);
        struct sigaction action;
        for (int signal : {SIGTERM, SIGCHLD, SIGUSR1}) {
            sigaction(signal, nullptr, &action);
            report->signals += action.sa_handler != SIG_DFL;
        }
    });
    EXPECT_EQ(state, FORK_DONE) << error;
    EXPECT_TRUE(report->fileOpen);
    EXPECT_FALSE(report->otherOpen);
    EXPECT_FALSE(report->canOpen);
    EXPECT_EQ(report->coreLimit, 0);
    EXPECT_EQ(report->signals, 0) << "handlers of the parent's";
    close(otherFile);
}
