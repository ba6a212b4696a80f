// A walk tags the objects that it finds by numbers of its own, in an environment of its own, and takes the
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
#include "jvmti/changes/followRefHackHelper.h"
#include "qorStrUtils.h"
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

jvmtiEnv *gbQorLocalWalkEnv;

namespace {

constexpr jint JNI_OF_GET_OBJ_OPT = 0x00010006;
constexpr int UPDATE_DIGITS = 6; // where a version text such as "1.6.0_45" has its update
constexpr int FIRST_OTHER_UPDATE = 50;
constexpr int32_t SPARE_REFS = 64;
constexpr int64_t USEC_PER_SEC = 1000000;
constexpr int32_t ALL_TIME = 100; // percent
constexpr int64_t MOST_OLD_TAGS = 2 * LOCAL_TAGS;

// With it go all tags, whatever objects have them.
void CloseWalkEnv() {
    QorCloseTagEnvironment(gbQorLocalWalkEnv);
    gbQorLocalWalkEnv = nullptr;
    gbQorTagBase = 0;
}

bool OpenWalkEnv() {
    // A fault has cut the last walk short: its tags would pass for those of this one. Those that look-ups had
    // no time for are older than any number of this walk, but cost time.
    if (gbQorTagCount > 0 || gbQorTagBase > MOST_OLD_TAGS)
        CloseWalkEnv();
    if (!gbQorLocalWalkEnv && jvmti)
        gbQorLocalWalkEnv = QorOpenTagEnvironment();
    return gbQorLocalWalkEnv;
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

int32_t Follow(jvmtiHeapReferenceCallback callback, void *userData) {
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_reference_callback = callback;
    const jvmtiError error = gbQorLocalWalkEnv->FollowReferences(0, nullptr, nullptr, &callbacks, userData);
    check_FollowRefHack();
    QorClearException(jvmtijni_env);
    return error;
}

// What the callback has met and may not write itself.
void LogCallbackLines(int64_t end) {
    const QorLocalWalkOutcome &outcome = gbQorLocalWalkOutcome;
    if (outcome.missingInfos > 0)
        QORLOG(LOG_NOTE, " IMPORTANT reference_info NULL\n");
    if (outcome.passedOver > 0)
        QORLOG_RATIONED(LOG_ERROR, "TAG too huge to fit in");
    for (int32_t i = 0; i < gbQorWantedFrameCount; i++)
        if (gbQorWantedFrames[i].isNative && gbQorWantedFrames[i].hits > 0)
            QORLOG(LOG_DETAIL, "FollowRef  Methos ID %x match",
                   static_cast<uint32_t>(gbQorWantedFrames[i].method));
    switch (outcome.end) {
    case WALK_OUT_OF_TIME:
        QorReportLocalWalkAbort(end, iIterationCount, outcome.usec, outcome.kind);
        break;
    case WALK_THREADS_SEEN:
        QORLOG(LOG_DETAIL, "Aborting GetLocalObj when threadCount=0 after %d iterations. ", iIterationCount);
        break;
    case WALK_RECORDS_HIT:
        QORLOG(LOG_DETAIL, "Aborting GetLocalObj when IsAbort=1 after %d iterations. ", iIterationCount);
        break;
    case WALK_HEAP_REACHED:
        QORLOG(
            LOG_DETAIL,
            "Aborting GetLocalObj when reference_kind<JVMTI_HEAP_REFERENCE_JNI_GLOBAL after %d iterations. ",
            iIterationCount);
        break;
    case WALK_BEHIND_STACKS:
        QORLOG(LOG_DETAIL, "Aborting GetLocalObj behind the stacks after %d iterations. Current refKind = %d",
               iIterationCount, outcome.kind);
        break;
    case WALK_FRAME_LEFT:
    case WALK_NOT_ENDED:
        break;
    }
}

// Whether objects may be missing that a longer walk would have found.
bool WasCut() {
    const QorLocalWalkOutcome &outcome = gbQorLocalWalkOutcome;
    return outcome.end == WALK_OUT_OF_TIME || outcome.passedOver > 0 || outcome.notLookedUp > 0;
}

void LogWalk(int64_t start, int64_t end) {
    LogCallbackLines(end);
    if (threadCount != 0)
        QORLOG(LOG_DETAIL, "Lost %d threads during getlocalobj ", threadCount);
    QORLOG(LOG_DETAIL, "Iteration count for heap is %ld", static_cast<long>(iIterationCount));
    QorCountLocalWalk(start, end, iIterationCount);
    if (qorIsPollOrTrace)
        QorDumpTime(start / USEC_PER_SEC, start % USEC_PER_SEC, end / USEC_PER_SEC, end % USEC_PER_SEC,
                    "Local Variable traversal");
    else
        QORLOG(LOG_NOTE, "LTA GetLocals took %ld usec (%d iterations, %d JNI locals)",
               static_cast<long>(end - start), iIterationCount, iJNILocalCount);
}

void AttachObject(const QorWantedFrame &frame) {
    QorAllThreadLocalInfoList *record = frame.record;
    record->localCount = frame.hits;
    jobject chosen =
        QorChooseLocalObject(frame, QorIsObjectOfInterest, gbQorLocalWalkEnv, record->strSignature);
    if (chosen)
        record->objLocalVarHandle = QorNewGlobalRef(jvmtijni_env, chosen);
    if (!record->objLocalVarHandle)
        record->strSignature[0] = 0;
}

// Attaches their objects to the records. JVMTI's error, 0 for none.
int32_t CollectObjects() {
    QorLocalFrame localFrame(jvmtijni_env, QorCountFoundObjects() + SPARE_REFS);
    if (!localFrame.pushed) {
        QORLOG(LOG_ERROR, "Out of Memory");
        return JVMTI_ERROR_OUT_OF_MEMORY;
    }
    const int32_t error = QorFetchFoundObjects(gbQorLocalWalkEnv);
    for (int32_t i = 0; i < gbQorWantedFrameCount; i++) {
        const QorWantedFrame &frame = gbQorWantedFrames[i];
        if (frame.hits > 0 && frame.record)
            AttachObject(frame);
        if (frame.hits > 0 && frame.rules)
            QorTakeRuleObjects(frame, QorIsObjectOfInterest, gbQorLocalWalkEnv, frame.rules);
    }
    return error;
}

bool EndsFrameSearch(const char *signature) {
    return IsQRFFrame(signature) || IsJSPFrame(signature) || IsDBFrame(signature);
}

// False, without references, when the frame's objects can't be read.
bool FetchFrameObjects() {
    if (QorPushLocalFrame(jvmtijni_env, QorCountFoundObjects() + SPARE_REFS) != 0) {
        QORLOG(LOG_ERROR, "Out of Memory");
        CloseWalkEnv();
        return false;
    }
    if (QorFetchFoundObjects(gbQorLocalWalkEnv) == JVMTI_ERROR_NONE)
        return true;
    QorPopLocalFrame(jvmtijni_env, nullptr);
    CloseWalkEnv();
    return false;
}

bool ReadFrameObject(QorLocalObjectRecord *record) {
    if (!FetchFrameObjects())
        return false;
    jobject chosen = QorChooseLocalObject(gbQorWantedFrames[0], EndsFrameSearch, nullptr, record->signature);
    record->object = QorPopLocalFrame(jvmtijni_env, chosen);
    if (record->object)
        record->klass = QorGetObjectClass(jvmtijni_env, record->object);
    return true;
}

// Whether a walk for the one frame has found objects.
bool WalkOneFrame(int64_t tid, int64_t method) {
    const int32_t quota = QorLocalWalkQuota();
    if (quota == 0 || !OpenWalkEnv() || !QorPrepareFrameSearch(tid, method))
        return false;
    lAllowedFollowRefTimeUSec = QOR_LOCAL_WALK_BUDGET_USEC;
    QorStartLocalWalkTime(qorLocalWalkClock(), quota < ALL_TIME);
    Follow(heapReferenceOneObjectCallback, gbQorWantedFrames);
    LogCallbackLines(qorLocalWalkClock());
    return QorCountFoundObjects() > 0;
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
    if (!QorLocalWalkIsDue(start) || !OpenWalkEnv() || !QorPrepareLocalSearch(list))
        return -1;
    QorSetLocalWalkBudget(start);
    QorStartLocalWalkTime(start, quota < ALL_TIME);
    const int32_t walkError = Follow(heapReferenceAllObjectCallback, nullptr);
    const int32_t tagError = CollectObjects();
    const int64_t end = qorLocalWalkClock(); // the look-up of tags keeps the JVM's threads too
    gbQorWalkCut = WasCut();
    LogWalk(start, end);
    getNextLocalObjTime(start, end);
    if (tagError != JVMTI_ERROR_NONE)
        CloseWalkEnv();
    QorEndLocalSearch();
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
    QorEndLocalSearch();
    return found ? 0 : -1;
}

void QorReadRuleObjects(QorAllThreadLocalInfoList *entry) {
    if (WalkOneFrame(entry->threadId, entry->frameMethod) && FetchFrameObjects()) {
        QorTakeRuleObjects(gbQorWantedFrames[0], QorIsObjectOfInterest, nullptr, entry);
        QorPopLocalFrame(jvmtijni_env, nullptr);
    }
    QorEndLocalSearch();
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
    QorEndLocalSearch();
    QorDropLocalListPool();
    QorForgetLocalWalks();
}
