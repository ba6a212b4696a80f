// Threads held by signal: whatever comes in between, none stays, and no signal of the host's is lost.
#include "Child.h"
#include "qorthreads/qorthreads.h"
#include "qorthreads/sig_susp_handler.h"

#include <atomic>
#include <cerrno>
#include <csignal>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <thread>

namespace {

std::atomic<int> foreign;
std::atomic<bool> inJava, foreignSawItself;

int32_t OwnId() {
    return static_cast<int32_t>(syscall(SYS_gettid));
}

void Pause() {
    const timespec short_time = {0, 200 * 1000};
    nanosleep(&short_time, nullptr);
}

bool Soon(const std::function<bool()> &state) {
    const int64_t end = QorMonotonicNsec() + int64_t{10} * 1000 * 1000 * 1000;
    bool reached = state();
    for (; !reached && QorMonotonicNsec() < end; reached = state())
        Pause();
    return reached;
}

void HostHandler(int signal, siginfo_t *, void *) {
    sigset_t mask;
    sigprocmask(SIG_SETMASK, nullptr, &mask);
    foreignSawItself = sigismember(&mask, signal) == 1 && sigismember(&mask, SIGUSR1) == 1 &&
                       sigismember(&mask, SIGUSR2) == 0;
    foreign++;
    errno = EDOM;
}

// A thread that does nothing, over and over.
struct Target {
    Target() {
        while (id == 0)
            Pause();
    }
    ~Target() {
        ended = true;
        thread.join();
    }
    QorHold Ask() const { return qor_suspend_thread(reinterpret_cast<uint64_t>(this), id, HOLD_NULL_SP); }
    // Its hold; on a busy machine it may come too late a few times.
    QorHold Stop() const {
        QorHold hold = 0;
        QorRegisters at;
        EXPECT_TRUE(Soon([&] {
            QorTendHolds();
            hold = Ask();
            return QorAwaitHeld(hold, &at);
        }));
        return hold;
    }
    bool MovesOn() const {
        const int64_t before = steps;
        return Soon([&] { return steps > before + 1; });
    }

    std::atomic<int32_t> id{0};
    std::atomic<int64_t> steps{0};
    std::atomic<bool> ended{false};
    std::thread thread{[this] {
        for (id = OwnId(); !ended; steps++)
            Pause();
    }};
};

bool InJava(uint64_t, int32_t) {
    return inJava;
}

constexpr QorHoldTests TESTS = {InJava, InJava,
                                [](uint64_t, char *out, size_t size) { snprintf(out, size, "worker-1"); }};

bool OursInForce() {
    struct sigaction now;
    sigaction(HOLD_SIGNAL, nullptr, &now);
    return now.sa_sigaction == sig_susp_handler;
}

// Once every hold is over, the action before is in force again.
bool Settled() {
    return Soon([] {
        QorTendHolds();
        return QorSlotsAllFree() && !OursInForce();
    });
}

void UseHandler(void (*handler)(int, siginfo_t *, void *)) {
    struct sigaction action = {};
    action.sa_sigaction = handler; // null is SIG_DFL
    action.sa_flags = handler ? SA_SIGINFO : 0;
    sigaddset(&action.sa_mask, SIGUSR1);
    sigaction(HOLD_SIGNAL, &action, nullptr);
}

struct HeldThreads : testing::Test {
    HeldThreads() {
        UseHandler(HostHandler);
        inJava = true;
        foreign = 0;
        EXPECT_TRUE(QorPrepareHolds(&TESTS));
        EXPECT_FALSE(OursInForce());
    }
    ~HeldThreads() override {
        EXPECT_TRUE(Settled());
        UseHandler(nullptr);
    }
};

} // namespace

TEST_F(HeldThreads, TheHostsSignalsArriveOnceReleased) {
    Target target;
    const QorHold hold = target.Stop();
    EXPECT_EQ(target.Ask(), 0U) << "asked twice";
    syscall(SYS_tgkill, getpid(), target.id.load(), HOLD_SIGNAL);
    EXPECT_TRUE(QorStillHeld(hold));
    EXPECT_EQ(foreign, 0);
    qor_resume_thread(hold);
    qor_resume_thread(hold);
    EXPECT_TRUE(Soon([] { return foreign == 1; }));
    EXPECT_TRUE(foreignSawItself) << "not the mask that the host asked for";
    EXPECT_TRUE(Settled());

    target.Stop();
    errno = ENOTTY;
    raise(HOLD_SIGNAL);
    EXPECT_EQ(errno, ENOTTY) << "the application's own";
    qor_resume_all_threads();
}

TEST_F(HeldThreads, NobodyElseIsHeld) {
    UseHandler(nullptr);
    Target target;
    rlimit limit;
    getrlimit(RLIMIT_SIGPENDING, &limit);
    const rlimit none = {0, limit.rlim_max};
    setrlimit(RLIMIT_SIGPENDING, &none);
    const uint32_t nameless = qorSuspCounts.nameless;
    QorRegisters at;
    EXPECT_FALSE(QorAwaitHeld(target.Ask(), &at)) << "the limit drops the value";
    EXPECT_TRUE(Soon([&] { return qorSuspCounts.nameless == nameless + 1; }));
    EXPECT_TRUE(Settled());
    setrlimit(RLIMIT_SIGPENDING, &limit);
    EXPECT_TRUE(target.MovesOn());

    // Never the worker, the caller that waits, nor who isn't in Java code.
    EXPECT_EQ(qor_suspend_thread(1, OwnId(), HOLD_NULL_SP), 0U);
    qorWaitingCaller = target.id.load();
    EXPECT_EQ(target.Ask(), 0U);
    qorWaitingCaller = 0;
    const QorHold hold = target.Ask();
    inJava = false;
    EXPECT_FALSE(QorAwaitHeld(hold, &at)) << "left Java code before it came";
    EXPECT_EQ(target.Ask(), 0U);
}

TEST_F(HeldThreads, AHoldEndsByItselfAndIsNotedAsSuch) {
    Target target, next;
    const QorHold hold = target.Stop();
    EXPECT_TRUE(target.MovesOn()); // the walk takes longer
    EXPECT_FALSE(QorStillHeld(hold));
    // The slot's next hold isn't the old one's to end.
    const QorHold second = next.Stop();
    EXPECT_EQ(second >> 32, hold >> 32) << "another slot";
    qor_resume_thread(hold);
    EXPECT_TRUE(QorStillHeld(second));
    EXPECT_FALSE(QorStillHeld(hold));
    qor_resume_thread(second);
    EXPECT_TRUE(next.MovesOn());
    EXPECT_EQ(foreign, 0);
}

TEST_F(HeldThreads, WhatTakesTheSignalEndsTheHolding) {
    // Who replaces the action while it is ours may call ours as the one before: nobody is held any more.
    EXPECT_EQ(InChild([] {
                  Target target;
                  const QorHold hold = target.Stop();
                  UseHandler(HostHandler);
                  qor_resume_thread(hold);
                  EXPECT_TRUE(Settled());
                  EXPECT_EQ(target.Ask(), 0U);
                  EXPECT_TRUE(Settled());
              }),
              0);
}
