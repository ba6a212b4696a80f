// The steps of holding a thread that its cases share; see qorthreads.h. Worker.
#pragma once

#include "qorthreads.h"

// Whether the thread with that kernel id may be asked at all: not the worker, not the waiting caller, and
// none before QorPrepareHolds has found that threads can be held.
bool QorMayHold(int32_t id);

// What QorHoldTests::inJava says.
bool QorIsInJavaCode(uint64_t thread, int32_t id);

// Waits 5 ms at most until no thread is held or on its way out. `id` 0: any thread.
void QorWaitForLeavers(int32_t id);

// Asks the thread, if `still` says that it is the one after its slot has been claimed. 0 when it isn't asked.
QorHold QorAskThread(uint64_t thread, const QorThreadName &name, QorHoldCase why,
                     bool (*still)(uint64_t thread, int32_t id));
