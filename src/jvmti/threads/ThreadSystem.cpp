#include "ThreadSystem.h"

#include "MethodTable.h"
#include "MonitorsManagement.h"
#include "MountedThreads.h"
#include "VirtualFields.h"
#include "VirtualGroups.h"
#include "VirtualSets.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <cstring>
#include <sys/time.h>
#include <unistd.h>

// The snapshot of the open walk. The worker owns all of it; one walk is open at a time.
//
// Its thread references are in a local frame of their own, which the close pops with everything that was
// made since the snapshot: hundreds of them would overrun the worker's plain frame.

static jvmtiStackInfo *qorstack_info_ptr;       // what QorTakeStacks gave; null when no walk is open
static jint threads_count;                      // its entries, not capped
static jthread gbjThreadList[MAX_WALK_THREADS]; // its first threads
static int64_t walkThreadIds[MAX_WALK_THREADS]; // their Java thread ids, 0: not read yet
static QorThreadKind walkThreadKinds[MAX_WALK_THREADS];
static bool snapshotFramePushed;   // the snapshot's local frame is open
static int32_t nThreadExceedCount; // spaces out the overflow message
static int32_t iAttachTotalRun;    // walks, wraps

namespace {

constexpr int32_t RUNS_PER_LINE = 5000;
constexpr int32_t SAMPLES_PER_OVERFLOW_LINE = 900;
constexpr int32_t INDEX_LIMIT = MAX_WALK_THREADS + 1;
constexpr jint SNAPSHOT_FRAME_CAPACITY = 4096; // the most that HotSpot grants
constexpr jint REFERENCES_OF_A_VIEW = 64;
constexpr char NO_NAME[] = "^";
constexpr int64_t SEARCH_USEC = 1000000;
constexpr int64_t MISSING_USEC = 10 * SEARCH_USEC;

void FreeSnapshotArray(int32_t threshold) {
    const jvmtiError error = jvmti->Deallocate(reinterpret_cast<unsigned char *>(qorstack_info_ptr));
    if (error != JVMTI_ERROR_NONE)
        QORLOG(threshold, "Error while deallocating stack_info_ptr %d", error);
    qorstack_info_ptr = nullptr;
}

void PopSnapshotFrame() {
    if (snapshotFramePushed)
        QorPopLocalFrame(jvmtijni_env, nullptr);
    snapshotFramePushed = false;
}

// Threads beyond the cap are not seen; the line says so once in many samples.
void CapThreadCount(QorThreadHandle *handle) {
    if (handle->count <= MAX_WALK_THREADS)
        return;
    if (nThreadExceedCount == SAMPLES_PER_OVERFLOW_LINE)
        nThreadExceedCount = 0;
    if (nThreadExceedCount == 0)
        QORLOG(LOG_NOTE, "Thread Count exceeding 1024 threads. Messages are suppressed.");
    nThreadExceedCount++;
    handle->count = MAX_WALK_THREADS;
}

void TakeSnapshot(QorThreadHandle *handle) {
    handle->count = 0;
    handle->index = -1;
    if (qorstack_info_ptr)
        FreeSnapshotArray(LOG_ERROR);
    if (!jvmti || !jvmtijni_env)
        return;
    if (qorIsPollOrTrace == 0)
        QORLOG(LOG_DETAIL, "Calling GetAllStackTraces for %d deep", maxStackDepthQueried);
    threads_count = 0;
    snapshotFramePushed = QorPushLocalFrame(jvmtijni_env, SNAPSHOT_FRAME_CAPACITY) == JNI_OK;
    if (!snapshotFramePushed) {
        QorLogNoFrame(LOG_ERROR);
        return;
    }
    const jvmtiError error = QorTakeStacks(maxStackDepthQueried, &qorstack_info_ptr, &threads_count,
                                           walkThreadKinds, MAX_WALK_THREADS);
    if (qorIsPollOrTrace == 0)
        QORLOG(LOG_NOTE, "GetAllStackTraces (%d deep) returns %d threads_count", maxStackDepthQueried,
               threads_count);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_NOTE, "Failed to Get Stack Trace. Error expected %d,got %d", JVMTI_ERROR_NONE, error);
        describe(error);
        qorstack_info_ptr = nullptr;
        threads_count = 0;
        PopSnapshotFrame();
        return;
    }
    if (threads_count > SNAPSHOT_FRAME_CAPACITY - REFERENCES_OF_A_VIEW) {
        jvmtijni_env->EnsureLocalCapacity(REFERENCES_OF_A_VIEW);
        QorClearException(jvmtijni_env);
    }
    handle->threads = gbjThreadList;
    handle->count = threads_count;
    CapThreadCount(handle);
    for (int32_t i = 0; i < handle->count; i++)
        gbjThreadList[i] = qorstack_info_ptr[i].thread;
    memset(walkThreadIds, 0, sizeof walkThreadIds);
    QorRefreshIdField();
}

