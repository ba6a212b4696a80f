// Real faults, each in a process of its own: the guard around single calls, and the agent's own handler,
// which only these tests arm.
#include "LogCapture.h"
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

#include <cerrno>
#include <functional>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

constexpr int PASSED = 0, WRONG = 1, JVM_HANDLER = 42;

// Runs `body` in a process of its own, with a limit to its life, and expects that to end with this status; a
// signal that ends it counts as minus its number.
void InProcess(const std::function<void()> &body, int wanted) {
    fflush(nullptr);
    const pid_t pid = fork();
    if (pid == 0) {
        alarm(20);
        init_cpu(); // for thread ids
        body();
        _exit(testing::Test::HasFailure() ? WRONG : PASSED);
    }
    int status = 0;
    waitpid(pid, &status, 0);
    EXPECT_EQ(WIFEXITED(status) ? WEXITSTATUS(status) : -WTERMSIG(status), wanted);
}

void RunThread(const std::function<void()> &body) {
    pthread_t thread;
    const auto run = [](void *data) -> void * {
        (*static_cast<const std::function<void()> *>(data))();
        return nullptr;
    };
    ASSERT_EQ(pthread_create(&thread, nullptr, run, const_cast<std::function<void()> *>(&body)), 0);
    pthread_join(thread, nullptr);
}

void WaitFor(const std::function<bool()> &state) {
    while (!state())
        usleep(1000);
}

// A line of the system's account of a thread, without its title.
std::string StatusOf(int32_t thread, const std::string &title) {
    char path[64], line[256];
    snprintf(path, sizeof path, "/proc/self/task/%d/status", thread);
    FILE *status = fopen(path, "re");
    std::string found;
    while (status && fgets(line, sizeof line, status))
        if (strncmp(line, (title + ":\t").c_str(), title.size() + 2) == 0)
            found = std::string(line + title.size() + 2, strcspn(line + title.size() + 2, "\n"));
    if (status)
        fclose(status);
    return found;
}

char StateOf(int32_t thread) {
    return StatusOf(thread, "State")[0];
}

__attribute__((noinline)) void Segv() {
    static void *page = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    *static_cast<volatile char *>(page);
}

__attribute__((noinline)) void Bus() {
    const int fd = memfd_create("short", MFD_CLOEXEC);
    *static_cast<volatile char *>(mmap(nullptr, 4096, PROT_READ, MAP_PRIVATE, fd, 0)); // behind its end
}

__attribute__((noinline)) void Illegal() {
    __asm__ volatile("ud2");
}

// ---- The guard: the JVM has its own handler, which asks its table
// ------------------------------------------

struct sigaction table[NSIG];

void JvmsOwn(int, siginfo_t *, void *) {
    _exit(JVM_HANDLER);
}

void JvmsDispatcher(int sig, siginfo_t *info, void *context) {
    table[sig].sa_sigaction(sig, info, context);
}

void StartChaining() {
    struct sigaction action = {};
    action.sa_sigaction = JvmsDispatcher;
    action.sa_flags = SA_SIGINFO;
    for (int sig : {SIGSEGV, SIGBUS}) {
        sigaction(sig, &action, nullptr);
        table[sig].sa_sigaction = JvmsOwn;
    }
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

// ---- The agent's handler
// -----------------------------------------------------------------------------------

struct OwnHandler : testing::Test {
    // In the process of a case: the handler armed for the three signals over a handler of the JVM's.
    static void Arm() {
        struct sigaction jvms = {};
        jvms.sa_sigaction = JvmsOwn;
        jvms.sa_flags = SA_SIGINFO;
        QorPrepareFaultHandler();
        for (int sig : {SIGSEGV, SIGBUS, SIGILL})
            sigaction(sig, &jvms, nullptr);
        sigaction(SIGSEGV, &segv_qor, &segv_old);
        sigaction(SIGBUS, &busv_qor, &busv_old);
        sigaction(SIGILL, &segv_qor, nullptr);
        static char page[PAGEBUF_SIZE];
        pagebuf = page;
        offsetind = 6;
        ch_pid = qor_current_thread_id();
        prev_ch_pid = 0;
        QorOpenChannel();
    }

    // A request is in hand on this thread.
    static void InRequest() {
        sigJumpThread = qor_current_thread_id();
        qorlocks[1] = 1;
    }
};

// Expects behind `before` in the text the code of a place inside the function.
void ExpectCode(const std::string &text, const std::string &before, void (*function)()) {
    const size_t at = text.find(before + "0x");
    ASSERT_NE(at, std::string::npos) << text;
    const auto code = static_cast<uint32_t>(std::stoul(text.substr(at + before.size()), nullptr, 16));
    const auto start = static_cast<uint32_t>(reinterpret_cast<uint64_t>(function) -
                                             reinterpret_cast<uint64_t>(marker_address));
    EXPECT_LT(code - start, 256u) << text;
}

} // namespace

