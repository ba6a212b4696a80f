// Holding all threads in Java code at once, for the moment in which the process is copied.
//
// Only they are held: any other may lack the stack for it, and its system call would be interrupted. All are
// asked first and then awaited together. Threads are made meanwhile, so the list is read again, three times
// in all. Whoever doesn't come in time goes on, and is none of those that were held.
//
// Between the first ask and the last resume nothing may allocate, log or take a lock, here and in the caller.
// The tables are static, and a copy of the process finds them as they were.
#pragma once

#include "qorthreads.h"

// 1 while a dump's threads may be held. Written by the worker; any thread may read it.
extern std::atomic<int32_t> dump_holds_threads;

// Holds them: 50 ms for all to come, and 5 s until they go on by themselves. How many are held. Stops asking
// and waiting when `pointless` says so, which is asked before each wait and must keep to the rule above.
// Worker.
int32_t QorHoldForDump(bool (*pointless)());

// Lets them go, the one that was asked last first. Worker.
void QorResumeAfterDump();

// ---- In the copy, and in the worker until the next hold ---------------------------------------------------

// Whether each of them was held until now. In the copy: until the copy was made.
bool QorDumpHoldIsWhole();

// A held thread's registers, by its JavaThread. False for one that wasn't held.
bool QorDumpRegisters(uint64_t thread, QorRegisters *out);
