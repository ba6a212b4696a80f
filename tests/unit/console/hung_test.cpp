// Reading a JVM from outside: what is read of /proc, what observations mean, and that no memory of a target,
// however odd, leads the reader astray.
#include "base/locked_file.h"
#include "base/process.h"
#include "outside/thread_sampler.h"
#include "show/render_hung.h"

#include <atomic>
#include <csignal>
#include <gtest/gtest.h>
#include <poll.h>
#include <random>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size); // fuzz/outside.cpp

using namespace qorctl::outside;
using qorctl::ReadLocked;

namespace {

TEST(Outside, ProcTexts) {
    const auto mapped = FindLibjvm("7f00-7f10 r--p 00000000 08:01 12 /opt/libjvm.so.x\n"
                                   "7f10-7f20 r--p 00001000 08:01 13 /opt/server/libjvm.so\n"
                                   "7f20-7f30 r--p 00000000 fd:02 13 /opt/a b/server/libjvm.so (deleted)\n");
    ASSERT_TRUE(mapped);
    EXPECT_TRUE(mapped->first == 0x7f20 && mapped->inode == 13 && mapped->major == 0xfd);
    EXPECT_EQ(mapped->path, "/opt/a b/server/libjvm.so");
}

// A thread that is stopped for its registers runs on as if nothing had been. A signal may be what it stops
// for: it gets it then. The next one is sent when the one before has arrived.
TEST(Outside, StopsOneThreadForAMoment) {
    static std::atomic<int> *arrived;
    arrived = static_cast<std::atomic<int> *>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0));
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL);
        signal(SIGUSR1, [](int) { ++*arrived; });
        for (*arrived = 1;;) {
        }
    }
    while (*arrived == 0)
        poll(nullptr, 0, 1);
    std::atomic<bool> ends{false};
    int sent = 1;
    std::thread sender([&] {
        for (; !ends; std::this_thread::yield())
            if (*arrived == sent) {
                ++sent;
                kill(child, SIGUSR1);
            }
    });
    std::string problem;
    int stopped = 0; // on a busy machine it doesn't stop in time now and then
    for (int i = 0; i < 300; ++i) {
        const auto moment = StopAndSample(child, &problem);
        stopped += moment && moment->registers.pc != 0 && moment->stack.size() > 1000;
    }
    ends = true;
    sender.join();
    for (int waited = 0; *arrived != sent && waited < 10000; ++waited)
        poll(nullptr, 0, 1);
    EXPECT_EQ(*arrived, sent) << "a signal is lost";
    EXPECT_GT(stopped, 0) << problem;
    EXPECT_EQ(waitpid(child, nullptr, WNOHANG | WUNTRACED), 0);
    kill(child, SIGKILL);
    waitid(P_PID, static_cast<id_t>(child), nullptr, WEXITED | WNOWAIT);
    EXPECT_EQ(ReadStopState(child).stop, Stop::GONE); // not reaped yet
    EXPECT_FALSE(StopAndSample(child, &problem));
    waitpid(child, nullptr, 0);
    munmap(arrived, 4096);
}

// A file of /proc may be locked for ever: here, as the process that reads it for us is stopped.
TEST(Outside, ALockedFileIsGivenUp) {
    const auto read = [] { return ReadLocked("/proc/self/comm", 100); };
    ASSERT_EQ(read(), "console_tests\n");
    const std::string children =
        qorctl::ReadFile("/proc/self/task/" + std::to_string(getpid()) + "/children", 100);
    const pid_t reader = atoi(children.c_str());
    ASSERT_GT(reader, 0);
    kill(reader, SIGSTOP);
    EXPECT_EQ(read(), std::nullopt);
    EXPECT_EQ(read(), "console_tests\n");
}

TEST(Outside, VerdictsRestOnBothEndsOfALook) {
    Observation seen;
    const std::tuple<const char *, int, int> threads[] = {
        {"works", JAVA_IN_JAVA, JAVA_IN_JAVA},
        {"comes", JAVA_IN_NATIVE, JAVA_IN_JAVA},
        {"goes", JAVA_IN_VM, JAVA_BLOCKED},
        {"sits", JAVA_BLOCKED, JAVA_BLOCKED},
        {"fills", JAVA_IN_VM, JAVA_IN_VM},
        {"ends", JAVA_IN_JAVA, 0},
        {"Attach Listener", JAVA_IN_NATIVE, JAVA_IN_NATIVE}}; // waits for a caller
    for (const auto &[name, first, last] : threads) {
        SeenThread &thread = seen.threads.emplace_back();
        thread.name = name;
        thread.state = first;
        thread.later_state = last;
        thread.share = 0.9;
    }
    const auto expect = [&](std::optional<int> phase, uint64_t later, Verdict verdict,
                            const std::string &concerned) {
        seen.first.phase = seen.last.phase = phase;
        seen.first.counter = 5;
        seen.last.counter = later;
        const Finding finding = Judge(seen);
        EXPECT_EQ(finding.verdict, verdict) << VerdictSentence(seen, finding);
        std::string names;
        for (const size_t i : finding.threads)
            names += seen.threads[i].name + ",";
        EXPECT_EQ(names, concerned);
    };
    expect(SAFEPOINT_BEGUN, 5, Verdict::NO_SAFEPOINT, "works,fills,");
    expect(SAFEPOINT_BEGUN, 7, Verdict::RUNS, "");
    expect(std::nullopt, 5, Verdict::UNKNOWN, "works,");
    seen.unanswered = true;
    expect(NO_SAFEPOINT, 5, Verdict::NOBODY_LISTENS, "Attach Listener,");
    seen.unanswered = false;
    seen.threads.back().pending_monitor = 1;
    expect(NO_SAFEPOINT, 5, Verdict::NOBODY_LISTENS, "Attach Listener,");
}

// What isn't there is unknown, and what is there is anything: every walk ends, and none reads out of bounds.
// The fuzzer does the same for longer.
TEST(Outside, EndsOnAnyMemory) {
    std::mt19937_64 random(1);
    for (int i = 0; i < 200; ++i) {
        std::vector<uint8_t> input(1024);
        std::generate(input.begin(), input.end(), random);
        EXPECT_EQ(LLVMFuzzerTestOneInput(input.data(), input.size()), 0);
    }
}

} // namespace
