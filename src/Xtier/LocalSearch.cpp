#include "LocalSearch.h"

#include "LocalWalk.h"
#include "LocalWalkTimes.h"
#include "Xtier/tiers/tier.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/followRefHackHelper.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

QorLocalWalk gbQorLocalWalk;

namespace {

constexpr int32_t BUDGET_INTERVAL = 1000; // callbacks between two looks at the clock
constexpr int32_t LAST_HEAP_KIND = 20;    // references from object to object, and room for more of them

bool IsSameFrame(const QorWantedFrame &a, const QorWantedFrame &b) {
    return a.tid == b.tid && a.method == b.method;
}

bool ComesBefore(const QorWantedFrame &a, const QorWantedFrame &b) {
    if (a.tid != b.tid)
        return a.tid < b.tid;
    return a.method != b.method ? a.method < b.method : a.serial < b.serial;
}

void ClearFindings(QorLocalWalk *walk) {
    walk->findingCount = walk->tagCount = 0;
    walk->outcome = {};
    walk->threadSkip = walk->threadHit = walk->bucketTid = -1;
    walk->iIterationCount = walk->iJNILocalCount = 0;
    walk->bucketBegin = walk->bucketEnd = nullptr;
    walk->wantsNative = walk->stacksSeen = false;
}

bool IsNative(int64_t method) {
    jboolean isNative = JNI_FALSE;
    return jvmti->IsMethodNative(reinterpret_cast<jmethodID>(method), &isNative) == JVMTI_ERROR_NONE &&
           isNative;
}

void StartFrame(QorLocalWalk *walk, QorWantedFrame *frame) {
    frame->isNative = IsNative(frame->method);
    walk->wantsNative |= frame->isNative;
    frame->hits = frame->candidates = 0;
    frame->first = frame->last = -1;
}

// Of entries with the same thread and method the oldest gets the locals: their frames can't be told apart,
// as they have moved since the snapshot. One for the rules gets them in addition. Returns the number of
// frames left.
int32_t DropNewerTwins(QorWantedFrame *frames, int32_t count) {
    int32_t kept = 0;
    for (int32_t i = 0; i < count; i++) {
        if (kept == 0 || !IsSameFrame(frames[kept - 1], frames[i])) {
            frames[kept++] = frames[i];
            continue;
        }
        QorWantedFrame &first = frames[kept - 1];
        if (!first.record) {
            first.record = frames[i].record;
            first.keepsAll = frames[i].keepsAll;
        }
        if (!first.rules)
            first.rules = frames[i].rules;
    }
    return kept;
}

bool AllocateFrames(QorLocalWalk *walk, int32_t count) {
    QorEndLocalSearch(walk);
    const auto frames = static_cast<size_t>(count);
    walk->frames = static_cast<QorWantedFrame *>(calloc(frames, sizeof(QorWantedFrame)));
    if (!walk->frames)
        QORLOG(LOG_ERROR, "No memory for the %d frames whose locals are wanted", count);
    return walk->frames;
}

QorWantedFrame *FindInBucket(const QorLocalWalk &walk, int64_t method) {
    for (QorWantedFrame *frame = walk.bucketBegin; frame < walk.bucketEnd; frame++)
        if (frame->method == method)
            return frame;
    return nullptr;
}

void OpenBucket(QorLocalWalk *walk, int64_t tid) {
    if (tid == walk->bucketTid)
        return;
    walk->bucketTid = tid;
    QorWantedFrame *end = walk->frames + walk->frameCount;
    walk->bucketBegin = std::lower_bound(
        walk->frames, end, tid, [](const QorWantedFrame &frame, int64_t id) { return frame.tid < id; });
    walk->bucketEnd = walk->bucketBegin;
    while (walk->bucketEnd < end && walk->bucketEnd->tid == tid)
        walk->bucketEnd++;
}

// The JVM doesn't hear an abort at a JNI local and goes on with the stack: the callbacks say it again until
// it does.
jint Abort(QorLocalWalk *walk, QorLocalWalkEnd end, int32_t kind) {
    set_FollowRefHack();
    walk->outcome.end = end;
    walk->outcome.kind = kind;
    return JVMTI_VISIT_ABORT;
}

bool IsOutOfTime(QorLocalWalk *walk) {
    if (!walk->hasBudget || walk->iIterationCount % BUDGET_INTERVAL != 0)
        return false;
    walk->outcome.usec = qorLocalWalkClock() - walk->startTime;
    return walk->outcome.usec > lAllowedFollowRefTimeUSec;
}

// Makes a prepared reference refer to the object. On the JVM builds that getObjOpt names, the object's
// address is two words before its tag, and a global reference is the address of a word that holds an
// object's.
void PutIntoSlot(QorWantedFrame *frame, const jlong *tagPtr) {
    if (!tagPtr || frame->hits >= LOCAL_OBJECT_SLOTS || !frame->record->localObjects[frame->hits])
        return;
    memcpy(frame->record->localObjects[frame->hits], tagPtr - 2, sizeof(void *));
}

// The object's number in this walk; 0 when it is of no use or finds no room.
int32_t NumberOf(QorLocalWalk *walk, const QorWantedFrame &frame, jlong classTag, jlong *tagPtr) {
    if (!tagPtr || *tagPtr < 0 || frame.isSettled || (classTag == BORING_CLASS && !frame.keepsAll))
        return 0;
    if (*tagPtr > walk->tagBase && *tagPtr <= walk->tagBase + walk->tagCount)
        return static_cast<int32_t>(*tagPtr - walk->tagBase);
    if (walk->tagCount == LOCAL_TAGS) {
        walk->outcome.passedOver++;
        return 0;
    }
    *tagPtr = walk->tagBase + ++walk->tagCount;
    walk->lastFrameOfTag[walk->tagCount] = -1;
    return walk->tagCount;
}

// Whether the object is new to the frame.
bool AddFinding(QorLocalWalk *walk, QorWantedFrame *frame, int32_t tag) {
    const auto index = static_cast<int32_t>(frame - walk->frames);
    if (walk->lastFrameOfTag[tag] == index)
        return false;
    if (walk->findingCount == LOCAL_FINDINGS || frame->candidates == LOCAL_CANDIDATES) {
        walk->outcome.passedOver++;
        return false;
    }
    walk->lastFrameOfTag[tag] = index;
    walk->findings[walk->findingCount] = {tag, -1};
    if (frame->last >= 0)
        walk->findings[frame->last].next = walk->findingCount;
    else
        frame->first = walk->findingCount;
    frame->last = walk->findingCount++;
    frame->candidates++;
    return true;
}

// After the object of interest no local of the frame matters to the tables, while the rules add up. A walk
// for one frame looks for other objects than the marks on classes say.
void Settle(QorWantedFrame *frame, jlong classTag) {
    if (!frame->record || frame->rules)
        return;
    const bool isFirst = frame->candidates == 1;
    frame->isSettled = frame->wantsNext || classTag == WANTED_CLASS || (classTag == EVENT_CLASS && !isFirst);
    frame->wantsNext = classTag == EVENT_CLASS && isFirst;
}

void TakeObject(QorLocalWalk *walk, QorWantedFrame *frame, jlong classTag, jlong *tagPtr) {
    const bool hasSlots = frame->record && getObjOpt;
    if (hasSlots)
        PutIntoSlot(frame, tagPtr);
    const int32_t tag = hasSlots && !frame->rules ? 0 : NumberOf(walk, *frame, classTag, tagPtr);
    if (tag && AddFinding(walk, frame, tag))
        Settle(frame, classTag);
    if (frame->hits++ == 0)
        walk->iRecordsWithoutHits -= frame->record && frame->rules ? 2 : 1;
}

jint VisitStackLocal(QorLocalWalk *walk, const jvmtiHeapReferenceInfo *info, jlong classTag, jlong *tagPtr) {
    const int64_t tid = info->stack_local.thread_id;
    if (walk->threadCount == 0 && tid != walk->threadHit)
        return Abort(walk, WALK_THREADS_SEEN, JVMTI_HEAP_REFERENCE_STACK_LOCAL);
    if (tid == walk->threadSkip)
        return JVMTI_VISIT_OBJECTS;
    OpenBucket(walk, tid);
    walk->threadSkip = tid;
    if (walk->bucketBegin < walk->bucketEnd) {
        walk->threadSkip = -1;
        if (walk->threadHit != tid) {
            walk->threadHit = tid;
            walk->threadCount--;
        }
        QorWantedFrame *frame = FindInBucket(*walk, reinterpret_cast<int64_t>(info->stack_local.method));
        if (frame) {
            TakeObject(walk, frame, classTag, tagPtr);
            return JVMTI_VISIT_OBJECTS;
        }
    }
    return walk->iRecordsWithoutHits == 0 ? Abort(walk, WALK_RECORDS_HIT, JVMTI_HEAP_REFERENCE_STACK_LOCAL)
                                          : JVMTI_VISIT_OBJECTS;
}

// From JDK 11 on the constants of compiled code come as JNI locals of its method: only those of a native
// method are locals.
void VisitJniLocal(QorLocalWalk *walk, const jvmtiHeapReferenceInfo *info, jlong classTag, jlong *tagPtr) {
    if (!walk->wantsNative)
        return;
    OpenBucket(walk, info->jni_local.thread_id);
    QorWantedFrame *frame = FindInBucket(*walk, reinterpret_cast<int64_t>(info->jni_local.method));
    if (frame && frame->isNative)
        TakeObject(walk, frame, classTag, tagPtr);
}

// A thread and its locals come ahead of all other roots, so the first root of these kinds is the end of what
// can be found; not one of kind OTHER, which each virtual thread is that is mounted. A walk that goes on to
// the references between objects costs a pass over the heap, even if it is ended at the first of them.
jint VisitOther(QorLocalWalk *walk, jvmtiHeapReferenceKind kind) {
    if (gbIbmJvm)
        return JVMTI_VISIT_OBJECTS;
    if (kind <= LAST_HEAP_KIND)
        return Abort(walk, WALK_HEAP_REACHED, kind);
    const bool isBehindStacks = kind == JVMTI_HEAP_REFERENCE_JNI_GLOBAL ||
                                kind == JVMTI_HEAP_REFERENCE_SYSTEM_CLASS ||
                                kind == JVMTI_HEAP_REFERENCE_MONITOR;
    return isBehindStacks && walk->stacksSeen ? Abort(walk, WALK_BEHIND_STACKS, kind) : JVMTI_VISIT_OBJECTS;
}

void CountCallback(QorLocalWalk *walk, jvmtiHeapReferenceKind kind) {
    walk->iIterationCount++;
    if (kind == JVMTI_HEAP_REFERENCE_JNI_LOCAL && !qorIsPollOrTrace)
        walk->iJNILocalCount++;
    if (kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL || kind == JVMTI_HEAP_REFERENCE_JNI_LOCAL ||
        kind == JVMTI_HEAP_REFERENCE_THREAD)
        walk->stacksSeen = true;
}

// Counts a callback. False when the walk has ended, or does now.
bool GoesOn(QorLocalWalk *walk, jvmtiHeapReferenceKind kind) {
    if (walk->outcome.end != WALK_NOT_ENDED)
        return false;
    CountCallback(walk, kind);
    if (IsOutOfTime(walk))
        Abort(walk, WALK_OUT_OF_TIME, kind);
    return walk->outcome.end == WALK_NOT_ENDED;
}

} // namespace

