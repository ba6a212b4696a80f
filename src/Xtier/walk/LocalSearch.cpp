#include "LocalSearch.h"

#include "LocalWalk.h"
#include "LocalWalkTimes.h"
#include "Xtier/tiers/tier.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/changes/followRefHackHelper.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

QorWantedFrame *gbQorWantedFrames;
int32_t gbQorWantedFrameCount;
QorFinding gbQorFindings[LOCAL_FINDINGS];
int32_t gbQorTagCount;
int64_t gbQorTagBase;
QorLocalWalkOutcome gbQorLocalWalkOutcome;
int32_t gbQorLocalWalkKinds[LOCAL_WALK_KINDS];

int32_t threadCount;
int64_t threadSkip;
int64_t threadHit;
int32_t iIterationCount;
int32_t iJNILocalCount;
int32_t IsAbort;
int32_t iRecordsWithoutHits;
QorAllThreadLocalInfoList *curList;
QorAllThreadLocalInfoList *gbQorAllThreadLocalInfoList;

namespace {

constexpr int32_t BUDGET_INTERVAL = 1000; // callbacks between two looks at the clock
constexpr int32_t LAST_HEAP_KIND = 20;    // references from object to object, and room for more of them

int32_t findingCount;
int32_t
    lastFrameOfTag[LOCAL_TAGS + 1]; // index of the frame that last took the object, so that none has it twice

// Frames of the thread whose locals come in at the moment; the JVM reports a thread's locals in a row.
int64_t bucketTid;
QorWantedFrame *bucketBegin, *bucketEnd;

bool wantsNative; // some wanted frame is of a native method
bool stacksSeen;
bool walkHasBudget;
int64_t walkStart;

bool IsSameFrame(const QorWantedFrame &a, const QorWantedFrame &b) {
    return a.tid == b.tid && a.method == b.method;
}

bool ComesBefore(const QorWantedFrame &a, const QorWantedFrame &b) {
    if (a.tid != b.tid)
        return a.tid < b.tid;
    return a.method != b.method ? a.method < b.method : a.serial < b.serial;
}

void ClearFindings() {
    findingCount = gbQorTagCount = 0;
    gbQorLocalWalkOutcome = {};
    memset(gbQorLocalWalkKinds, 0, sizeof gbQorLocalWalkKinds);
    threadSkip = threadHit = -1;
    iIterationCount = iJNILocalCount = IsAbort = 0;
    gbQorAllThreadLocalInfoList = nullptr;
    bucketTid = -1;
    bucketBegin = bucketEnd = nullptr;
    wantsNative = false;
    stacksSeen = false;
}

bool IsNative(int64_t method) {
    jboolean isNative = JNI_FALSE;
    return jvmti->IsMethodNative(reinterpret_cast<jmethodID>(method), &isNative) == JVMTI_ERROR_NONE &&
           isNative;
}

void StartFrame(QorWantedFrame *frame) {
    frame->isNative = IsNative(frame->method);
    wantsNative |= frame->isNative;
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

bool AllocateFrames(int32_t count) {
    QorEndLocalSearch();
    const auto frames = static_cast<size_t>(count);
    gbQorWantedFrames = static_cast<QorWantedFrame *>(calloc(frames, sizeof(QorWantedFrame)));
    if (!gbQorWantedFrames)
        QORLOG(LOG_ERROR, "No memory for the %d frames whose locals are wanted", count);
    return gbQorWantedFrames;
}

QorWantedFrame *FindInBucket(int64_t method) {
    for (QorWantedFrame *frame = bucketBegin; frame < bucketEnd; frame++)
        if (frame->method == method)
            return frame;
    return nullptr;
}

void OpenBucket(int64_t tid) {
    if (tid == bucketTid)
        return;
    bucketTid = tid;
    QorWantedFrame *end = gbQorWantedFrames + gbQorWantedFrameCount;
    bucketBegin = std::lower_bound(gbQorWantedFrames, end, tid,
                                   [](const QorWantedFrame &frame, int64_t id) { return frame.tid < id; });
    bucketEnd = bucketBegin;
    while (bucketEnd < end && bucketEnd->tid == tid)
        bucketEnd++;
}

// The JVM doesn't hear an abort at a JNI local and goes on with the stack: the callbacks say it again until
// it does.
jint Abort(QorLocalWalkEnd end, int32_t kind) {
    set_FollowRefHack();
    gbQorLocalWalkOutcome.end = end;
    gbQorLocalWalkOutcome.kind = kind;
    return JVMTI_VISIT_ABORT;
}

bool IsOutOfTime() {
    if (!walkHasBudget || iIterationCount % BUDGET_INTERVAL != 0)
        return false;
    gbQorLocalWalkOutcome.usec = qorLocalWalkClock() - walkStart;
    return gbQorLocalWalkOutcome.usec > lAllowedFollowRefTimeUSec;
}

// Makes a prepared reference refer to the object. On the JVM builds that getObjOpt names the object's address
// stands two words in front of its tag, and a global reference is the address of a word that holds an
// object's.
void PutIntoSlot(QorWantedFrame *frame, const jlong *tagPtr) {
    if (!tagPtr || frame->hits >= LOCAL_OBJECT_SLOTS || !frame->record->localObjects[frame->hits])
        return;
    memcpy(frame->record->localObjects[frame->hits], tagPtr - 2, sizeof(void *));
}

// The object's number in this walk; 0 when it is of no use or finds no room.
int32_t NumberOf(const QorWantedFrame &frame, jlong classTag, jlong *tagPtr) {
    if (!tagPtr || *tagPtr < 0 || frame.isSettled || (classTag == BORING_CLASS && !frame.keepsAll))
        return 0;
    if (*tagPtr > gbQorTagBase && *tagPtr <= gbQorTagBase + gbQorTagCount)
        return static_cast<int32_t>(*tagPtr - gbQorTagBase);
    if (gbQorTagCount == LOCAL_TAGS) {
        gbQorLocalWalkOutcome.passedOver++;
        return 0;
    }
    *tagPtr = gbQorTagBase + ++gbQorTagCount;
    lastFrameOfTag[gbQorTagCount] = -1;
    return gbQorTagCount;
}

// Whether the object is new to the frame.
bool AddFinding(QorWantedFrame *frame, int32_t tag) {
    const auto index = static_cast<int32_t>(frame - gbQorWantedFrames);
    if (lastFrameOfTag[tag] == index)
        return false;
    if (findingCount == LOCAL_FINDINGS || frame->candidates == LOCAL_CANDIDATES) {
        gbQorLocalWalkOutcome.passedOver++;
        return false;
    }
    lastFrameOfTag[tag] = index;
    gbQorFindings[findingCount] = {tag, -1};
    if (frame->last >= 0)
        gbQorFindings[frame->last].next = findingCount;
    else
        frame->first = findingCount;
    frame->last = findingCount++;
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

void TakeObject(QorWantedFrame *frame, jlong classTag, jlong *tagPtr) {
    const bool hasSlots = frame->record && getObjOpt;
    if (hasSlots)
        PutIntoSlot(frame, tagPtr);
    const int32_t tag = hasSlots && !frame->rules ? 0 : NumberOf(*frame, classTag, tagPtr);
    if (tag && AddFinding(frame, tag))
        Settle(frame, classTag);
    if (frame->hits++ == 0)
        iRecordsWithoutHits -= frame->record && frame->rules ? 2 : 1;
    gbQorAllThreadLocalInfoList = frame->record;
}

jint VisitStackLocal(const jvmtiHeapReferenceInfo *info, jlong classTag, jlong *tagPtr) {
    const int64_t tid = info->stack_local.thread_id;
    if (threadCount == 0 && tid != threadHit)
        return Abort(WALK_THREADS_SEEN, JVMTI_HEAP_REFERENCE_STACK_LOCAL);
    if (tid == threadSkip)
        return JVMTI_VISIT_OBJECTS;
    OpenBucket(tid);
    threadSkip = tid;
    if (bucketBegin < bucketEnd) {
        threadSkip = -1;
        if (threadHit != tid) {
            threadHit = tid;
            threadCount--;
        }
        QorWantedFrame *frame = FindInBucket(reinterpret_cast<int64_t>(info->stack_local.method));
        if (frame) {
            TakeObject(frame, classTag, tagPtr);
            return JVMTI_VISIT_OBJECTS;
        }
    }
    IsAbort = iRecordsWithoutHits == 0;
    return IsAbort ? Abort(WALK_RECORDS_HIT, JVMTI_HEAP_REFERENCE_STACK_LOCAL) : JVMTI_VISIT_OBJECTS;
}

// From JDK 11 on the constants of compiled code come as JNI locals of its method: only those of a native
// method are locals.
void VisitJniLocal(const jvmtiHeapReferenceInfo *info, jlong classTag, jlong *tagPtr) {
    if (!wantsNative)
        return;
    OpenBucket(info->jni_local.thread_id);
    QorWantedFrame *frame = FindInBucket(reinterpret_cast<int64_t>(info->jni_local.method));
    if (frame && frame->isNative)
        TakeObject(frame, classTag, tagPtr);
}

// A thread and its locals come ahead of all other roots, so the first root of these kinds is the end of what
// can be found. A walk that goes on to the references between objects costs a pass over the heap, even if it
// is ended at the first of them.
jint VisitOther(jvmtiHeapReferenceKind kind) {
    if (gbIbmJvm)
        return JVMTI_VISIT_OBJECTS;
    if (kind <= LAST_HEAP_KIND)
        return Abort(WALK_HEAP_REACHED, kind);
    const bool isBehindStacks = kind == JVMTI_HEAP_REFERENCE_JNI_GLOBAL ||
                                kind == JVMTI_HEAP_REFERENCE_SYSTEM_CLASS ||
                                kind == JVMTI_HEAP_REFERENCE_MONITOR || kind == JVMTI_HEAP_REFERENCE_OTHER;
    return isBehindStacks && stacksSeen ? Abort(WALK_BEHIND_STACKS, kind) : JVMTI_VISIT_OBJECTS;
}

void CountCallback(jvmtiHeapReferenceKind kind) {
    iIterationCount++;
    if (kind >= 0 && static_cast<int32_t>(kind) < LOCAL_WALK_KINDS)
        gbQorLocalWalkKinds[kind]++;
    if (kind == JVMTI_HEAP_REFERENCE_JNI_LOCAL && !qorIsPollOrTrace)
        iJNILocalCount++;
    if (kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL || kind == JVMTI_HEAP_REFERENCE_JNI_LOCAL ||
        kind == JVMTI_HEAP_REFERENCE_THREAD)
        stacksSeen = true;
}

} // namespace

bool QorPrepareLocalSearch(QorAllThreadLocalInfoList *list) {
    ClearFindings();
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
    if (!AllocateFrames(count))
        return false;
    curList = oldest;
    int32_t at = 0;
    for (QorAllThreadLocalInfoList *entry = curList; entry; entry = entry->prev, at++) {
        QorWantedFrame &frame = gbQorWantedFrames[at];
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
    std::sort(gbQorWantedFrames, gbQorWantedFrames + count, ComesBefore);
    gbQorWantedFrameCount = DropNewerTwins(gbQorWantedFrames, count);
    threadCount = 0;
    for (int32_t i = 0; i < gbQorWantedFrameCount; i++) {
        StartFrame(&gbQorWantedFrames[i]);
        if (i == 0 || gbQorWantedFrames[i].tid != gbQorWantedFrames[i - 1].tid)
            threadCount++;
    }
    iRecordsWithoutHits = count;
    return true;
}

bool QorPrepareFrameSearch(int64_t tid, int64_t method) {
    ClearFindings();
    if (!AllocateFrames(1))
        return false;
    QorWantedFrame *frame = gbQorWantedFrames;
    frame->tid = tid;
    frame->method = method;
    frame->keepsAll = true;
    StartFrame(frame);
    gbQorWantedFrameCount = threadCount = iRecordsWithoutHits = 1;
    return true;
}

void QorEndLocalSearch() {
    free(gbQorWantedFrames);
    gbQorWantedFrames = nullptr;
    gbQorWantedFrameCount = 0;
    curList = gbQorAllThreadLocalInfoList = nullptr;
}

void QorStartLocalWalkTime(int64_t now, bool hasBudget) {
    walkStart = now;
    walkHasBudget = hasBudget;
}

bool QorLocalWalkTimeIsUp() {
    return walkHasBudget && qorLocalWalkClock() - walkStart > lAllowedFollowRefTimeUSec;
}

jint JNICALL heapReferenceAllObjectCallback(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                            jlong classTag, jlong, jlong, jlong *tagPtr, jlong *, jint,
                                            void *) {
    if (gbQorLocalWalkOutcome.end != WALK_NOT_ENDED)
        return JVMTI_VISIT_ABORT;
    CountCallback(kind);
    if (IsOutOfTime())
        return Abort(WALK_OUT_OF_TIME, kind);
    if (kind != JVMTI_HEAP_REFERENCE_STACK_LOCAL && kind != JVMTI_HEAP_REFERENCE_JNI_LOCAL)
        return VisitOther(kind);
    if (!info) {
        gbQorLocalWalkOutcome.missingInfos++;
        return JVMTI_VISIT_OBJECTS;
    }
    if (kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL)
        return VisitStackLocal(info, classTag, tagPtr);
    VisitJniLocal(info, classTag, tagPtr);
    return JVMTI_VISIT_OBJECTS;
}

// The locals of a frame come in a row: the first one of another frame behind them ends the walk.
jint JNICALL heapReferenceOneObjectCallback(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info,
                                            jlong classTag, jlong, jlong, jlong *tagPtr, jlong *, jint,
                                            void *userData) {
    auto *frame = static_cast<QorWantedFrame *>(userData);
    if (gbQorLocalWalkOutcome.end != WALK_NOT_ENDED)
        return JVMTI_VISIT_ABORT;
    CountCallback(kind);
    if (IsOutOfTime())
        return Abort(WALK_OUT_OF_TIME, kind);
    const bool isStackLocal = kind == JVMTI_HEAP_REFERENCE_STACK_LOCAL;
    if (!isStackLocal && kind != JVMTI_HEAP_REFERENCE_JNI_LOCAL)
        return VisitOther(kind);
    if (!info || (!isStackLocal && !frame->isNative))
        return JVMTI_VISIT_OBJECTS;
    const int64_t tid = isStackLocal ? info->stack_local.thread_id : info->jni_local.thread_id;
    const jmethodID method = isStackLocal ? info->stack_local.method : info->jni_local.method;
    if (tid == frame->tid && reinterpret_cast<int64_t>(method) == frame->method) {
        TakeObject(frame, classTag, tagPtr);
        return JVMTI_VISIT_OBJECTS;
    }
    return frame->hits > 0 ? Abort(WALK_FRAME_LEFT, kind) : JVMTI_VISIT_OBJECTS;
}
