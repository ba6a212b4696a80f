#include "platforms/reaper.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

std::atomic<int> earlierCalls, earlierPid;

pid_t ChildThatExits(int code) {
    const pid_t child = fork();
    if (child == 0)
        _exit(code);
    return child;
}

bool IsZombieOfOurs(pid_t pid) {
    siginfo_t info = {};
    return waitid(P_PID, static_cast<id_t>(pid), &info, WEXITED | WNOWAIT) == 0 && info.si_pid == pid;
}

} // namespace

// Recorded children vanish, by the signal or by the request; others keep their status, and the application's
// own handler still hears of each.
TEST(Reaper, CollectsRecordedChildrenOnly) {
    struct sigaction own = {};
    own.sa_sigaction = [](int, siginfo_t *info, void *) {
        earlierCalls++;
        earlierPid = info->si_pid;
    };
    own.sa_flags = SA_SIGINFO;
    sigaction(SIGCHLD, &own, nullptr);

    int gate[2], status = 0;
    ASSERT_EQ(pipe(gate), 0);
    const pid_t recorded = fork();
    if (recorded == 0) {
        char byte;
        _exit(read(gate[0], &byte, 1) == 1 ? 3 : 4);
    }
    ASSERT_TRUE(QorRecordChild(recorded));
    ASSERT_TRUE(QorRecordChild(1 << 30)); // the handler must not chain to itself
    struct sigaction installed;
    sigaction(SIGCHLD, nullptr, &installed);
    EXPECT_EQ(installed.sa_flags & SA_RESTART, 0) << "the application's calls are interrupted as before";

    const pid_t foreign = ChildThatExits(7);
    ASSERT_TRUE(IsZombieOfOurs(foreign));
    while (earlierCalls == 0)
        usleep(1000);
    EXPECT_EQ(earlierPid, foreign);
    EXPECT_EQ(zombie_reaper(), 0) << "the recorded one still runs";
    EXPECT_EQ(waitpid(foreign, &status, 0), foreign);
    EXPECT_EQ(WEXITSTATUS(status), 7);

    ASSERT_EQ(write(gate[1], "x", 1), 1);
    while (kill(recorded, 0) == 0)
        usleep(1000);
    EXPECT_EQ(waitpid(recorded, &status, 0), -1) << "it was not collected";

    for (int i = 0; i < 64; i++)
        EXPECT_TRUE(QorRecordChild(1 << 30)) << "a place was not given back, " << i;
    EXPECT_FALSE(QorRecordChild(1 << 30));
    zombie_reaper();
    EXPECT_TRUE(QorRecordChild(1 << 30)) << "no such child";
}

// An application that ignores its children's signals waits for none: no zombie may stay.
TEST(Reaper, IgnoredChildrenStayIgnored) {
    signal(SIGCHLD, SIG_IGN);
    EXPECT_TRUE(QorRecordChild(1 << 30));
    const pid_t child = ChildThatExits(0);
    while (kill(child, 0) == 0)
        usleep(1000);
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG), -1);
}