bool QorPrepareLocalSearch(QorLocalWalk *walk, QorAllThreadLocalInfoList *list) {
    ClearFindings(walk);
    int32_t count = 0;
    QorAllThreadLocalInfoList *oldest = list;
    list->prev = nullptr;
    for (QorAllThreadLocalInfoList *entry = list; entry; entry = entry->next, count++) {
        if (entry->next)
            entry->next->prev = entry;
        oldest = entry;
        if (entry->objLocalVarHandle)
            QorDeleteGlobalRef(jvmtijni_env, entry->objLocalVarHandle);
        entry->objLocalVarHandle = nullptr;
        entry->strSignature[0] = 0;
        entry->localCount = 0;
        QorDropRuleObjects(entry);
    }
    if (!AllocateFrames(walk, count))
        return false;
    int32_t at = 0;
    for (QorAllThreadLocalInfoList *entry = oldest; entry; entry = entry->prev, at++) {
        QorWantedFrame &frame = walk->frames[at];
        frame.tid = entry->threadId;
        frame.method = entry->frameMethod;
        frame.serial = entry->serial;
        if (entry->kind == LOCAL_BY_RULES) {
            frame.rules = entry;
            continue;
        }
        frame.record = entry;
        // The object wanted of an entity's frame is known by its neighbour alone.
        const QorFrameRecord shown = QorFrameOfEntry(entry);
        frame.keepsAll = entry->kind == LOCAL_VIEW_OR_ENTITY && !is_vo_frame(&shown);
    }
    std::sort(walk->frames, walk->frames + count, ComesBefore);
    walk->frameCount = DropNewerTwins(walk->frames, count);
    walk->threadCount = 0;
    for (int32_t i = 0; i < walk->frameCount; i++) {
        StartFrame(walk, &walk->frames[i]);
        if (i == 0 || walk->frames[i].tid != walk->frames[i - 1].tid)
            walk->threadCount++;
    }
    walk->iRecordsWithoutHits = count;
    return true;
}

