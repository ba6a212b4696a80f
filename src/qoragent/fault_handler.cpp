#include "fault_handler.h"

#include "agent_state.h"
#include "direct/gc_lock.h"
#include "qoragent/requests/channel.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include "QorOS.h"
#include "jvmti/Session.h"
#include "platforms/linux.h"
#include "qorthreads/qorthreads.h"
#include "reply/records.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/syscall.h>
#include <ucontext.h>
#include <unistd.h>

struct sigaction segv_qor, busv_qor;
sigset_t sigset_qor;
struct sigaction segv_old, busv_old;
QorSignalHandler JavaSignalHandler;
sigjmp_buf sig_jump;
volatile int32_t sigJumpThread;
sigjmp_buf segv_jmp;
volatile int32_t segv_jmp_enabled;
sigjmp_buf sigsegv_ctx;
volatile unsigned char jumpback;
JNIEnv *child_env;
int32_t reschedule_count;
int32_t th_id;
volatile int32_t b = 1;
pthread_cond_t pt_cond = PTHREAD_COND_INITIALIZER;
pthread_mutexattr_t mutex_attr;
pthread_mutex_t mutex = PTHREAD_MUTEX_INITIALIZER;

namespace {

QorFaultHooks hooks;

struct OldAction {
    int signal;
    struct sigaction *action;
};
constexpr OldAction OLD_ACTIONS[] = {{SIGSEGV, &segv_old}, {SIGBUS, &busv_old}};

enum ReasonCode : int32_t { REASON_SEGV = 1, REASON_BUS = 2, REASON_OTHER = 3 };

struct Fault {
    const ucontext_t *context; // null when the caller passed none
    uint32_t crashCode;
    int32_t reason;
};

Fault Describe(int signal, const void *context) {
    const auto *state = static_cast<const ucontext_t *>(context);
    const uint64_t at = state ? static_cast<uint64_t>(state->uc_mcontext.gregs[REG_RIP]) : 0;
    const auto marker = reinterpret_cast<uint64_t>(marker_address);
    int32_t reason = REASON_OTHER;
    if (signal == SIGSEGV)
        reason = REASON_SEGV;
    else if (signal == SIGBUS)
        reason = REASON_BUS;
    return {state, static_cast<uint32_t>(at - marker), reason};
}

// Ends the calling thread from inside the handler. pthread_exit unwinds, for which it loads a library that a
// host may not have, and through frames that can't bear it: both would end the process. A thread that the JVM
// knows stays, asleep for good, since the JVM goes on looking at its stack; any other leaves by the system
// call, which also lets who joins it go on.
[[noreturn]] void EndThread(bool knownToJvm) {
    if (knownToJvm) {
        sigset_t all;
        sigfillset(&all);
        sigprocmask(SIG_BLOCK, &all, nullptr); // this thread's; pthread_sigmask has a newer name in glibc
        for (;;)
            pause();
    }
    for (;;)
        syscall(SYS_exit, 0);
}

void DetachByItself() {
    if (!child_env)
        return;
    if (qor_vm)
        qor_vm->DetachCurrentThread();
    child_env = nullptr;
}

// A fault of the initialisation thread.
[[noreturn]] void EndInitialization(const Fault &fault) {
    QORLOG(LOG_ERROR, "Initialization Error 03 Code 0x%08x", fault.crashCode);
    doing_init = 0;
    if (pagebuf)
        snprintf(pagebuf, PAGEBUF_SIZE,
                 "JVM Heap:%s|%s|%s|%s|Unable to complete Request Error Code 0x%08x, %d, Try Again%c", vend,
                 vers, ext_jvm_id_str, os_name, fault.crashCode, fault.reason, SECTION_END);
    EndThread(false);
}

// Ends the current request and goes back to the worker's loop. Returns when that loop isn't there.
void EndRequest(const Fault &fault, int32_t me) {
    if (sigJumpThread != me)
        return;
    if (!QorAnswerRequest())
        perror("Qor Agent Error IPC 2 :");
    reschedule_count++;
    if (qorlocks[1]) {
        QORLOG(LOG_DETAIL, "Completion Diagnostic Code 0x%08x, %d", fault.crashCode, fault.reason);
        qorlocks[1] = 0;
    }
    if (no_gc == 0 && !strstr(vend, "IBM"))
        qor_enable_gc();
    if (QorOnJvmtiRoad())
        QorBacktrace();
    siglongjmp(sig_jump, 1);
}

// After an illegal instruction nothing of the thread is trusted: another one takes its place.
[[noreturn]] void ReplaceWorker(const Fault &fault) {
    if (qorlocks[1]) {
        qorlocks[1] = 0;
        if (no_gc == 0)
            qor_enable_gc();
        buf[0] = 0;
    }
    qor_resume_all_threads();
    prev_ch_pid = ch_pid.load();
    if (doing_init)
        EndInitialization(fault);
    if (fault.context) // the new thread takes this one's mask, and here all signals are blocked
        sigprocmask(SIG_SETMASK, &fault.context->uc_sigmask, nullptr);
    th_id = hooks.replaceWorker();
    if (th_id != 0)
        QORLOG(LOG_ERROR, "FATAL ERROR Encountered, qoragent not functional");
    else
        QORLOG(LOG_NOTE, "New thread %d created after Critical Error.", static_cast<int>(thread));
    EndThread(QorOnJvmtiRoad());
}

} // namespace

