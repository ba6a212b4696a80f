// What a request costs the JVM: the time inside calls for which the JVM stops all threads, or one after
// another.
//
// The time of such a call holds the wait for the stop as well, so that the JVM was stopped for that long at
// most. Worker only.
#pragma once

#include <cstdint>

// The last two walk the heap, in the JVM itself or until a copy of it is made.
enum QorStopKind : int32_t { STOP_STACKS, STOP_LOCKS, STOP_LOCALS, STOP_HEAP, STOP_COPY, STOP_KINDS };

// Calls of the current request, the longest of them and all together; microseconds.
struct QorCost {
    int32_t calls;
    int64_t largestUsec, sumUsec;
};
extern QorCost qorRequestCost;

// The longest call of each kind in the last request that made one; -1 before the first.
extern int64_t qorLastStopUsec[STOP_KINDS];

// Starts a request.
void QorStartCost();

// Before and after such a call: the first returns what the second wants.
int64_t QorStopStarts();
void QorStopEnded(QorStopKind kind, int64_t start);

// Bounds a walk inside such a call: the time from its first callback on.
struct QorStopLimit {
    int64_t usec;
    // The limit's own, 0 at the start.
    int64_t end;
    int32_t callbacks;
    bool isOver;
};

// Counts a callback. True when the time is up, and from then on: an abort at a JNI local isn't always heard.
// For callbacks inside the JVM: reads a clock and `limit`, nothing else.
bool QorStopIsOver(QorStopLimit *limit);

// Forgets the last calls. Shutdown.
void QorForgetCost();
