// Crash containment: the agent's own fault handler, and the places it can go back to.
//
// A fault on the worker ends the request and never the JVM; a fault on any other thread goes to the JVM's
// handler. The handler is complete and installed by nobody: the brackets around a request, in which it would
// be in force, are empty, and a fault on any thread goes to the JVM's own handler. Arming it is a matter of
// their two bodies: sigaction for signals 11 and 7 with the old actions kept, and the reverse. Before that is
// done it must be settled what a jump out of the JVM's own code leaves behind there, and that the guard
// objects of the frames it passes over (JNI local frames above all) never run.
//
// The handler asks, in this order: whose thread is it; is a place to go back to set around a risky read; is a
// request in hand. It writes log lines and calls perror, which a handler should not: the process is in
// trouble already.
#pragma once

#include <csetjmp>
#include <csignal>
#include <cstdint>
#include <jni.h>
#include <pthread.h>

// The brackets. Both are empty.
void set_qor_handler();
void reset_qor_handler();

// What arming would install, filled by start-up, and what it would keep.
extern struct sigaction segv_qor, busv_qor;
extern sigset_t sigset_qor; // signals 11 and 7
extern struct sigaction segv_old, busv_old;
using QorSignalHandler = void (*)(int, siginfo_t *, void *);
extern QorSignalHandler JavaSignalHandler; // the handler a foreign fault was last passed to

// Places to go back to, each saved with its signal mask. Nothing with a destructor may live in the function
// that sets one, and what that function reads afterwards is volatile.
extern sigjmp_buf sig_jump;            // head of the worker's loop
extern volatile int32_t sigJumpThread; // the thread that has set it and is still in that loop; 0 for none
extern sigjmp_buf segv_jmp;            // around the reading of one thread, direct road
extern volatile int32_t segv_jmp_enabled;
extern sigjmp_buf sigsegv_ctx; // around the scan of one thread, direct road
extern volatile unsigned char jumpback;

extern JNIEnv *child_env;        // the worker's environment had it attached by itself; nobody sets it
extern int32_t reschedule_count; // faults that ended a request
extern int32_t th_id;            // result of the last thread started after a fault

// What a fault that ends the worker has done about it; see worker.h.
struct QorFaultHooks {
    int32_t (*replaceWorker)();
    void (*workerGone)();
};

// Fills the action records. Start-up.
void QorPrepareFaultHandler(const QorFaultHooks &hooks);

// The handler, in its SA_SIGINFO form. Any thread.
void sig_handler(int signal, siginfo_t *info, void *context);

// Passes a fault (signals 11 and 7) to the old action's handler. Where that is the default, or to ignore
// it, the default is restored and the signal raised again. Any thread.
void callJavaSignalHandler(int signal, siginfo_t *info, void *context);

// Crash codes are distances from here, so that they name a place in the library wherever it was loaded.
void marker_address();

// For a debugger; nobody calls it. Tells the process id on stderr and sleeps until `b` is set to 0.
extern volatile int32_t b;
void dbg_brk();

// Ends the process. Nobody calls it: it is the last resort of a host that wants that.
extern pthread_cond_t pt_cond;
extern pthread_mutexattr_t mutex_attr;
extern pthread_mutex_t mutex;
void cleanup();
