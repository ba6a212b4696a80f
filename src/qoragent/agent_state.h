// What start, worker, callers and stop know of one another. Each piece says who writes it.
#pragma once

#include <atomic>
#include <cstdint>
#include <jni.h>
#include <pthread.h>

// ---- Start ----------------------------------------------------------------------------------------------

enum StartStatus : int32_t {
    START_RUNNING = -1,
    START_OK = 0,
    START_FAILED = 1,
    START_BAD_LEVEL = 2,   // no such optimisation level
    START_UNSUPPORTED = 7, // no row for this JVM at level 2; no worker
};

extern int32_t init_status; // StartStatus
extern const char
    *startFailure;         // why the last start failed; null when it didn't, or for no reason of its own
extern int32_t doing_init; // 1 while the initialisation thread runs

extern char LOG_FILE[4096]; // log destination as Java gave it

extern int32_t maxthreads;       // slots of suspended_threads
extern void **suspended_threads; // threads that the direct road holds still

// ---- Worker ---------------------------------------------------------------------------------------------

extern pthread_t thread; // the last worker started; 0 when the direct road gave it up

extern std::atomic<int32_t> ch_pid; // system thread id of the worker or the initialisation thread; 0 for none
extern std::atomic<int32_t> prev_ch_pid; // of the worker that was given up, or has ended
extern int32_t gbThreadId;               // the worker's, on the JVMTI road
extern int32_t iNotUsingSignalHandler;   // 1 on the JVMTI road; informational

// 1 while one thread has the worker's lists and the session's references in hand: the worker for the length
// of a wake-up, another thread for as long as it takes a list away.
extern std::atomic<int32_t> workerBusy;

// Waits for workerBusy and takes it.
void QorTakeBusy();

// The same for so many milliseconds at most: false when they are over.
bool QorTakeBusyWithin(int32_t msec);

// Holds it for the length of a scope.
struct QorBusyScope {
    QorBusyScope() { QorTakeBusy(); }
    ~QorBusyScope() { workerBusy = 0; }
    QorBusyScope(const QorBusyScope &) = delete;
    QorBusyScope &operator=(const QorBusyScope &) = delete;
};

// ---- Callers --------------------------------------------------------------------------------------------

// Callers between entry and return. `pagebuf` and the pipes outlive them.
extern std::atomic<int32_t> callersInside;
