// A narrow try-and-catch around a single JVMTI call, for the JVMs that fault on stale data.
//
// Only DOV and Tessar JVMs keep a table of signal actions into which the catcher can be planted; everywhere
// else `sig_hack` is 0, no fault ever comes back, and the guard costs two stores. One guarded call runs at a
// time, on the worker.
#pragma once

#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <pthread.h>

enum TryState : int32_t { TRY_OFF, TRY_RUNNING, TRY_FAULTED };

extern int32_t sig_hack; // chaining is wanted and in force; start-up sets it
extern struct sigaction
    *vostok_oldsig_actions;       // the JVM's own table by signal number; trycatch_init finds it
extern volatile int32_t tryState; // TryState of the worker
extern pthread_t trycatch_tid;    // the thread that holds the guard
extern sigjmp_buf trycatch_mark;  // where a fault returns to

// The slot of a calling Java thread. The catcher looks at it; no guarded section uses it.
extern volatile int32_t parent_tryState;
extern pthread_t parent_trycatch_tid;
extern sigjmp_buf parent_trycatch_mark;

// Opens the guard: tryState is TRY_RUNNING afterwards, or TRY_FAULTED when a fault came back. Locals that are
// read after the guarded call must be volatile. Saving the mark costs a system call, so it is taken only
// where something can come back, and no line is written while the guard is up. Close the guard by setting
// tryState to TRY_OFF, first thing after the call.
#define TRYCATCH_OPEN()                                                                                      \
    do {                                                                                                     \
        tryState = TRY_OFF;                                                                                  \
        trycatch_tid = pthread_self();                                                                       \
        if (sig_hack != 0)                                                                                   \
            trycatch_LogFault();                                                                             \
        if (sig_hack == 0) {                                                                                 \
            tryState = TRY_RUNNING;                                                                          \
        } else if (sigsetjmp(trycatch_mark, 1) == 0) {                                                       \
            tryState = TRY_RUNNING;                                                                          \
        } else {                                                                                             \
            tryState = TRY_FAULTED;                                                                          \
            trycatch_LogFault();                                                                             \
        }                                                                                                    \
    } while (0)

// Writes the log lines of the last fault that the catcher saw, if they are not written yet. Worker.
void trycatch_LogFault();

// Plants the catcher in the JVM's table; clears sig_hack when there is none. Start-up, after the session.
void trycatch_init();

// Puts the JVM's handlers back. Worker, at shutdown.
void trycatch_Cleanup();

// The handler itself: jumps back to the mark when the faulting thread is in a guarded call, else puts the
// JVM's handlers back and raises the signal again.
void trycatch_Catcher(int sig, siginfo_t *info, void *context);