bool QorPrepareFrameSearch(QorLocalWalk *walk, int64_t tid, int64_t method) {
    ClearFindings(walk);
    if (!AllocateFrames(walk, 1))
        return false;
    QorWantedFrame *frame = walk->frames;
    frame->tid = tid;
    frame->method = method;
    frame->keepsAll = true;
    StartFrame(walk, frame);
    walk->frameCount = walk->threadCount = walk->iRecordsWithoutHits = 1;
    return true;
}

void QorEndLocalSearch(QorLocalWalk *walk) {
    free(walk->frames);
    walk->frames = nullptr;
    walk->frameCount = 0;
}

void QorStartLocalWalkTime(QorLocalWalk *walk, int64_t now, bool hasBudget) {
    walk->startTime = now;
    walk->hasBudget = hasBudget;
}

bool QorLocalWalkTimeIsUp(const QorLocalWalk &walk) {
    return walk.hasBudget && qorLocalWalkClock() - walk.startTime > lAllowedFollowRefTimeUSec;
}

jint JNICALL heapReferenceAllObjectCallback(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                            jlong classTag, jlong, jlong, jlong *tagPtr, jlong *, jint,
                                            void *userData) {
    auto *walk = static_cast<QorLocalWalk *>(userData);
    if (!GoesOn(walk, kind))
        return JVMTI_VISIT_ABORT;
    if (kind != JVMTI_HEAP_REFERENCE_STACK_LOCAL && kind != JVMTI_HEAP_REFERENCE_JNI_LOCAL)
        return VisitOther(walk, kind);
    if (!info) {
        walk->outcome.missingInfos++;
        return JVMTI_VISIT_OBJECTS;
    }
    if (kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL)
        return VisitStackLocal(walk, info, classTag, tagPtr);
    VisitJniLocal(walk, info, classTag, tagPtr);
    return JVMTI_VISIT_OBJECTS;
}

