// Real faults, each in a process of its own: the guard around single calls, and the agent's own handler,
// which only these tests arm.
#include "Child.h"
#include "jvmti/changes/trycatch.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/linux.h"
#include "platforms/qorsysinfo.h"
#include "qoragent/fault_handler.h"
#include "qoragent/requests/channel.h"
#include "qoragent/startup.h"
#include "qoragent/worker.h"
#include "qorrequest.h"
#include "qorsettings.h"

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

// ---- The guard: the JVM's handler asks its table for the action before it ----

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

// ---- The agent's handler ----

// In the process of a case: the handler armed over one of the JVM's.
void Arm() {
    struct sigaction jvms = {};
    jvms.sa_sigaction = JvmsOwn;
    jvms.sa_flags = SA_SIGINFO;
    init_cpu(); // for thread ids
    QorPrepareFaultHandler({QorReplaceWorker, QorWorkerGone});
    for (int sig : {SIGSEGV, SIGBUS})
        sigaction(sig, &jvms, nullptr);
    sigaction(SIGSEGV, &segv_qor, &segv_old);
    sigaction(SIGBUS, &busv_qor, &busv_old);
    static char page[PAGEBUF_SIZE];
    pagebuf = page;
    offsetind = 6;
    ch_pid = qor_current_thread_id();
    QorOpenChannel();
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

// A request that faults is answered with what there is, and the worker is back at its loop, with the signals
// unblocked for the next time.
TEST(OwnHandler, AFaultOfTheWorkerEndsTheRequest) {
    for (void (*volatile fault)() : {Segv, Bus})
        EXPECT_EQ(InChild([fault] {
                      Arm();
                      static volatile int landed;
                      if (sigsetjmp(sig_jump, 1) != 0)
                          landed = landed + 1;
                      if (landed < 2) {
                          sigJumpThread = qor_current_thread_id(); // a request is being served on it
                          qorlocks[1] = 1;
                          fault();
                      }
                      EXPECT_EQ(landed, 2);
                      EXPECT_EQ(qorlocks[1], 0);
                      EXPECT_EQ(qor_wait_for_child_reponse(1), 1);
                      if (testing::Test::HasFailure())
                          return;
                      sigJumpThread = 0;
                      fault(); // outside its loop it has no way back: the JVM's
                  }),
                  JVM_HANDLER);
}