TEST(GuardedCall, FaultsComeBackAsAFailedResult) {
    InProcess(
        [] {
            StartChaining();
            LogCapture log(LOG_NOTE + 1);
            for (int round = 0; round < 3; round++) {
                EXPECT_EQ(Guarded(Segv), TRY_FAULTED);
                EXPECT_EQ(Guarded(Bus), TRY_FAULTED);
                EXPECT_EQ(Guarded([] {}), TRY_RUNNING);
            }
            EXPECT_EQ(log.count("Child Thread recovering from SIGSEGV"), 3);
            EXPECT_EQ(log.count("Child Thread recovering from SIGBUS"), 3);
            EXPECT_EQ(log.count("Recovering from signal 11: si_code 2"), 3) << log.text();
            trycatch_Cleanup();
            EXPECT_EQ(table[SIGSEGV].sa_sigaction, JvmsOwn);
        },
        PASSED);
}

// Outside a guard, on another thread while the guard is up, and after the end: the JVM's handler decides.
TEST(GuardedCall, OtherFaultsReachTheJvm) {
    InProcess(
        [] {
            StartChaining();
            Segv();
        },
        JVM_HANDLER);
    InProcess(
        [] {
            StartChaining();
            Guarded([] { RunThread(Bus); });
        },
        JVM_HANDLER);
    InProcess(
        [] {
            StartChaining();
            EXPECT_EQ(Guarded(Segv), TRY_FAULTED);
            trycatch_Cleanup();
            Guarded(Segv);
        },
        JVM_HANDLER);
}

// A fault that fell through leaves the JVM's handlers in place for good; the next line of the log tells of
// it.
TEST(GuardedCall, AFaultThatFellThroughEndsTheChaining) {
    InProcess(
        [] {
            StartChaining();
            LogCapture log(LOG_TRACE + 1);
            signal(SIGSEGV, SIG_IGN); // what is raised anew ends here
            tryState = TRY_RUNNING;
            trycatch_tid = pthread_self();
            RunThread([] { trycatch_Catcher(SIGSEGV, nullptr, nullptr); });
            tryState = TRY_OFF;
            EXPECT_EQ(table[SIGSEGV].sa_sigaction, JvmsOwn);
            EXPECT_EQ(table[SIGBUS].sa_sigaction, JvmsOwn);
            trycatch_LogFault();
            EXPECT_EQ(log.count("Try SET in Child: Catch thread "), 1);
            EXPECT_EQ(log.count("Unable to recover from signal 11"), 1);
            EXPECT_EQ(log.count("SignalHandler un-chained "), 1);
        },
        PASSED);
}

TEST_F(OwnHandler, AForeignThreadsFaultGoesToTheJvm) {
    for (void (*fault)() : {Segv, Bus})
        InProcess(
            [fault] {
                Arm();
                ch_pid = 1;
                fault();
            },
            JVM_HANDLER);
    // With no handler there it ends the process as it would have without the agent, and isn't met for ever.
    for (auto action : {SIG_DFL, SIG_IGN})
        InProcess(
            [action] {
                Arm();
                ch_pid = 1;
                segv_old.sa_handler = action;
                Segv();
            },
            -SIGSEGV);
}

// A request that faults is answered with what stands, and the worker is back at its loop, with the signals
// unblocked for the next time.
TEST_F(OwnHandler, AFaultOfTheWorkerEndsTheRequest) {
    for (void (*volatile fault)() : {Segv, Bus})
        InProcess(
            [fault] {
                Arm();
                LogCapture log(LOG_DETAIL + 1);
                static volatile int landed;
                if (sigsetjmp(sig_jump, 1) != 0)
                    landed = landed + 1;
                if (landed < 2) {
                    InRequest();
                    fault();
                }
                EXPECT_EQ(landed, 2);
                EXPECT_EQ(reschedule_count, 2);
                EXPECT_EQ(qorlocks[1], 0);
                ExpectCode(log.text(), "Completion Diagnostic Code ", fault);
                EXPECT_EQ(log.count(fault == Segv ? ", 1>" : ", 2>"), 2);
                EXPECT_EQ(qor_wait_for_child_reponse(1), 1);
                EXPECT_EQ(qor_wait_for_child_reponse(1), 1);
            },
            PASSED);
    // The same id twice over is the current worker's, not a late one's; outside its loop it has no way back.
    InProcess(
        [] {
            Arm();
            prev_ch_pid = ch_pid.load();
            if (sigsetjmp(sig_jump, 1) == 0) {
                InRequest();
                Segv();
            }
            sigJumpThread = 0;
            Segv();
        },
        JVM_HANDLER);
}

