// A walk tags the objects that it finds by its own numbers, in a separate environment, and takes the
// tags away again: an object can be a local of many frames, and the tags by which the session knows objects
// stay as they are. Only marks on classes stay, which say whether their objects can be of interest, so that
// the next walk passes over the bulk of the locals in the callback: looking up tags costs the JVM the square
// of their number. The look-up ends with the walk's budget; what classes it has learnt makes the next one
// shorter.
#include "LocalWalk.h"

#include "LocalChoice.h"
#include "LocalSearch.h"
#include "LocalWalkTimes.h"
#include "Xtier/tiers/tier.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "jvmti/followRefHackHelper.h"
#include "qorStrUtils.h"
#include "qorcost.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <cstdlib>
#include <cstring>

void *qorctiHasMore;
void *qorctiStep;
void *qorctiInitWithThread;
void *qorrefIterFillFromFrame;
void *qorrefIterInit;
void *qorrefIterFree;

jobjectArray gbQorHeldThreads;

namespace {

QorLocalWalk &walk = gbQorLocalWalk;

constexpr jint JNI_OF_GET_OBJ_OPT = 0x00010006;
constexpr int UPDATE_DIGITS = 6; // where a version text such as "1.6.0_45" has its update
constexpr int FIRST_OTHER_UPDATE = 50;
constexpr int32_t SPARE_REFS = 64;
constexpr int64_t USEC_PER_SEC = 1000000;
constexpr int32_t ALL_TIME = 100; // percent
constexpr int64_t MOST_OLD_TAGS = 2 * LOCAL_TAGS;

// All tags are removed too, whatever objects have them.
void CloseWalkEnv() {
    QorCloseTagEnvironment(walk.env);
    walk.env = nullptr;
    walk.tagBase = 0;
}

bool OpenWalkEnv() {
    // A fault has cut the last walk short: its tags would pass for those of this one. Those that look-ups had
    // no time for are older than any number of this walk, but cost time.
    if (walk.tagCount > 0 || walk.tagBase > MOST_OLD_TAGS)
        CloseWalkEnv();
    if (!walk.env && jvmti)
        walk.env = QorOpenTagEnvironment();
    return walk.env;
}

bool IsUpdateBelow50() {
    if (strlen(vers) <= UPDATE_DIGITS)
        return false;
    const char digits[] = {vers[UPDATE_DIGITS], vers[UPDATE_DIGITS + 1], 0};
    return atoi(digits) < FIRST_OTHER_UPDATE;
}

bool CanFillHandles() {
    return strstr(vers, "1.6") && strstr(vend, "Sun") && IsUpdateBelow50() && jvmtijni_env &&
           jvmtijni_env->GetVersion() == JNI_OF_GET_OBJ_OPT;
}

int32_t Follow(jvmtiHeapReferenceCallback callback) {
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_reference_callback = callback;
    const int64_t start = QorStopStarts();
    const jvmtiError error = walk.env->FollowReferences(0, nullptr, nullptr, &callbacks, &walk);
    QorStopEnded(STOP_LOCALS, start);
    check_FollowRefHack();
    QorClearException(jvmtijni_env);
    return error;
}

void TagHeldThreads(jobjectArray threads, jlong tag) {
    walk.env->SetTag(threads, tag);
    for (jsize i = 0, count = QorGetArrayLength(jvmtijni_env, threads); i < count; i++) {
        jobject thread = QorGetObjectArrayElement(jvmtijni_env, threads, i);
        if (!thread)
            return;
        walk.env->SetTag(thread, tag);
        QorDeleteLocalRef(jvmtijni_env, thread);
    }
}

int32_t FollowHeldThreads() {
    jobjectArray threads = gbQorHeldThreads;
    gbQorHeldThreads = nullptr; // a fault from here on must not leave it to the walks of other requests
    TagHeldThreads(threads, HELD_THREAD);
    const int32_t error = Follow(heapReferenceHeldThreadsCallback);
    TagHeldThreads(threads, 0);
    return error;
}

// What the callback has met and may not write itself.
void LogCallbackLines(int64_t end) {
    const QorLocalWalkOutcome &outcome = walk.outcome;
    if (outcome.missingInfos > 0)
        QORLOG(LOG_NOTE, " IMPORTANT reference_info NULL\n");
    if (outcome.passedOver > 0)
        QORLOG_RATIONED(LOG_ERROR, "TAG too huge to fit in");
    for (int32_t i = 0; i < walk.frameCount; i++)
        if (walk.frames[i].isNative && walk.frames[i].hits > 0)
            QORLOG(LOG_DETAIL, "FollowRef  Methos ID %x match", static_cast<uint32_t>(walk.frames[i].method));
    switch (outcome.end) {
    case WALK_OUT_OF_TIME:
        QorReportLocalWalkAbort(end, walk.iIterationCount, outcome.usec, outcome.kind);
        break;
    case WALK_THREADS_SEEN:
        QORLOG(LOG_DETAIL, "Aborting GetLocalObj when threadCount=0 after %d iterations. ",
               walk.iIterationCount);
        break;
    case WALK_RECORDS_HIT:
        QORLOG(LOG_DETAIL, "Aborting GetLocalObj when IsAbort=1 after %d iterations. ", walk.iIterationCount);
        break;
    case WALK_HEAP_REACHED:
        QORLOG(
            LOG_DETAIL,
            "Aborting GetLocalObj when reference_kind<JVMTI_HEAP_REFERENCE_JNI_GLOBAL after %d iterations. ",
            walk.iIterationCount);
        break;
    case WALK_BEHIND_STACKS:
        QORLOG(LOG_DETAIL, "Aborting GetLocalObj behind the stacks after %d iterations. Current refKind = %d",
               walk.iIterationCount, outcome.kind);
        break;
    case WALK_FRAME_LEFT:
    case WALK_NOT_ENDED:
        break;
    }
}

// Whether objects may be missing that a longer walk would have found.
bool WasCut() {
    const QorLocalWalkOutcome &outcome = walk.outcome;
    return outcome.end == WALK_OUT_OF_TIME || outcome.passedOver > 0 || outcome.notLookedUp > 0;
}

void LogWalk(int64_t start, int64_t end) {
    LogCallbackLines(end);
    if (walk.threadCount != 0)
        QORLOG(LOG_DETAIL, "Lost %d threads during getlocalobj ", walk.threadCount);
    QORLOG(LOG_DETAIL, "Iteration count for heap is %ld", static_cast<long>(walk.iIterationCount));
    QorCountLocalWalk(start, end, walk.iIterationCount);
    if (qorIsPollOrTrace)
        QorDumpTime(start / USEC_PER_SEC, start % USEC_PER_SEC, end / USEC_PER_SEC, end % USEC_PER_SEC,
                    "Local Variable traversal");
    else
        QORLOG(LOG_NOTE, "LTA GetLocals took %ld usec (%d iterations, %d JNI locals)",
               static_cast<long>(end - start), walk.iIterationCount, walk.iJNILocalCount);
}

void AttachObject(const QorWantedFrame &frame) {
    QorAllThreadLocalInfoList *record = frame.record;
    record->localCount = frame.hits;
    jobject chosen = QorChooseLocalObject(walk, frame, QorIsObjectOfInterest, walk.env, record->strSignature);
    if (chosen)
        record->objLocalVarHandle = QorNewGlobalRef(jvmtijni_env, chosen);
    if (!record->objLocalVarHandle)
        record->strSignature[0] = 0;
}

// Attaches their objects to the records. JVMTI's error, 0 for none.
int32_t CollectObjects() {
    QorLocalFrame localFrame(jvmtijni_env, QorCountFoundObjects(walk) + SPARE_REFS);
    if (!localFrame.pushed) {
        QORLOG(LOG_ERROR, "Out of Memory");
        return JVMTI_ERROR_OUT_OF_MEMORY;
    }
    const int32_t error = QorFetchFoundObjects(&walk);
    for (int32_t i = 0; i < walk.frameCount; i++) {
        const QorWantedFrame &frame = walk.frames[i];
        if (frame.hits > 0 && frame.record)
            AttachObject(frame);
        if (frame.hits > 0 && frame.rules)
            QorTakeRuleObjects(walk, frame, QorIsObjectOfInterest, walk.env, frame.rules);
    }
    return error;
}

bool EndsFrameSearch(const char *signature) {
    return IsQRFFrame(signature) || IsJSPFrame(signature) || IsDBFrame(signature);
}

// False, without references, when the frame's objects can't be read.
bool FetchFrameObjects() {
    if (QorPushLocalFrame(jvmtijni_env, QorCountFoundObjects(walk) + SPARE_REFS) != 0) {
        QORLOG(LOG_ERROR, "Out of Memory");
        CloseWalkEnv();
        return false;
    }
    if (QorFetchFoundObjects(&walk) == JVMTI_ERROR_NONE)
        return true;
    QorPopLocalFrame(jvmtijni_env, nullptr);
    CloseWalkEnv();
    return false;
}

bool ReadFrameObject(QorLocalObjectRecord *record) {
    if (!FetchFrameObjects())
        return false;
    jobject chosen = QorChooseLocalObject(walk, walk.frames[0], EndsFrameSearch, nullptr, record->signature);
    record->object = QorPopLocalFrame(jvmtijni_env, chosen);
    if (record->object)
        record->klass = QorGetObjectClass(jvmtijni_env, record->object);
    return true;
}

// Whether a walk for the one frame has found objects.
bool WalkOneFrame(int64_t tid, int64_t method) {
    const int32_t quota = QorLocalWalkQuota();
    if (quota == 0 || !OpenWalkEnv() || !QorPrepareFrameSearch(&walk, tid, method))
        return false;
    lAllowedFollowRefTimeUSec = QOR_LOCAL_WALK_BUDGET_USEC;
    QorStartLocalWalkTime(&walk, qorLocalWalkClock(), quota < ALL_TIME);
    Follow(heapReferenceOneObjectCallback);
    LogCallbackLines(qorLocalWalkClock());
    return QorCountFoundObjects(walk) > 0;
}

} // namespace

