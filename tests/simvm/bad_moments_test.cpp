// Samples and dumps that meet a thread at a bad moment: it owns a lock of the C library, it can't be reached,
// it is gone. Nothing waits for it, and nothing ends.
#include "truth.h"
#include "with_scene.h"

#include "qorthreads/held_slots.h"

#include <csignal>
#include <dlfcn.h>
#include <link.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <thread>

using namespace simvm;

// malloc with a lock that a thread can be made to own.
#if !defined(__SANITIZE_ADDRESS__)
namespace {
pthread_mutex_t mallocLock = PTHREAD_MUTEX_INITIALIZER;
std::atomic<bool> mallocLocks;

struct InMalloc {
    const bool locks = mallocLocks && pthread_mutex_lock(&mallocLock) == 0;
    ~InMalloc() {
        if (locks)
            pthread_mutex_unlock(&mallocLock);
    }
};

const int FORKS =
    pthread_atfork([] { pthread_mutex_lock(&mallocLock); }, [] { pthread_mutex_unlock(&mallocLock); },
                   [] { pthread_mutex_unlock(&mallocLock); }); // as fork() does with the C library's own
} // namespace

extern "C" {
void *__libc_malloc(size_t);
void *__libc_calloc(size_t, size_t);
void *__libc_realloc(void *, size_t);
void __libc_free(void *);
void *malloc(size_t size) {
    const InMalloc in;
    return __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    const InMalloc in;
    return __libc_calloc(count, size);
}
void *realloc(void *old, size_t size) {
    const InMalloc in;
    return __libc_realloc(old, size);
}
void free(void *old) {
    const InMalloc in;
    __libc_free(old);
}
}
#endif

namespace {

std::atomic<bool> over;
std::atomic<int64_t> moments;

void Busy(int milliseconds) {
    const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
    while (std::chrono::steady_clock::now() < end) {
    }
}

void BusyAsJava(int milliseconds) {
    AsJava([=] { Busy(milliseconds); });
}

void OwnLog() {
    flockfile(stderr);
    BusyAsJava(20);
    funlockfile(stderr);
}

void OwnLoader() {
    dlclose(dlopen(SIMVM_FOLDER "/libsimvm_loading.so", RTLD_NOW));
}

void OwnListOfLibraries() {
    dl_iterate_phdr(
        [](dl_phdr_info *, size_t, void *) {
            BusyAsJava(20);
            return 1;
        },
        nullptr);
}

// It takes no signal for so long, and is there for a moment when it does.
void BlockSignals(int milliseconds) {
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    BusyAsJava(milliseconds);
    pthread_sigmask(SIG_SETMASK, &old, nullptr);
    BusyAsJava(1);
}

// It can't take a signal until its child is gone.
__attribute__((noinline)) void WaitInVfork() {
    static const timespec time = {0, 20'000'000};
    const pid_t child = vfork();
    if (child == 0) {
        syscall(SYS_nanosleep, &time, nullptr);
        _exit(0);
    }
    waitpid(child, nullptr, 0);
}
// A thread at the list's head that is there for a moment only.
void ComeAndGo() {
    std::thread([] {
        ThreadInfo *thread = NewThread("visitor");
        LinkThread(thread);
        At(thread->address, &JavaThread::state) = IN_JAVA;
        Busy(moments % 3);
        UnlinkThread(thread);
        FreeThread(thread);
    }).join();
}

void OwnMalloc() {
#if !defined(__SANITIZE_ADDRESS__)
    mallocLocks = true;
    pthread_mutex_lock(&mallocLock);
    BusyAsJava(20);
    pthread_mutex_unlock(&mallocLock);
#endif
}

struct Moment {
    const char *name;
    void (*body)();
};
const Moment MOMENTS[] = {{"malloc", OwnMalloc},
                          {"log", OwnLog},
                          {"loader", OwnLoader},
                          {"libraries", OwnListOfLibraries},
                          {"blocked", [] { BlockSignals(150); }}, // longer than anybody waits for it
                          {"late", [] { BlockSignals(5); }},
                          {"vfork", [] { AsJava(WaitInVfork); }},
                          {"visitors", ComeAndGo}};

// Frames of the scene's threads are theirs, whoever has come to the list meanwhile.
void ExpectOwnFrames(const HeapDump &dump, const HeapDump &truth) {
    for (const auto &[root, address] : dump.frames) {
        const std::string thread = root.substr(0, root.find('|') + 1);
        const auto known = truth.frames.lower_bound(thread);
        const bool isKnown = known != truth.frames.end() && known->first.rfind(thread, 0) == 0,
                   isMethod = root.find("|interpreter_frame_meth ") != std::string::npos;
        EXPECT_TRUE(!isKnown || !isMethod || truth.frames.count(root)) << root;
    }
}

void ExpectAnswers(const Scene &scene, const std::string &path) {
    constexpr int SAMPLES = 10, DUMPS = 3;
    const HeapDump truth = TakeTruth(scene.runners);
    for (int i = 0; i < SAMPLES; i++)
        EXPECT_NE(Ask("793|showstack|32768").find("Call Stack"), std::string::npos);
    for (int i = 0; i < DUMPS; i++) {
        const uint32_t ended = qorHoldsEnded;
        const std::string reply = Ask("513|showmem|256|dump|7");
        EXPECT_NE(reply.find("completed"), std::string::npos) << reply;
        // A hold's time is over when the dump's maker waits for the thread that it holds.
        EXPECT_EQ(qorHoldsEnded, ended);
        ExpectOwnFrames(ReadDump(path), truth);
    }
}

// The signal's action is the old one as soon as nobody is owed a signal any more.
void ExpectOldAction() {
    struct sigaction action;
    for (int samples = 0; samples < 200; samples++) {
        Ask("793|showstack|32768");
        sigaction(31, nullptr, &action);
        if (action.sa_handler == SIG_DFL)
            return;
    }
    ADD_FAILURE() << "the agent's handler is still there";
}

} // namespace