// The JVM reports the locals of a thread that isn't mounted when it follows a reference to it: the walk goes
// on to the held threads, and from there no further.
jint JNICALL heapReferenceHeldThreadsCallback(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                              jlong classTag, jlong, jlong, jlong *tagPtr, jlong *, jint,
                                              void *userData) {
    auto *walk = static_cast<QorLocalWalk *>(userData);
    if (!GoesOn(walk, kind))
        return JVMTI_VISIT_ABORT;
    const bool isLocal = kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL && info;
    if (isLocal && VisitStackLocal(walk, info, classTag, tagPtr) == JVMTI_VISIT_ABORT)
        return JVMTI_VISIT_ABORT;
    return tagPtr && *tagPtr == HELD_THREAD ? JVMTI_VISIT_OBJECTS : 0;
}

// The locals of a frame come in a row: the first one of another frame after them ends the walk.
jint JNICALL heapReferenceOneObjectCallback(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                            jlong classTag, jlong, jlong, jlong *tagPtr, jlong *, jint,
                                            void *userData) {
    auto *walk = static_cast<QorLocalWalk *>(userData);
    QorWantedFrame *frame = walk->frames;
    if (!GoesOn(walk, kind))
        return JVMTI_VISIT_ABORT;
    const bool isStackLocal = kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL;
    if (!isStackLocal && kind != JVMTI_HEAP_REFERENCE_JNI_LOCAL)
        return VisitOther(walk, kind);
    if (!info || (!isStackLocal && !frame->isNative))
        return JVMTI_VISIT_OBJECTS;
    const int64_t tid = isStackLocal ? info->stack_local.thread_id : info->jni_local.thread_id;
    const jmethodID method = isStackLocal ? info->stack_local.method : info->jni_local.method;
    if (tid == frame->tid && reinterpret_cast<int64_t>(method) == frame->method) {
        TakeObject(walk, frame, classTag, tagPtr);
        return JVMTI_VISIT_OBJECTS;
    }
    return frame->hits > 0 ? Abort(walk, WALK_FRAME_LEFT, kind) : JVMTI_VISIT_OBJECTS;
}
