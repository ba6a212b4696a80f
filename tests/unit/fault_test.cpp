// Real faults under the guard around single calls, each in its own process.
#include "Child.h"
#include "jvmti/trycatch.h"
#include "platforms/findsymLinSolHPIA64.h"

#include <csignal>
#include <sys/mman.h>
#include <thread>

namespace {

constexpr int JVM_HANDLER = 42; // what the process ends with in the JVM's handler

void Segv() {
    static void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char *>(page);
}

void Bus() {
    const int fd = memfd_create("short", MFD_CLOEXEC);
    *static_cast<volatile char *>(mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0)); // past its end
}

void JvmsOwn(int, siginfo_t *, void *) {
    _exit(JVM_HANDLER);
}

void JvmsOwnBus(int signal, siginfo_t *info, void *context) {
    JvmsOwn(signal, info, context);
}

// The JVM's handler asks its table for the action before it.
struct sigaction table[NSIG];

void StartChaining() {
    struct sigaction action = {};
    action.sa_sigaction = [](int sig, siginfo_t *info, void *context) {
        table[sig].sa_sigaction(sig, info, context);
    };
    action.sa_flags = SA_SIGINFO;
    for (int sig : {SIGSEGV, SIGBUS})
        sigaction(sig, &action, nullptr);
    table[SIGSEGV].sa_sigaction = JvmsOwn;
    table[SIGBUS].sa_sigaction = JvmsOwnBus;
    nsymbols[JTI_OLD_ACTIONS] = reinterpret_cast<uint64_t>(table);
    sig_hack = 1;
    trycatch_init();
    trycatch_init(); // a second start finds the JVM's own handlers to put back all the same
}

// A guarded call as the agent makes them: the state it ends in.
int32_t Guarded(void (*call)()) {
    TRYCATCH_OPEN();
    if (tryState == TRY_RUNNING)
        call();
    const int32_t end = tryState;
    tryState = TRY_OFF;
    return end;
}

} // namespace

TEST(GuardedCall, FaultsComeBackAsAFailedResult) {
    EXPECT_EQ(InChild([] {
                  StartChaining();
                  for (int round = 0; round < 3; round++) {
                      EXPECT_EQ(Guarded(Segv), TRY_FAULTED);
                      EXPECT_EQ(Guarded(Bus), TRY_FAULTED);
                      EXPECT_EQ(Guarded([] {}), TRY_RUNNING);
                  }
                  trycatch_Cleanup();
                  EXPECT_EQ(table[SIGSEGV].sa_sigaction, JvmsOwn);
                  EXPECT_EQ(table[SIGBUS].sa_sigaction, JvmsOwnBus);
              }),
              0);
}

// Outside a guard, on another thread while the guard is up, and after the end: the JVM's handler decides.
TEST(GuardedCall, OtherFaultsReachTheJvm) {
    void (*const faults[])() = {Segv, [] { Guarded([] { std::thread(Bus).join(); }); },
                                [] { trycatch_Cleanup(), Guarded(Segv); }};
    for (auto fault : faults)
        EXPECT_EQ(InChild([fault] { StartChaining(), Guarded(Segv), fault(); }), JVM_HANDLER);
}
