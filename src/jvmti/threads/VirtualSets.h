// Virtual threads, found in the JDK's lists of them.
//
// The JDK keeps each started virtual thread in one container: the root, an executor or a structured scope.
// Root and executors are reached from ThreadContainers, scopes from the thread that opened them. Each list is
// a set on a ConcurrentHashMap, whose table is read as it is: the application goes on adding and removing, so
// a thread that starts or ends meanwhile may be missed. No Java code runs, nothing is allocated in the JVM
// and no lock is taken.
//
// Worker only, after QorLookUpVirtual has answered VIRTUAL_READY, within a local frame of
// VIRTUAL_WALK_REFERENCES and what the visitor keeps: a walk opens none, so that the visitor's references
// last.
#pragma once

#include <cstdint>
#include <jni.h>
#include <limits>

constexpr int64_t VIRTUAL_ALL_THREADS = std::numeric_limits<int64_t>::max();

enum : int32_t { VIRTUAL_WALK_REFERENCES = 4000 }; // nearly all for the platform threads

struct QorVirtualCounts {
    int64_t all;         // of the root and of executors, by the maps' own counters
    int64_t inExecutors; // of those
    bool rootIsListed;   // false: the root only counts its threads (jdk.trackAllThreads=false)
    bool cut;            // some executors weren't counted for lack of time
};

// A walk. Of sets that are too large for it a part is visited, from all over the table: threads that are
// neighbours there were started together and mostly do the same. So it is with many executors.
struct QorVirtualWalk {
    bool (*visit)(void *data, jobject thread); // false ends the walk; the reference is the walk's. Null: the
                                               // threads are only counted
    void *data;
    int64_t most;         // threads to visit; VIRTUAL_ALL_THREADS: no set is left early for others either
    int64_t deadline;     // of CLOCK_MONOTONIC, in microseconds
    int64_t mostStopUsec; // for which the visitor may stop the JVM; 0: it doesn't

    int64_t stopUsec;        // for which it has; the visitor adds to it
    QorVirtualCounts counts; // for half of the time at most; not with VIRTUAL_ALL_THREADS
    int64_t visited;
    int64_t inScopes; // of them those of structured scopes, which the counts don't have
    int64_t mounted;  // threads on a carrier, visited or not
    bool cut;         // some weren't visited
    // The walk's own.
    int64_t expected; // threads in the sets to come
    uint64_t random;
    int32_t depth;
    bool ended;
};

// Whether the visitor has stopped the JVM for as long as it may.
bool QorStopsAreSpent(const QorVirtualWalk &walk);

// Visits threads until one of the limits; the caller has set the members before `stopUsec`, all others are 0.
void QorWalkVirtualThreads(QorVirtualWalk *walk);

// The thread with this Java thread id, a local reference of the caller's frame; null when there is none, or
// none was found within `usec` microseconds.
jobject QorFindVirtualThread(int64_t tid, int64_t usec);

// Microseconds of CLOCK_MONOTONIC.
int64_t QorVirtualClock();