// Its stack becomes the snapshot, without the scheduler's frames.
bool TakeSnapshotOf(jthread thread) {
    if (jvmti->GetThreadListStackTraces(1, &thread, maxStackDepthQueried, &qorstack_info_ptr) !=
        JVMTI_ERROR_NONE) {
        qorstack_info_ptr = nullptr;
        return false;
    }
    const jint skipped =
        QorCountSchedulerFrames(qorstack_info_ptr->frame_buffer, qorstack_info_ptr->frame_count);
    qorstack_info_ptr->frame_buffer += skipped;
    qorstack_info_ptr->frame_count -= skipped;
    gbjThreadList[0] = thread;
    walkThreadKinds[0] = THREAD_UNMOUNTED;
    threads_count = 1;
    return true;
}

jthread ThreadAtCursor(const QorThreadHandle *handle) {
    if (!handle || !handle->threads || handle->index < 0 || handle->index >= handle->count)
        return nullptr;
    return handle->threads[handle->index];
}

void LogCallFailed(jvmtiError error) {
    QORLOG(LOG_NOTE, "(GetThreadInfo) Error expected: %d, got: %d", JVMTI_ERROR_NONE, error);
    describe(error);
    jvmtiPhase phase = JVMTI_PHASE_LIVE;
    jvmti->GetPhase(&phase);
    QORLOG(LOG_NOTE, "    current phase is %d", phase);
}

void ReadSystemThreadId(jthread thread, QorThreadRecord *record) {
    if (gbIbmJvm == 0)
        return;
    record->ostid = iCanGetOSThreadID != 0 ? QorGetOSThreadID(thread) : -1;
    QORLOG(LOG_TRACE, "QorGetOSThreadID Thread ID %d OSThreadID %d", static_cast<int>(record->tid),
           static_cast<int>(record->ostid));
}

// The state now or, where asking for a thread that ends at the moment would break the JVM, the snapshot's.
jvmtiError ReadState(const jvmtiStackInfo &stack, jint *jvmtiState) {
    if (gbQorJvmKeepsThreads)
        return jvmti->GetThreadState(stack.thread, jvmtiState);
    *jvmtiState = stack.state;
    return JVMTI_ERROR_NONE;
}

// Everything about a thread that JVMTI reports, inside the caller's local frame.
int32_t ReadThread(const QorThreadHandle *handle, QorThreadRecord *record, jint *jvmtiState) {
    const jvmtiStackInfo &stack = qorstack_info_ptr[handle->index];
    jthread thread = stack.thread;
    // What can't be read must not be the last thread's: views use one record for all of a walk.
    record->tid = record->ostid = 0;
    record->name[0] = 0;
    jvmtiThreadInfo info = {};
    jvmtiError error = jvmti->GetThreadInfo(thread, &info);
    if (error != JVMTI_ERROR_NONE) {
        LogCallFailed(error);
        return -1;
    }
    record->priority = info.priority;
    record->daemon = info.is_daemon ? 1 : 0;
    if (info.name) {
        QorCopyName(record->name, info.name);
        error = jvmti->Deallocate(reinterpret_cast<unsigned char *>(info.name));
        if (error != JVMTI_ERROR_NONE) {
            QORLOG(LOG_ERROR, "  (Deallocate) Error expected: %d, got: %d", JVMTI_ERROR_NONE, error);
            describe(error);
        }
    }
    if (!record->name[0] && QorIsVirtual(handle, handle->index))
        QorCopyName(record->name, NO_NAME); // virtual threads mostly have none
    error = ReadState(stack, jvmtiState);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG_RATIONED(LOG_ERROR, " Failed to Get Thread State. Error expected: %d, got: %d",
                        JVMTI_ERROR_NONE, error);
        return -1;
    }
    record->tid = QorGetWalkThreadId(handle, handle->index);
    if (record->tid != 0)
        ReadSystemThreadId(thread, record);
    return 0;
}

} // namespace

void QorInitThreadHandle(QorThreadHandle *handle) {
    if (++iAttachTotalRun > RUNS_PER_LINE) {
        QORLOG(LOG_DETAIL, "QorAgent : total run 5000");
        iAttachTotalRun = 0;
    }
    qorstack_info_ptr = nullptr; // whoever ended the last walk has freed it
    snapshotFramePushed = false;
    QorCloseMonitorSample(); // a fault may have ended the last walk
    *handle = {nullptr, 0, -1};
}

QorThreadHandle *QorGetJVMThread(QorThreadHandle *handle, int32_t) {
    if (!handle) {
        QORLOG(LOG_ERROR, " CurrentThread NULL");
        return nullptr;
    }
    if (!handle->threads)
        TakeSnapshot(handle);
    handle->index++;
    return handle;
}