class BadMoments : public testing::TestWithParam<Moment> {};

TEST_P(BadMoments, StopNobody) {
    char constructor[32];
    snprintf(constructor, sizeof constructor, "%lx", reinterpret_cast<Word>(+[] { BusyAsJava(20); }));
    setenv("SIMVM_CONSTRUCTOR", constructor, 1);
    WithScene("shop", {}, [](Scene &scene) {
        const DumpFolder folder;
        Script bad = MainScript();
        EmitScript(&bad);
        Runner *runner = Start("bad", &bad, [] {
            for (; !over; moments++)
                GetParam().body();
        });
        ExpectAnswers(scene, folder("dump"));
        EXPECT_GT(moments, 0);
        over = true;
        Leave(runner);
        ExpectOldAction();
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, BadMoments, testing::ValuesIn(MOMENTS),
                         [](const auto &info) { return std::string(info.param.name); });

// A thread that ran when the list was read and has turned idle when it is looked at again never counts; the
// request ends all the same.
TEST(RunningQueue, IsLeftWhenAThreadHasTurnedIdle) {
    WithScene("shop", {}, [](Scene &) {
        constexpr int ROUNDS = 60;
        std::atomic<int> round{-1}, answered{-1};
        std::atomic<bool> linked{false};
        std::thread turner([&] {
            ThreadInfo *thread = NewThread("turner");
            LinkThread(thread);
            linked = true;
            for (int i = 0; i < ROUNDS; i++) {
                SetStates(thread, IN_JAVA, OS_RUNNABLE);
                while (round < i) {
                }
                Busy(i % 12);
                SetStates(thread, BLOCKED, OS_SLEEPING);
                while (answered < i)
                    usleep(100);
            }
            UnlinkThread(thread);
            FreeThread(thread);
        });
        while (!linked)
            usleep(100);
        for (int i = 0; i < ROUNDS; i++) {
            const auto start = std::chrono::steady_clock::now();
            round = i;
            Ask("521|showstack|32768");
            EXPECT_LT(std::chrono::steady_clock::now() - start,
                      std::chrono::seconds(30)); // and not the time-out
            answered = i;
        }
        turner.join();
    });
}