void checkGetObjOpt() {
    getObjOpt = CanFillHandles();
    if (getObjOpt)
        QORLOG(LOG_TRACE, "getObjOpt optimization is enabled for version %s from vendor %s.", vers, vend);
    else
        QORLOG(LOG_TRACE, "getObjOpt optimization is not enabled for version %s from vendor %s.", vers, vend);
}

int32_t QorGetLocalVariableForAllThread(QorAllThreadLocalInfoList *list) {
    const int32_t quota = QorLocalWalkQuota();
    if (!list || quota == 0)
        return -1;
    const int64_t start = qorLocalWalkClock();
    if (!QorLocalWalkIsDue(start) || !OpenWalkEnv() || !QorPrepareLocalSearch(&walk, list))
        return -1;
    QorSetLocalWalkBudget(start);
    QorStartLocalWalkTime(&walk, start, quota < ALL_TIME);
    const int32_t walkError = gbQorHeldThreads ? FollowHeldThreads() : Follow(heapReferenceAllObjectCallback);
    const int32_t tagError = CollectObjects();
    const int64_t end = qorLocalWalkClock(); // the look-up of tags keeps the JVM's threads too
    gbQorWalkCut = WasCut();
    LogWalk(start, end);
    getNextLocalObjTime(start, end);
    if (tagError != JVMTI_ERROR_NONE)
        CloseWalkEnv();
    QorEndLocalSearch(&walk);
    QorReportLocalWalks(end, walkError, tagError);
    return 0;
}