bool QorTurnToVirtual(QorThreadHandle *handle, int64_t tid) {
    static int64_t missingId, missingUntil;
    QorCloseThreadHandle(handle);
    handle->count = handle->index = 0;
    const bool isMissing = qorIsPollOrTrace && tid == missingId && QorVirtualClock() < missingUntil;
    if (isMissing || !QorCanSeeMounted() || QorLookUpVirtual() != VIRTUAL_READY)
        return false;
    snapshotFramePushed = QorPushLocalFrame(jvmtijni_env, REFERENCES_OF_A_VIEW) == JNI_OK;
    jthread thread = snapshotFramePushed ? QorFindVirtualThread(tid, SEARCH_USEC) : nullptr;
    if (!thread || !TakeSnapshotOf(thread)) {
        missingId = tid;
        missingUntil = QorVirtualClock() + MISSING_USEC;
        PopSnapshotFrame();
        return false;
    }
    walkThreadIds[0] = tid;
    *handle = {gbjThreadList, 1, 0};
    return true;
}

void QorCloseThreadHandle(QorThreadHandle *) {
    QorDropMethodFacts();
    QorCloseMonitorSample(); // no answer of this walk may pass for one of the next
    if (!qorstack_info_ptr)
        return;
    PopSnapshotFrame(); // takes all of the snapshot's references with it
    FreeSnapshotArray(LOG_WARNING);
    threads_count = 0;
}

int32_t QorGetThreadInfo(QorThreadHandle *handle, QorThreadRecord *record) {
    if (!ThreadAtCursor(handle) || !qorstack_info_ptr)
        return -1;
    QorLocalFrame frame(jvmtijni_env, 1); // for the group and the loader that come with the name
    if (!frame.pushed) {
        QorLogNoFrame(LOG_ERROR);
        return -1;
    }
    jint jvmtiState = 0;
    if (ReadThread(handle, record, &jvmtiState) != 0)
        return -1;
    record->state = mapThreadStatetoQorState(jvmtiState, record->tid);
    record->handle = handle;
    static QorFrameHandle frames;
    if (walkThreadKinds[handle->index] == THREAD_UNMOUNTED && QorGetFrames(handle, &frames) > 0)
        QorRefineUnmounted(&frames, record);
    return 0;
}

int64_t QorGetWalkThreadId(const QorThreadHandle *handle, int32_t index) {
    if (!handle || !handle->threads || index < 0 || index >= handle->count)
        return 0;
    if (walkThreadIds[index] == 0)
        QorReadThreadId(handle->threads[index], &walkThreadIds[index]);
    return walkThreadIds[index];
}

const jvmtiStackInfo *QorWalkStack(const QorThreadHandle *handle, int32_t index) {
    const bool inWalk = handle && handle->threads && index >= 0 && index < handle->count;
    return inWalk && qorstack_info_ptr ? &qorstack_info_ptr[index] : nullptr;
}

QorThreadKind QorWalkThreadKind(const QorThreadHandle *handle, int32_t index) {
    return QorWalkStack(handle, index) ? walkThreadKinds[index] : THREAD_PLATFORM;
}

bool QorIsVirtual(const QorThreadHandle *handle, int32_t index) {
    return QorWalkThreadKind(handle, index) >= THREAD_MOUNTED;
}

int64_t QorGetPartnerId(const QorThreadHandle *handle, int32_t index) {
    switch (QorWalkThreadKind(handle, index)) {
    case THREAD_CARRIER:
        return QorGetWalkThreadId(handle, index + 1);
    case THREAD_MOUNTED:
        return QorGetWalkThreadId(handle, index - 1);
    default:
        return 0;
    }
}

int32_t QorGetFrames(QorThreadHandle *handle, QorFrameHandle *frameHandle) {
    if (!frameHandle) {
        QORLOG(LOG_ERROR, "  QorGetFrames: Frame Handle is NULL");
        QORLOG(LOG_ERROR, " QorGetFrames: Frame NULL");
        return -1;
    }
    frameHandle->index = 0;
    frameHandle->count = 0;
    if (handle && handle->index >= INDEX_LIMIT) {
        QORLOG(LOG_ERROR, "  Getting Index greater than 1024");
        return -1;
    }
    if (!ThreadAtCursor(handle) || !qorstack_info_ptr) {
        QORLOG(LOG_ERROR, "  QorGetFrames: Thread is NULL, Can't get the frames");
        return -1;
    }
    const jvmtiStackInfo &stack = qorstack_info_ptr[handle->index];
    int32_t count = stack.frame_count;
    if (count > maxStackDepthQueried) {
        QORLOG(LOG_NOTE, "Thread id %d Frames %d greater than %d. Flushing extra frames .", handle->index,
               count, maxStackDepthQueried);
        count = maxStackDepthQueried;
    }
    if (count > MAX_FRAMES)
        count = MAX_FRAMES; // the depth is a setting, the array is not
    if (count < 0)
        count = 0;
    if (count > 0)
        memcpy(frameHandle->frames, stack.frame_buffer, static_cast<size_t>(count) * sizeof(jvmtiFrameInfo));
    frameHandle->count = count;
    return count;
}

int32_t GetOSRValue() {
    struct timeval before, after;
    gettimeofday(&before, nullptr);
    sleep(0);
    gettimeofday(&after, nullptr);
    const int32_t seconds = static_cast<int32_t>(after.tv_sec - before.tv_sec);
    return seconds * 1000000 + static_cast<int32_t>(after.tv_usec - before.tv_usec);
}
