// Monitors of threads that haven't run since they were last asked about.
//
// A thread takes and gives back its monitors itself, so while its processor clock doesn't move it holds what
// it held. For each thread met in a walk the clock, a hash of its frames and its monitors, as text, are kept.
// In the next walk an equal clock and an equal stack answer from there, and only the other threads are asked
// about. An answer is kept only if the clock didn't move while it was given. Threads that a walk doesn't meet
// are forgotten at its close.
//
// The clock alone isn't proof: the guest of a virtual machine takes stolen time off it, and it may stand
// still across a short run. That doesn't matter for a thread that held nothing, as the same frames at the
// same places hold the same number of monitors. One that held some must also be in the very wait that it was
// in: the JVM counts each park, sleep, Object.wait and contended enter, and reports the count with the
// monitors. A thread that isn't in one shows nothing of the kind, and is asked about if it held some.
//
// The memo is used where the JVM keeps the threads that a call deals with, grants can_get_thread_cpu_time,
// and the worker's own clock grows with each read in steps of at most a microsecond. A read that fails ends
// it until the agent's next start.
//
// Worker only, inside a walk of ThreadSystem.h.
#pragma once

#include "MonitorBasics.h"

// Whether the memo is used. The first call after a start finds out.
bool QorMemoUsable();

// Whether the bean must be asked for the monitors of the `index`th thread of the walk. False for a thread
// that is known, was asked about in this walk or has ended. The first call for a thread reads its clock.
bool QorMemoMustAsk(const QorThreadHandle *handle, int32_t index);

// Whether monitors are kept of a thread of this id, so that QorMemoMustAsk may want the count of its waits.
bool QorMemoHolds(int64_t tid);

// Takes the bean's answer about a thread that QorMemoMustAsk has named, with the count of its waits by
// QorGetWaitCount's rule. At -1 the answer serves this walk alone.
void QorMemoStore(const QorThreadHandle *handle, int32_t index, const QorMonitorRecord *records,
                  int32_t count, int64_t waits);

// Monitors of a thread that needs no asking: their number, with *out a calloc'ed array for the caller to
// free, or 0 with *out as it was.
int32_t QorMemoRecall(int32_t index, QorMonitorRecord **out);

// The text of what the thread is parked by, if it is the object that QorMemoKeepParked was last given: true
// with the record filled.
bool QorMemoParked(int32_t index, jobject blocker, QorMonitorRecord *record);
void QorMemoKeepParked(int32_t index, jobject blocker, const QorMonitorRecord *record);

// Whether the thread's monitors came from the bean in this walk.
bool QorMemoWasAsked(int32_t index);

// Forgets threads that this walk hasn't met, if it has looked at any.
void QorCloseMemoWalk();

// Forgets all. The end of the session calls it; the next use begins anew.
void QorDropMemo();
