// Objects that only local variables hold, by JVMTI's reference walk.
//
// FollowReferences names each stack local with its thread and method; the walk marks those of the listed
// frames, is ended as soon as nothing more can be found, and is held to a share of wall-clock time. It stops
// the JVM, so a sample makes one walk for all its frames.
//
// Worker only; the callbacks run inside the JVM's stop, on the JVM's thread, and touch plain memory alone.
#pragma once

#include "Xtier/tiers/LocalList.h"

#include <cstdint>
#include <jni.h>

constexpr int64_t QOR_LOCAL_WALK_BUDGET_USEC = 200'000; // the longest budget of a walk

extern int64_t lAllowedFollowRefTimeUSec; // time budget of the current walk, microseconds

// Entries of a JVM's own reader of frames. No known JVM has them, so that they stay null.
extern void *qorctiHasMore;
extern void *qorctiStep;
extern void *qorctiInitWithThread;
extern void *qorrefIterFillFromFrame;
extern void *qorrefIterInit;
extern void *qorrefIterFree;

// The object of one frame, read by itself.
struct QorLocalObjectRecord {
    jobject object; // local reference, null when there is none
    jclass klass;
    char signature[LOCAL_SIGNATURE_SIZE];
};

// An array of virtual threads that no carrier runs, held by a global reference: walks for a list find their
// locals and no others. Null but for the time of such a walk. The view that makes the list sets it.
extern jobjectArray gbQorHeldThreads;

// Decides getObjOpt from the JVM's version and vendor. Start-up.
void checkGetObjOpt();

// Attaches to each entry of the list the object, or by the rules the objects, of its frame. 0 after a walk,
// -1 when none was made (null list, quota 0, or too soon after the last); entries without an object have
// objLocalVarHandle null then.
int32_t QorGetLocalVariableForAllThread(QorAllThreadLocalInfoList *list);

// Reads the object of the frame of `method` on the thread with this Java thread id, by a separate walk. 0,
// or -1 with object and class cleared: no locals, or a quota of 0. The references belong to the caller's
// local frame.
int32_t QorGetLocalObject(int64_t tid, int64_t method, QorLocalObjectRecord *record);

// Attaches the objects of an entry's frame that the rules have, by a walk for it alone; none with a quota of
// 0.
void QorReadRuleObjects(QorAllThreadLocalInfoList *entry);

// The same as QorGetLocalObject on a JVM with a reader of frames; -1 on all others.
int32_t QorGetReLocalObject(int64_t tid, int64_t method, QorLocalObjectRecord *record); // nothing calls it

// Forgets which classes are known to be of no interest: others are from now on. Worker.
void QorForgetBoringClasses();

// Drops what the walks keep between samples. Shutdown, on the session's environment.
void QorCloseLocalWalk();
