#include "trycatch.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/memory_maps.h"
#include "qorlog.h"

#include <cstddef>

// The catcher may run with any lock of the process held by the faulting thread, so it writes no log line. It
// notes what happened; the next guarded call, or the end of the session, writes the lines. A JVM that dies of
// the fault leaves its own error file.

int32_t sig_hack;
struct sigaction *vostok_oldsig_actions;
volatile int32_t tryState;
pthread_t trycatch_tid;
sigjmp_buf trycatch_mark;
volatile int32_t parent_tryState;
pthread_t parent_trycatch_tid;
sigjmp_buf parent_trycatch_mark;

namespace {

// Entries of the JVM's table are what the system library takes.
static_assert(sizeof(struct sigaction) == 152 && offsetof(struct sigaction, sa_sigaction) == 0, "layout");

using SignalHandler = void (*)(int, siginfo_t *, void *);

// Handlers found in the JVM's table; start-up writes them, the catcher reads them.
SignalHandler JavaSignalHandler_sigsegv;
SignalHandler JavaSignalHandler_sigbus;

enum FaultOutcome : int32_t { FAULT_NONE, FAULT_RECOVERED_WORKER, FAULT_RECOVERED_PARENT, FAULT_PASSED_ON };

// The last fault seen, written by the catcher and read by the worker. `outcome` is written last.
struct FaultNote {
    int32_t signal, code;
    unsigned long address;
    pthread_t thread;
    int32_t workerTrying, parentTrying;
    volatile int32_t outcome;
} lastFault;

void NoteFault(int sig, const siginfo_t *info, FaultOutcome outcome) {
    lastFault.signal = sig;
    lastFault.code = info ? info->si_code : 0;
    lastFault.address = info ? reinterpret_cast<unsigned long>(info->si_addr) : 0;
    lastFault.thread = pthread_self();
    lastFault.workerTrying = tryState == TRY_RUNNING;
    lastFault.parentTrying = parent_tryState == TRY_RUNNING;
    lastFault.outcome = outcome;
}

bool IsWritable(uint64_t address) {
    QorMapping mapping;
    return QorFindMapping(address, &mapping) && mapping.readable && mapping.writable;
}

// The table in the JVM library, null when its symbol or a writable table is missing. It may begin in the
// library's data and end in the mapping after that, so both ends are looked at; a page is larger than it.
struct sigaction *FindTable() {
    constexpr uint64_t SIZE = (SIGSEGV + 1) * sizeof(struct sigaction);
    static_assert(SIZE < 4096, "within two pages");
    const uint64_t address = nsymbols[JTI_OLD_ACTIONS];
    if (!address || address % alignof(struct sigaction) != 0 || !IsWritable(address) ||
        !IsWritable(address + SIZE - 1))
        return nullptr;
    return reinterpret_cast<struct sigaction *>(address);
}

void PutHandlersBack() {
    vostok_oldsig_actions[SIGSEGV].sa_sigaction = JavaSignalHandler_sigsegv;
    vostok_oldsig_actions[SIGBUS].sa_sigaction = JavaSignalHandler_sigbus;
}

unsigned long AddressOf(SignalHandler handler) {
    return reinterpret_cast<unsigned long>(handler);
}

void LogUnchained(int32_t threshold) {
    QORLOG(threshold, "SignalHandler un-chained ");
}

void LogPassedOn(const FaultNote &fault) {
    if (fault.workerTrying)
        QORLOG(LOG_NOTE,
               "Try SET in Child: Catch thread %d, child thread tid %d, signo %d: si_code %d, si_addr %lx",
               static_cast<int>(fault.thread), static_cast<int>(trycatch_tid), fault.signal, fault.code,
               fault.address);
    if (fault.parentTrying)
        QORLOG(LOG_NOTE,
               "Try SET in parent: Catch thread %d, parent thread tid %d, signo %d: si_code %d, si_addr %lx",
               static_cast<int>(fault.thread), static_cast<int>(parent_trycatch_tid), fault.signal,
               fault.code, fault.address);
    QORLOG(LOG_TRACE, "Unable to recover from signal %d: si_code %d, si_addr %lx", fault.signal, fault.code,
           fault.address);
    if (sig_hack != 0)
        LogUnchained(LOG_TRACE);
}

} // namespace

