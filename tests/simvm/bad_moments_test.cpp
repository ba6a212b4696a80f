// Samples and dumps that meet a thread at a bad moment: it owns a lock of the C library, it can't be reached,
// it is gone. Nothing waits for it, and nothing ends.
#include "with_scene.h"

#include "qorthreads/held_slots.h"

#include <csignal>
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
void __libc_free(void *);
void *malloc(size_t size) {
    const InMalloc in;
    return __libc_malloc(size);
}
void *calloc(size_t count, size_t size) {
    const InMalloc in;
    return __libc_calloc(count, size);
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

// As if the calling thread's body were Java code: without a frame anchor, in the state of threads that may be
// held.
template <class BODY>
void AsJava(BODY body) {
    static thread_local JavaThread &self = Self()->Java(); // once: later it may own malloc's lock
    const Word sp = std::exchange(self.anchorSp, 0);
    __atomic_store_n(&self.state, IN_JAVA, __ATOMIC_SEQ_CST);
    body();
    __atomic_store_n(&self.state, IN_NATIVE, __ATOMIC_SEQ_CST);
    self.anchorSp = sp;
}

void BusyAsJava(int milliseconds) {
    AsJava([=] {
        const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(milliseconds);
        while (std::chrono::steady_clock::now() < end) {
        }
    });
}

void OwnLog() {
    flockfile(stderr);
    BusyAsJava(20);
    funlockfile(stderr);
}

void OwnListOfLibraries() {
    dl_iterate_phdr(
        [](dl_phdr_info *, size_t, void *) {
            BusyAsJava(20);
            return 1;
        },
        nullptr);
}

// It takes no signal for longer than anybody waits for it, and is there for a moment when it does.
void BlockSignals() {
    sigset_t all, old;
    sigfillset(&all);
    pthread_sigmask(SIG_BLOCK, &all, &old);
    BusyAsJava(150);
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
const Moment MOMENTS[] = {
    {"malloc", OwnMalloc},
    {"log", OwnLog},
    {"libraries", OwnListOfLibraries},
    {"blocked", BlockSignals},
    {"vfork", [] { AsJava(WaitInVfork); }},
};

void ExpectAnswers() {
    for (int i = 0; i < 10; i++)
        EXPECT_NE(Ask("793|showstack|32768").find("Call Stack"), std::string::npos);
    for (int i = 0; i < 3; i++) {
        const uint32_t ended = qorHoldsEnded;
        EXPECT_NE(Ask("513|showmem|256|dump|7").find("completed"), std::string::npos);
        // A hold's time is over when the dump's maker waits for the thread that it holds.
        EXPECT_EQ(qorHoldsEnded, ended);
    }
}

// The signal's action is the old one as soon as nobody is owed a signal any more.
void ExpectOldAction() {
    for (int samples = 0; samples < 200; samples++) {
        Ask("793|showstack|32768");
        if (Handler31() == SIG_DFL)
            return;
    }
    ADD_FAILURE() << "the agent's handler is still there";
}

} // namespace

class BadMoments : public testing::TestWithParam<Moment> {};

TEST_P(BadMoments, StopNobody) {
    WithScene("shop", {}, [](Scene &) {
        const DumpFolder folder;
        Script bad = NativeScript();
        Runner *runner = Start("bad", &bad, [] {
            for (; !over; moments++)
                GetParam().body();
        });
        ExpectAnswers();
        EXPECT_GT(moments, 0);
        over = true;
        Leave(runner);
        ExpectOldAction();
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, BadMoments, testing::ValuesIn(MOMENTS),
                         [](const auto &info) { return std::string(info.param.name); });