int32_t QorGetLocalObject(int64_t tid, int64_t method, QorLocalObjectRecord *record) {
    if (!record)
        return -1;
    record->object = nullptr;
    record->klass = nullptr;
    record->signature[0] = 0;
    const bool found = WalkOneFrame(tid, method) && ReadFrameObject(record);
    QorEndLocalSearch(&walk);
    return found ? 0 : -1;
}

void QorReadRuleObjects(QorAllThreadLocalInfoList *entry) {
    if (WalkOneFrame(entry->threadId, entry->frameMethod) && FetchFrameObjects()) {
        QorTakeRuleObjects(walk, walk.frames[0], QorIsObjectOfInterest, nullptr, entry);
        QorPopLocalFrame(jvmtijni_env, nullptr);
    }
    QorEndLocalSearch(&walk);
}

int32_t QorGetReLocalObject(int64_t tid, int64_t method, QorLocalObjectRecord *record) {
    if (!qorctiHasMore || !qorctiStep || !qorctiInitWithThread || !qorrefIterFillFromFrame ||
        !qorrefIterInit || !qorrefIterFree)
        return -1;
    return QorGetLocalObject(tid, method, record);
}

void QorForgetBoringClasses() {
    CloseWalkEnv();
}

void QorCloseLocalWalk() {
    CloseWalkEnv();
    QorEndLocalSearch(&walk);
    QorDropLocalListPool();
    QorForgetLocalWalks();
    QorForgetCost();
}
