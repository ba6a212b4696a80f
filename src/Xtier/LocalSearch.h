// What a walk for locals looks for and what it has found: the memory that its callbacks work on.
//
// The wanted frames are indexed before the walk, the found objects are put down as pairs of frame and tag,
// and nothing is allocated, logged or asked of the JVM in between. All of it belongs to the current walk: the
// worker prepares it and reads it, the callbacks fill it while the JVM is paused.
#pragma once

#include "Xtier/tiers/LocalList.h"

#include <cstdint>
#include <jvmti.h>

enum : int32_t {
    LOCAL_TAGS = 32768,      // objects that a walk can tag, numbered from 1
    LOCAL_FINDINGS = 65536,  // pairs of frame and object
    LOCAL_CANDIDATES = 4096, // objects that a frame is chosen from
};

// Tags of classes whose objects are known: of no interest; an entity's event, beside which the object of
// interest is; the object of interest. Tags of objects are positive, and a class can be one of them: a local
// may hold it.
constexpr jlong BORING_CLASS = -1, EVENT_CLASS = -2, WANTED_CLASS = -3;
// The tag of virtual threads whose locals are wanted, and of what holds them.
constexpr jlong HELD_THREAD = -4;

// A frame whose locals are wanted.
struct QorWantedFrame {
    int64_t tid, method;
    QorAllThreadLocalInfoList *record; // the oldest entry of the frame for the tables, or null
    QorAllThreadLocalInfoList *rules;  // and for the rules
    int64_t serial;                    // of the entry
    bool isNative;                     // only then are JNI locals its own
    bool keepsAll;       // objects of boring classes are candidates too, as an event's neighbours
    bool wantsNext;      // an event was the first object: only its neighbour is missing
    bool isSettled;      // the object of interest, and its neighbour, are among the findings
    int32_t hits;        // locals met
    int32_t candidates;  // findings
    int32_t first, last; // indices of its findings, -1 for none
};

// An object of a frame, linked in the order of visiting.
struct QorFinding {
    int32_t tag;
    int32_t next; // -1 at the end
};

// Why a walk ended before the JVM had nothing more to report.
enum QorLocalWalkEnd : int32_t {
    WALK_NOT_ENDED,
    WALK_OUT_OF_TIME,
    WALK_THREADS_SEEN,  // all wanted threads were met
    WALK_RECORDS_HIT,   // all records have an object
    WALK_BEHIND_STACKS, // a root that is reported after all stacks
    WALK_HEAP_REACHED,  // a reference from object to object
    WALK_FRAME_LEFT,    // the one frame is complete
};

struct QorLocalWalkOutcome {
    QorLocalWalkEnd end;
    int32_t kind;         // of the reference at which the walk was ended
    int64_t usec;         // time taken until then
    int32_t missingInfos; // stack locals that the JVM said nothing about
    int32_t passedOver;   // objects that found no room
    int32_t notLookedUp;  // objects left for lack of time after the walk
};

// A walk: what it looks for, how far it is, and what it has found. The callbacks get it as their user data.
struct QorLocalWalk {
    jvmtiEnv *env;          // of all walks, with the marks on classes; null before the first
    QorWantedFrame *frames; // ordered by thread and method
    int32_t frameCount;
    int32_t tagCount;  // tags given in this walk and not taken away yet
    int64_t tagBase;   // they are above this number; those up to it are left from earlier walks
    bool wantsNative;  // some wanted frame is of a native method
    bool hasBudget;    // else the time isn't looked at
    int64_t startTime; // qorLocalWalkClock

    int32_t threadCount;         // wanted threads still to be met
    int64_t threadSkip;          // the current thread when none of its frames is wanted, else -1
    int64_t threadHit;           // the wanted thread met last, -1 before the first
    int32_t iRecordsWithoutHits; // records that no local was met for
    int32_t iIterationCount;     // callbacks
    int32_t iJNILocalCount;      // JNI locals among them, not counted during polling
    bool stacksSeen;
    QorLocalWalkOutcome outcome;

    // Frames of the thread whose locals are being reported: the JVM reports a thread's locals in a row.
    int64_t bucketTid;
    QorWantedFrame *bucketBegin, *bucketEnd;

    int32_t findingCount;
    QorFinding findings[LOCAL_FINDINGS];
    int32_t lastFrameOfTag[LOCAL_TAGS + 1]; // index of the frame that last took the object, so that none has
                                            // it twice
};

// The walk of the worker; nothing but the environment, its tags and their base outlives one.
extern QorLocalWalk gbQorLocalWalk;

// Builds the index for a list, and clears all that a walk fills; sets the entries' links to newer ones and
// clears their results. False when there is no memory. QorEndLocalSearch releases the index.
bool QorPrepareLocalSearch(QorLocalWalk *walk, QorAllThreadLocalInfoList *list);

// The same for one frame of one thread.
bool QorPrepareFrameSearch(QorLocalWalk *walk, int64_t tid, int64_t method);

void QorEndLocalSearch(QorLocalWalk *walk);

// Starts the walk's time; without a budget it is never looked at.
void QorStartLocalWalkTime(QorLocalWalk *walk, int64_t now, bool hasBudget);

// Whether the walk has used up its budget.
bool QorLocalWalkTimeIsUp(const QorLocalWalk &walk);

// The callbacks of the walk for a list, of that with threads that are held, and of that for one frame.
jint JNICALL heapReferenceAllObjectCallback(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                            jlong classTag, jlong referrerClassTag, jlong size, jlong *tagPtr,
                                            jlong *referrerTagPtr, jint length, void *userData);
jint JNICALL heapReferenceHeldThreadsCallback(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                              jlong classTag, jlong referrerClassTag, jlong size,
                                              jlong *tagPtr, jlong *referrerTagPtr, jint length,
                                              void *userData);
jint JNICALL heapReferenceOneObjectCallback(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                            jlong classTag, jlong referrerClassTag, jlong size, jlong *tagPtr,
                                            jlong *referrerTagPtr, jint length, void *userData);
