// Monitors of threads that haven't run since they were last asked about.
//
// A thread takes and gives back its monitors itself, so while its processor clock doesn't move it holds what
// it held. For each thread met in a walk the clock, a hash of its frames and its monitors, as text, are kept.
// In the next walk an equal clock and an equal stack answer from there, and only the other threads are asked
// about. An answer is kept only if the clock didn't move while it was given. Threads that a walk doesn't meet
// are forgotten at its close.
//
// The memo is used where the JVM keeps the threads that a call deals with, grants can_get_thread_cpu_time,
// and the worker's own clock grows with each read in steps of at most a microsecond. A read that fails, or a
// kept answer that turns out to be wrong, ends it until the agent's next start.
//
// Worker only, inside a walk of ThreadSystem.h.
#pragma once

#include "Monitors.h"

// Whether the memo is used. The first call after a start finds out.
bool QorMemoUsable();

// Whether the bean must be asked for the monitors of the `index`th thread of the walk. False for a thread
// that is known, was asked about in this walk or has ended. The first call for a thread reads its clock.
bool QorMemoMustAsk(const QorThreadHandle *handle, int32_t index);

// Indexes of at most `wanted` threads that answered from the memo and were asked about longest ago. Their
// number.
int32_t QorMemoOldest(int32_t *indexes, int32_t wanted);

// Takes the bean's answer about a thread that QorMemoMustAsk or QorMemoOldest has named. `answered`: there
// was one; without it the thread holds nothing in this walk and is asked about in the next.
void QorMemoStore(const QorThreadHandle *handle, int32_t index, const QorMonitorRecord *records,
                  int32_t count, bool answered);

// Monitors of a thread that needs no asking: their number, with *out a calloc'ed array for the caller to
// free, or 0 with *out as it was.
int32_t QorMemoRecall(int32_t index, QorMonitorRecord **out);

// What the thread is parked by, which it changes itself as well: 1 with the record filled or 0 for nothing,
// as kept by QorMemoKeepParked since the thread's clock last moved; -1 when that isn't known.
int32_t QorMemoParked(int32_t index, QorMonitorRecord *record);
void QorMemoKeepParked(int32_t index, const QorMonitorRecord *record);

// Whether the thread's monitors came from the bean in this walk.
bool QorMemoWasAsked(int32_t index);

// Forgets threads that this walk hasn't met, if it has looked at any.
void QorCloseMemoWalk();

// Forgets all. The end of the session calls it; the next use begins anew.
void QorDropMemo();
