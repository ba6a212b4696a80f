// Holding a thread by signal, so that its registers and stack can be read.
//
// Only a thread in Java code is held: it is at an instruction of its own, outside the C library and the JVM,
// with stack to spare. It sleeps in the handler and goes on by itself when its time is over, whatever became
// of the worker; a reader that took longer finds its hold gone and throws away what it read.
//
//     QorHold hold = qor_suspend_thread(thread, id, HOLD_NULL_SP);
//     if (QorAwaitHeld(hold, &registers)) { ...copy into fixed arrays...; whole = QorStillHeld(hold); }
//     qor_resume_thread(hold);
//     ...
//     QorTendHolds();    // once at the end of each sample
//
// Between the first and the last of these nothing may allocate, log, take a lock or call the JVM: the thread
// may own any lock of the application's. What there is to log is kept and written by QorTendHolds.
#pragma once

#include "held_slots.h"

#include <atomic>
#include <cstddef>
#include <cstdint>

// Why a thread is held; decides how long it stays at most, counted from the ask.
enum QorHoldCase : int32_t {
    HOLD_NULL_SP,     // it has left no frame anchor; 50 ms
    HOLD_OBJECT_MOVE, // reading it failed once; 50 ms
    HOLD_DUMP,        // all threads, while the process is copied; 5 s
};

// What the walker knows of a thread, by guarded reads that neither allocate nor log. `thread` is a
// JavaThread's address.
struct QorHoldTests {
    // Whether it is in the JVM's thread list with that kernel id and in Java code.
    bool (*listed)(uint64_t thread, int32_t id);
    // The same without the list: asked while the thread is held, so a few reads at most.
    bool (*inJava)(uint64_t thread, int32_t id);
    // Its name, for the log; never asked while a thread is held.
    void (*name)(uint64_t thread, char *out, size_t size);
};

// The hold of the case of that name, 0 for none, where another thread can find it. The walker sets them.
extern std::atomic<QorHold> segv_suspended_thread, null_sp_suspended_thread;

// Kernel id of the application's thread that waits for the reply; it is never held. 0 for none.
extern std::atomic<int32_t> qorWaitingCaller;

// Makes holding possible: sends the calling thread one signal and measures the stack that it takes. False,
// with one line in the log, when it takes more than a thread in Java code is sure to have, or doesn't work;
// then nobody is ever held. Initialisation thread, while no worker runs. `tests` must stay.
bool QorPrepareHolds(const QorHoldTests *tests);

// Asks a thread to stop and doesn't wait. 0 when it isn't asked: not listed, not in Java code, asked already,
// the worker itself or the waiting caller, no slot, the signal can't be sent. Worker.
QorHold qor_suspend_thread(uint64_t thread, int32_t id, QorHoldCase why);

// Waits at most 20 ms for the thread to stop. True with its registers and the kept pages dropped. False, and
// the hold released, when it hasn't come or has left Java code. Worker.
bool QorAwaitHeld(QorHold hold, QorRegisters *out);

// Whether the thread has been held since, so that what was read of it is whole. Any thread.
bool QorStillHeld(QorHold hold);

// Lets a thread go; idempotent, 0 does nothing. Any thread, any handler.
void qor_resume_thread(QorHold hold);

// Lets every thread go, after a fault, a time-out or at the end. Any thread, any handler.
void qor_resume_all_threads();

// After a sample, with nobody held: frees what was left, puts the old action of the signal back where no ask
// is open, and writes the log. Waits 5 ms at most for threads on their way out. Cheap when nobody was held.
// Worker.
void QorTendHolds();

// The same with everything released first: the agent's end. Worker.
void QorEndHolds();
