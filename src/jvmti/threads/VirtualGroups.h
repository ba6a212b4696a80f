// Virtual threads that no carrier runs, in groups of the same stack and state.
//
// Before Java 25 the JVM stops for each call that reads the stack of such a thread, so threads are read 64 at
// a time, with a rest as long as the stop after each. Since then a stack is read without a stop, one thread
// at a time. At most 64 references are held, and a thread's are gone once its stack has been read.
//
// Worker only.
#pragma once

#include "ThreadSystem.h"

#include <cstdint>
#include <jvmti.h>

enum : int32_t {
    VIRTUAL_DEPTH = 32,      // frames of a stack that are kept, after those of the scheduler
    VIRTUAL_GROUPS = 4096,   // groups that are told apart
    VIRTUAL_TEXT_SIZE = 256, // names of classes and containers
    VIRTUAL_MOST_THREADS = 1 << 20,
};

// A group, and what is known of the member that was met first.
struct QorVirtualGroup {
    uint64_t hash;
    int32_t count;      // 0: a free place
    int32_t state;      // QorThreadState, by the state's bits alone
    int64_t tid, owner; // owner: of what it waits for, 0 unknown
    int32_t depth;
    jvmtiFrameInfo frames[VIRTUAL_DEPTH];
    int32_t held; // the view's own
    char name[VIRTUAL_TEXT_SIZE];
    char waitsFor[VIRTUAL_TEXT_SIZE],
        container[VIRTUAL_TEXT_SIZE]; // dotted class; name or class, "" the root
};

struct QorVirtualLimits {
    int32_t threads, milliseconds; // 0: the defaults
    // Called for each member of a group that is met, the first one at count 1; the reference is the sample's.
    void (*onMember)(QorVirtualGroup *group, jobject thread);
};

struct QorVirtualSample {
    int64_t count, inExecutors, mounted, sampled;
    bool rootIsListed, cut;
    bool countCut, groupsCut; // executors weren't all counted; more groups than VIRTUAL_GROUPS
    int64_t stopUsec;         // time in calls that read stacks
    int32_t groupCount;
    QorVirtualGroup *groups; // VIRTUAL_GROUPS places, the first groupCount in use, largest first
};

// Reads the stacks, as many as the limits allow; none with `countOnly`. 0, or -1 without memory. After
// VIRTUAL_READY; QorFreeVirtualSample on every way out.
int32_t QorSampleVirtualThreads(const QorVirtualLimits &limits, bool countOnly, QorVirtualSample *sample);
void QorFreeVirtualSample(QorVirtualSample *sample);

// Frees what a sample that was never freed has left. End of the session.
void QorDropVirtualGroups();

// The number of frames on top that are the scheduler's; all frames but the last, at most.
int32_t QorCountSchedulerFrames(const jvmtiFrameInfo *frames, jint count);

// What an unmounted thread does: its state refined by frames after the scheduler's, from `index` 0 on. Then
// GetThreadEnhancedState goes on with them. True for the JDK's own threads, which are always idle.
bool QorRefineUnmounted(QorFrameHandle *frames, QorThreadRecord *thread);