void set_qor_handler() {}

void reset_qor_handler() {}

__attribute__((noinline, used)) void marker_address() {
    __asm__ volatile("");
}

void QorPrepareFaultHandler(const QorFaultHooks &wanted) {
    hooks = wanted;
    segv_qor = {};
    segv_qor.sa_sigaction = sig_handler;
    segv_qor.sa_flags = SA_RESTART | SA_SIGINFO;
    sigfillset(&segv_qor.sa_mask);
    busv_qor = segv_qor;
    sigemptyset(&sigset_qor);
    sigaddset(&sigset_qor, SIGSEGV);
    sigaddset(&sigset_qor, SIGBUS);
}

void callJavaSignalHandler(int signal, siginfo_t *info, void *context) {
    for (const OldAction &old : OLD_ACTIONS) {
        if (old.signal != signal)
            continue;
        if (old.action->sa_handler == SIG_DFL || old.action->sa_handler == SIG_IGN) {
            // To return would repeat the fault for ever. The kernel lets none be ignored; it ends the process
            // as soon as this handler has unblocked it.
            ::signal(signal, SIG_DFL);
            raise(signal);
        } else {
            JavaSignalHandler = old.action->sa_sigaction;
            JavaSignalHandler(signal, info, context);
        }
    }
}

void sig_handler(int signal, siginfo_t *info, void *context) {
    const int32_t me = qor_current_thread_id();
    if (me != ch_pid && me != prev_ch_pid) {
        callJavaSignalHandler(signal, info, context);
        return;
    }
    if (me == prev_ch_pid && ch_pid != 0 && ch_pid != prev_ch_pid) {
        QORLOG(LOG_DETAIL, "Critical Error delay was taken care of for tid %d", me);
        hooks.workerGone();
        EndThread(QorOnJvmtiRoad());
    }
    DetachByItself();
    const Fault fault = Describe(signal, context);
    if (signal == SIGILL)
        ReplaceWorker(fault);
    if (jumpback)
        siglongjmp(sigsegv_ctx, 1);
    if (segv_jmp_enabled) {
        QORLOG(LOG_DETAIL, "S-ANALYSIS Code : 0x%x", fault.crashCode);
        siglongjmp(segv_jmp, 1);
    }
    reset_qor_handler();
    qor_resume_all_threads();
    if (doing_init)
        EndInitialization(fault);
    EndRequest(fault, me);
    callJavaSignalHandler(signal, info, context); // the worker outside its loop: nothing to go back to
}

void dbg_brk() {
    fprintf(stderr, "\n### %d ###   in dbg_brk   ###\n", getpid());
    while (b != 0)
        sleep(1);
}

void cleanup() {
    pthread_cond_destroy(&pt_cond);
    pthread_mutexattr_destroy(&mutex_attr);
    pthread_mutex_destroy(&mutex);
    exit(0);
}