TEST_F(OwnHandler, RiskyReadsHavePlacesOfTheirOwn) {
    InProcess(
        [] {
            Arm();
            LogCapture log(LOG_DETAIL + 1);
            segv_jmp_enabled = 1;
            if (sigsetjmp(segv_jmp, 1) == 0)
                Segv();
            EXPECT_EQ(log.count("S-ANALYSIS Code : "), 1);
            jumpback = 1;
            if (sigsetjmp(sigsegv_ctx, 1) == 0)
                Bus();
            EXPECT_EQ(log.count("S-ANALYSIS Code : "), 1) << "the inner place comes first";
            EXPECT_EQ(reschedule_count, 0);
        },
        PASSED);
}

// A worker that was given up on and has a successor ends. One that the JVM knows stays where it is, asleep,
// as the JVM goes on looking at its stack.
TEST_F(OwnHandler, ALateWorkerEnds) {
    InProcess(
        [] {
            Arm();
            LogCapture log(LOG_DETAIL + 1);
            RunThread([] {
                prev_ch_pid = qor_current_thread_id();
                Segv();
                _exit(WRONG);
            });
            EXPECT_EQ(log.count("Critical Error delay was taken care of for tid"), 1);
        },
        PASSED);
    InProcess(
        [] {
            Arm();
            offsetind = BUILD_JVMTI_DEFAULT;
            LogCapture log(LOG_DETAIL + 1);
            pthread_t late;
            const auto body = [](void *) -> void * {
                prev_ch_pid = qor_current_thread_id();
                Segv();
                _exit(WRONG);
            };
            pthread_create(&late, nullptr, body, nullptr);
            WaitFor([] { return prev_ch_pid != 0 && StateOf(prev_ch_pid) == 'S'; });
            EXPECT_EQ(log.count("Critical Error delay was taken care of for tid"), 1);
        },
        PASSED);
}

TEST_F(OwnHandler, AFaultDuringInitializationIsReported) {
    for (void (*fault)() : {Segv, Illegal})
        InProcess(
            [fault] {
                Arm();
                LogCapture log(LOG_ERROR + 1);
                memset(os_name, 'x', sizeof os_name - 1);
                RunThread([fault] {
                    ch_pid = qor_current_thread_id();
                    doing_init = 1;
                    fault();
                    _exit(WRONG);
                });
                EXPECT_EQ(doing_init, 0);
                ExpectCode(log.text(), "Initialization Error 03 Code ", fault);
                const std::string reply = pagebuf;
                EXPECT_EQ(reply.find("JVM Heap:"), 0u);
                ExpectCode(reply, "|Unable to complete Request Error Code ", fault);
                EXPECT_EQ(reply.substr(reply.size() - 13),
                          std::string(fault == Segv ? "1" : "3") + ", Try Again\x1f")
                    << reply;
            },
            PASSED);
}

// After an illegal instruction another worker serves, with no signal blocked.
TEST_F(OwnHandler, AnIllegalInstructionReplacesTheWorker) {
    InProcess(
        [] {
            Arm();
            LogCapture log(LOG_NOTE + 1);
            int32_t first = 0;
            RunThread([&first] {
                ch_pid = first = qor_current_thread_id();
                InRequest();
                snprintf(buf, sizeof buf, "4|x");
                Illegal();
                _exit(WRONG);
            });
            EXPECT_EQ(prev_ch_pid, first);
            EXPECT_EQ(qorlocks[1], 0);
            EXPECT_STREQ(buf, "");
            EXPECT_EQ(log.count("created after Critical Error."), 1);
            WaitFor([first] { return ch_pid != first; });
            EXPECT_EQ(StatusOf(ch_pid, "SigBlk"), "0000000000000000");
        },
        PASSED);
}

TEST(LastResorts, EndTheProcessAndStopItForADebugger) {
    InProcess(
        [] {
            testing::internal::CaptureStderr();
            b = 0;
            dbg_brk();
            const std::string told = testing::internal::GetCapturedStderr();
            EXPECT_EQ(told, "\n### " + std::to_string(getpid()) + " ###   in dbg_brk   ###\n");
            if (!HasFailure())
                cleanup();
            _exit(WRONG);
        },
        PASSED);
}