void trycatch_LogFault() {
    FaultNote fault = {lastFault.signal,       lastFault.code,         lastFault.address, lastFault.thread,
                       lastFault.workerTrying, lastFault.parentTrying, lastFault.outcome};
    lastFault.outcome = FAULT_NONE;
    if (fault.outcome == FAULT_NONE)
        return;
    if (fault.outcome == FAULT_PASSED_ON) {
        LogPassedOn(fault);
        return;
    }
    const char *name = fault.signal == SIGSEGV ? "SIGSEGV" : "SIGBUS";
    QORLOG(LOG_NOTE, "Recovering from signal %d: si_code %d, si_addr %lx", fault.signal, fault.code,
           fault.address);
    if (fault.outcome == FAULT_RECOVERED_WORKER)
        QORLOG(LOG_ERROR, "Child Thread recovering from %s", name);
    else
        QORLOG(LOG_ERROR, "Parent Thread recovering from %s", name);
}

void trycatch_Catcher(int sig, siginfo_t *info, void *) {
    if (tryState == TRY_RUNNING && pthread_equal(pthread_self(), trycatch_tid)) {
        NoteFault(sig, info, FAULT_RECOVERED_WORKER);
        siglongjmp(trycatch_mark, -1);
    }
    if (parent_tryState == TRY_RUNNING && pthread_equal(pthread_self(), parent_trycatch_tid)) {
        NoteFault(sig, info, FAULT_RECOVERED_PARENT);
        siglongjmp(parent_trycatch_mark, -1);
    }
    NoteFault(sig, info, FAULT_PASSED_ON);
    if (sig_hack != 0)
        PutHandlersBack();
    raise(sig);
}

void trycatch_init() {
    if (sig_hack == 0)
        return;
    QORLOG(LOG_DETAIL, "Initializing Vostok SignalHandler chaining");
    vostok_oldsig_actions = FindTable();
    if (!vostok_oldsig_actions) {
        QORLOG(LOG_DETAIL, "Vostok SignalHandler chaining failed");
        sig_hack = 0;
        return;
    }
    // The JVM's dispatcher consults its own table, so the operating system's handlers stay as they are.
    // A catcher that an earlier start left there must not pass for the JVM's: it would hand faults to itself.
    if (vostok_oldsig_actions[SIGSEGV].sa_sigaction != trycatch_Catcher)
        JavaSignalHandler_sigsegv = vostok_oldsig_actions[SIGSEGV].sa_sigaction;
    if (vostok_oldsig_actions[SIGBUS].sa_sigaction != trycatch_Catcher)
        JavaSignalHandler_sigbus = vostok_oldsig_actions[SIGBUS].sa_sigaction;
    vostok_oldsig_actions[SIGSEGV].sa_sigaction = trycatch_Catcher;
    vostok_oldsig_actions[SIGBUS].sa_sigaction = trycatch_Catcher;
    QORLOG(LOG_NOTE, "Agent handler: %lx, JVM signal handler array: %lx, sigsegv: %lx, sigbus: %lx ",
           AddressOf(trycatch_Catcher), reinterpret_cast<unsigned long>(vostok_oldsig_actions),
           AddressOf(JavaSignalHandler_sigsegv), AddressOf(JavaSignalHandler_sigbus));
}

void trycatch_Cleanup() {
    if (sig_hack == 0)
        return;
    trycatch_LogFault();
    QORLOG(LOG_NOTE, "sigbus: old - %lx, cur - %lx. sigsegv: old - %lx, cur - %lx",
           AddressOf(JavaSignalHandler_sigbus), AddressOf(vostok_oldsig_actions[SIGBUS].sa_sigaction),
           AddressOf(JavaSignalHandler_sigsegv), AddressOf(vostok_oldsig_actions[SIGSEGV].sa_sigaction));
    PutHandlersBack();
    LogUnchained(LOG_NOTE);
}
