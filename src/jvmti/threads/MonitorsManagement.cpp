#include "MonitorsManagement.h"

#include "MethodTable.h"
#include "MonitorMemo.h"
#include "VirtualMonitors.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "jvmti/ValueText.h"
#include "qorcost.h"
#include "qorlog.h"

#include <algorithm>
#include <cstdlib>

// The bean answers for many threads in one call. An answer is an array of ThreadInfo in the order of the ids
// asked for, with nulls for threads that have ended, kept as a global reference: the views open and close
// local frames between two threads of a walk. Ids at or below 0 are left out, since one of them makes the
// whole call throw.
//
// Which lock a thread waits for, and who owns it, is asked for the threads alone that the snapshot shows
// where they may wait, and never kept: the owner changes without their doing. The same call says how often
// the threads have waited whose monitors are remembered.

namespace {

// The answer of one bean call for the threads [first, first + count) of the walk.
struct InfoBatch {
    jobjectArray infos; // global reference; null when nothing was answered
    int32_t first, count;
    int16_t position[MAX_WALK_THREADS]; // by walk index minus first; -1: not asked for
};

// A single sample's state; QorCloseMonitorSample ends it.
struct MonitorSample {
    bool open;
    bool usable; // the bean is there and the JVM supports contention monitoring
    bool waitsFetched;
    jobject bean; // global reference
    jmethodID getThreadInfos, getThreadInfosWithLocks, getThreadInfo;
    jmethodID getLockOwnerId, getLockName, getLockedMonitors, getWaitedCount, getBlockedCount; // ThreadInfo's
    jmethodID getLockedStackDepth, lockToString; // of MonitorInfo and its superclass
    int32_t largestBatch, lastBatch, ownedUsed;  // threads to ask about, asked about, and of these looked at
};

MonitorSample sample;
InfoBatch waits;
InfoBatch owned;

// Looks a method id up once a sample.
jmethodID MethodOnce(jmethodID *id, jclass klass, const char *name, const char *signature) {
    if (!*id)
        *id = QorGetMethodID(jvmtijni_env, klass, name, signature);
    return *id;
}

// getThreadMXBean and what is asked of the bean itself.
void OpenSample() {
    sample = {};
    sample.open = true;
    sample.largestBatch = QorMemoUsable() ? MEMO_BATCH : OWNED_BATCH;
    if (!gbjcManagementClass)
        return;
    jmethodID getBean = QorGetStaticMethodID(jvmtijni_env, gbjcManagementClass, "getThreadMXBean",
                                             "()Ljava/lang/management/ThreadMXBean;");
    if (!getBean)
        return;
    jobject bean = jvmtijni_env->CallStaticObjectMethod(gbjcManagementClass, getBean);
    if (QorClearException(jvmtijni_env) || !bean)
        return;
    jclass klass = QorFindClass(jvmtijni_env, "java/lang/management/ThreadMXBean");
    if (!klass)
        return;
    jmethodID supported = QorGetMethodID(jvmtijni_env, klass, "isThreadContentionMonitoringSupported", "()Z");
    if (!supported || !QorCallBooleanMethod(jvmtijni_env, bean, supported))
        return;
    sample.getThreadInfo =
        QorGetMethodID(jvmtijni_env, klass, "getThreadInfo", "(J)Ljava/lang/management/ThreadInfo;");
    sample.getThreadInfos =
        QorGetMethodID(jvmtijni_env, klass, "getThreadInfo", "([J)[Ljava/lang/management/ThreadInfo;");
    sample.getThreadInfosWithLocks =
        QorGetMethodID(jvmtijni_env, klass, "getThreadInfo", "([JZZ)[Ljava/lang/management/ThreadInfo;");
    if (!sample.getThreadInfos || !sample.getThreadInfosWithLocks) {
        QORLOG(LOG_ERROR, "  Failed to get methodID for getThreadInfo ");
        return;
    }
    sample.bean = QorNewGlobalRef(jvmtijni_env, bean);
    sample.usable = sample.bean;
}

bool SampleUsable() {
    if (!sample.open) {
        QorLocalFrame frame(jvmtijni_env, 8);
        if (frame.pushed)
            OpenSample();
    }
    return sample.usable;
}

void DropBatch(InfoBatch *batch) {
    if (batch->infos)
        QorDeleteGlobalRef(jvmtijni_env, batch->infos);
    batch->infos = nullptr;
    batch->count = 0;
}

jlongArray MakeIds(const jlong *ids, jsize count) {
    jlongArray array = QorNewLongArray(jvmtijni_env, count);
    if (array)
        QorSetLongArrayRegion(jvmtijni_env, array, 0, count, ids);
    return array;
}

// The ids of the batch's threads as a Java array, with their positions noted. Null when there is nothing to
// ask.
jlongArray BatchIds(const QorThreadHandle *handle, InfoBatch *batch, bool withMonitors) {
    jlong ids[MAX_WALK_THREADS];
    jsize count = 0;
    for (int32_t i = 0; i < batch->count; i++) {
        const int32_t index = batch->first + i;
        batch->position[i] = -1;
        const int64_t tid = QorGetWalkThreadId(handle, index);
        if (tid <= 0 || !(withMonitors || QorMemoHolds(tid) || QorMayWaitForLock(handle, index)))
            continue;
        batch->position[i] = static_cast<int16_t>(count);
        ids[count++] = tid;
    }
    return count > 0 ? MakeIds(ids, count) : nullptr;
}

// The bean's answer about threads with their locked monitors, or without stacks and locks: a local reference.
jobject AskBean(jlongArray ids, bool withMonitors) {
    const int64_t start = QorStopStarts();
    jobject infos = withMonitors
                        ? jvmtijni_env->CallObjectMethod(sample.bean, sample.getThreadInfosWithLocks, ids,
                                                         jboolean(JNI_TRUE), jboolean(JNI_FALSE))
                        : jvmtijni_env->CallObjectMethod(sample.bean, sample.getThreadInfos, ids);
    QorStopEnded(STOP_LOCKS, start);
    if (!QorClearException(jvmtijni_env) && infos)
        return infos;
    QORLOG(LOG_ERROR, "ThreadInfo array Objet is NULL. ");
    return nullptr;
}

// Asks the bean for `count` threads from `first` on, with their locked monitors or without stacks and locks.
void FetchBatch(const QorThreadHandle *handle, InfoBatch *batch, int32_t first, int32_t count,
                bool withMonitors) {
    DropBatch(batch);
    batch->first = first;
    batch->count = count < handle->count - first ? count : handle->count - first;
    QorLocalFrame frame(jvmtijni_env, 4);
    jlongArray ids = frame.pushed ? BatchIds(handle, batch, withMonitors) : nullptr;
    if (jobject infos = ids ? AskBean(ids, withMonitors) : nullptr)
        batch->infos = static_cast<jobjectArray>(QorNewGlobalRef(jvmtijni_env, infos));
}

// A thread's element of the batch as a local reference; null when it has ended or was not asked for.
jobject BatchElement(InfoBatch *batch, int32_t index) {
    if (!batch->infos)
        return nullptr;
    const jsize position = batch->position[index - batch->first];
    if (position < 0 || position >= QorGetArrayLength(jvmtijni_env, batch->infos))
        return nullptr;
    return QorGetObjectArrayElement(jvmtijni_env, batch->infos, position);
}

bool InBatch(const InfoBatch &batch, int32_t index) {
    return index >= batch.first && index < batch.first + batch.count;
}

// How many threads the next batch of owned locks holds. A view that shows few of a walk's threads uses little
// of a batch, and each thread in one costs the JVM a walk of its stack: the next batch is then smaller.
int32_t NextOwnedBatch() {
    const int32_t twiceUsed = sample.lastBatch > 0 ? 2 * sample.ownedUsed : sample.largestBatch;
    sample.ownedUsed = 0;
    return std::clamp(twiceUsed, 1, sample.largestBatch);
}

// The owned batch that holds the thread at the cursor.
void HaveOwnedBatch(const QorThreadHandle *handle, QorMonitorScope scope) {
    if (scope == MONITORS_OF_ONE_THREAD) {
        FetchBatch(handle, &owned, handle->index, 1, true);
        return;
    }
    if (InBatch(owned, handle->index))
        return;
    FetchBatch(handle, &owned, handle->index, NextOwnedBatch(), true);
    sample.lastBatch = owned.count;
}

// The text of a Java string into NAME_SIZE bytes. False when it is unavailable.
bool ReadText(jobject str, char *dest) {
    return QorReadString(jvmtijni_env, static_cast<jstring>(str), dest, NAME_SIZE, BLANK_MARKS) >= 0;
}

// The two methods that describe a MonitorInfo, whose superclass prints it.
bool FindMonitorMethods(jobject info) {
    if (sample.lockToString && sample.getLockedStackDepth)
        return true;
    jclass klass = QorGetObjectClass(jvmtijni_env, info);
    if (!klass) {
        QORLOG(LOG_ERROR, "Failed to get class for MonitorInfo object");
        return false;
    }
    jclass lockInfo = QorGetSuperclass(jvmtijni_env, klass);
    if (!lockInfo) {
        QORLOG(LOG_ERROR, "Failed to get class for LockInfo Clas");
        return false;
    }
    return MethodOnce(&sample.lockToString, lockInfo, "toString", "()Ljava/lang/String;") &&
           MethodOnce(&sample.getLockedStackDepth, klass, "getLockedStackDepth", "()I");
}

bool ReadMonitorInfo(jobjectArray monitors, jsize i, int64_t tid, QorMonitorRecord *record) {
    QorLocalFrame frame(jvmtijni_env, 6);
    if (!frame.pushed)
        return false;
    jobject info = QorGetObjectArrayElement(jvmtijni_env, monitors, i);
    if (!info || !FindMonitorMethods(info))
        return false;
    record->owner = tid;
    record->stackDepth = QorCallIntMethod(jvmtijni_env, info, sample.getLockedStackDepth);
    if (ReadText(QorCallObjectMethod(jvmtijni_env, info, sample.lockToString), record->description))
        record->lockId = QorParseLockName(record->description);
    return true;
}

// ThreadInfo's array of locked monitors, a local reference.
jobjectArray LockedMonitors(jobject info) {
    jclass klass = QorGetObjectClass(jvmtijni_env, info);
    if (!klass) {
        QORLOG(LOG_ERROR, "Failed to get clas for thread info object.");
        return nullptr;
    }
    if (!MethodOnce(&sample.getLockedMonitors, klass, "getLockedMonitors",
                    "()[Ljava/lang/management/MonitorInfo;")) {
        QORLOG(LOG_ERROR, " Method not found for getLockedMonitors");
        return nullptr;
    }
    jobject monitors = QorCallObjectMethod(jvmtijni_env, info, sample.getLockedMonitors);
    if (!monitors)
        QORLOG(LOG_ERROR, "Failed to get Monitors Array ");
    return static_cast<jobjectArray>(monitors);
}

// Of a thread of the walk that may wait or that the memo holds: its ThreadInfo without stack and locks, a
// local reference.
jobject WaitInfo(const QorThreadHandle *handle, int32_t index) {
    if (!sample.waitsFetched)
        FetchBatch(handle, &waits, 0, MAX_WALK_THREADS, false);
    sample.waitsFetched = true;
    return BatchElement(&waits, index);
}

// The count by QorGetWaitCount's rule that a ThreadInfo, which may be null, tells.
int64_t ReadWaitCount(jobject info) {
    if (!info)
        return -1;
    if (!sample.getWaitedCount || !sample.getBlockedCount) {
        jclass klass = QorGetObjectClass(jvmtijni_env, info);
        if (!klass || !MethodOnce(&sample.getWaitedCount, klass, "getWaitedCount", "()J") ||
            !MethodOnce(&sample.getBlockedCount, klass, "getBlockedCount", "()J"))
            return -1;
    }
    return QorCallLongMethod(jvmtijni_env, info, sample.getWaitedCount) +
           QorCallLongMethod(jvmtijni_env, info, sample.getBlockedCount);
}

// The thread's ThreadInfo without stack and locks, a local reference.
jobject ContendedInfo(const QorThreadHandle *handle, const QorThreadRecord *thread, QorMonitorScope scope) {
    if (scope == MONITORS_OF_THE_WALK)
        return WaitInfo(handle, handle->index);
    if (!sample.getThreadInfo || thread->tid <= 0)
        return nullptr;
    const int64_t start = QorStopStarts();
    jobject info = jvmtijni_env->CallObjectMethod(sample.bean, sample.getThreadInfo, thread->tid);
    QorStopEnded(STOP_LOCKS, start);
    return QorClearException(jvmtijni_env) ? nullptr : info;
}

// The monitors in a ThreadInfo, as QorGetOwnedMonitorInfo hands them out; -1 when they can't be read.
int32_t ReadOwned(jobject info, int64_t tid, QorMonitorRecord **out) {
    jobjectArray monitors = LockedMonitors(info);
    if (!monitors)
        return -1;
    const jsize count = QorGetArrayLength(jvmtijni_env, monitors);
    if (count <= 0)
        return 0;
    QorMonitorRecord *records =
        static_cast<QorMonitorRecord *>(calloc(static_cast<size_t>(count), sizeof(QorMonitorRecord)));
    if (!records) {
        QORLOG(LOG_ERROR, "monitor_handle allocation failed ");
        return -1;
    }
    for (jsize i = 0; i < count; i++) {
        if (!ReadMonitorInfo(monitors, i, tid, &records[i])) {
            free(records);
            return -1;
        }
    }
    QORLOG(LOG_TRACE, "Deallocating the objects ");
    *out = records;
    return count;
}

// Takes the bean's answer about one thread into the memo.
void Remember(const QorThreadHandle *handle, int32_t index, int64_t tid, jobjectArray infos, jsize position) {
    QorLocalFrame frame(jvmtijni_env, 8);
    jobject info = frame.pushed && infos ? QorGetObjectArrayElement(jvmtijni_env, infos, position) : nullptr;
    QorMonitorRecord *records = nullptr;
    const int32_t count = info ? ReadOwned(info, tid, &records) : -1;
    QorMemoStore(handle, index, records, std::max(count, 0), count < 0 ? -1 : ReadWaitCount(info));
    free(records);
}

// Asks the bean about the thread at the cursor and those after it that the memo doesn't know.
void AskForMemo(const QorThreadHandle *handle) {
    int32_t indexes[MEMO_BATCH], count = 0;
    const int32_t most = NextOwnedBatch();
    for (int32_t i = handle->index; i < handle->count && count < most; i++)
        if (QorMemoMustAsk(handle, i))
            indexes[count++] = i;
    sample.lastBatch = count;
    jlong ids[MEMO_BATCH];
    for (int32_t i = 0; i < count; i++)
        ids[i] = QorGetWalkThreadId(handle, indexes[i]);
    QorLocalFrame frame(jvmtijni_env, 4);
    jlongArray array = frame.pushed ? MakeIds(ids, count) : nullptr;
    auto infos = static_cast<jobjectArray>(array ? AskBean(array, true) : nullptr);
    for (int32_t i = 0; i < count; i++)
        Remember(handle, indexes[i], ids[i], infos, i);
}

int32_t OwnedByMemo(const QorThreadHandle *handle, QorMonitorRecord **out) {
    if (QorMemoMustAsk(handle, handle->index))
        AskForMemo(handle);
    sample.ownedUsed += QorMemoWasAsked(handle->index);
    return QorMemoRecall(handle->index, out);
}

} // namespace

int32_t QorGetOwnedMonitorInfoUsingManagement(QorThreadHandle *handle, const QorThreadRecord *thread,
                                              QorMonitorScope scope, QorMonitorRecord **out) {
    if (!SampleUsable() || thread->tid <= 0)
        return 0;
    QORLOG(LOG_TRACE, " Thread Id is %d, threadName:%s", static_cast<int>(thread->tid), thread->name);
    if (scope == MONITORS_OF_THE_WALK && QorMemoUsable())
        return OwnedByMemo(handle, out);
    HaveOwnedBatch(handle, scope);
    if (!owned.infos)
        return 0;
    sample.ownedUsed++;
    QorLocalFrame frame(jvmtijni_env, 4);
    jobject info = frame.pushed ? BatchElement(&owned, handle->index) : nullptr;
    if (!info) {
        QORLOG(LOG_DETAIL, "Failed to get object for thread Info"); // it has ended since the snapshot
        return 0;
    }
    return std::max(ReadOwned(info, thread->tid, out), 0);
}

int32_t QorGetContendedMonitorInfoUsingManagement(QorThreadHandle *handle, const QorThreadRecord *thread,
                                                  QorMonitorScope scope, QorMonitorRecord *record) {
    if (!SampleUsable())
        return 0;
    QorLocalFrame frame(jvmtijni_env, 6);
    jobject info = frame.pushed ? ContendedInfo(handle, thread, scope) : nullptr;
    jclass klass = info ? QorGetObjectClass(jvmtijni_env, info) : nullptr;
    if (!klass || !MethodOnce(&sample.getLockOwnerId, klass, "getLockOwnerId", "()J") ||
        !MethodOnce(&sample.getLockName, klass, "getLockName", "()Ljava/lang/String;"))
        return 0;
    const jlong owner = QorCallLongMethod(jvmtijni_env, info, sample.getLockOwnerId);
    if (owner <= 0)
        return 0; // not blocked
    record->owner = owner;
    record->hash = 1;
    record->waiting = 1;
    record->lockId = 1;
    if (ReadText(QorCallObjectMethod(jvmtijni_env, info, sample.getLockName), record->description))
        record->lockId = QorParseLockName(record->description);
    return 1;
}

int64_t QorGetWaitCount(const QorThreadHandle *handle, int32_t index) {
    QorLocalFrame frame(jvmtijni_env, 4);
    return frame.pushed && SampleUsable() ? ReadWaitCount(WaitInfo(handle, index)) : -1;
}

void QorCloseMonitorSample() {
    QorCloseVirtualMonitors();
    QorCloseMemoWalk();
    DropBatch(&waits);
    DropBatch(&owned);
    if (sample.bean)
        QorDeleteGlobalRef(jvmtijni_env, sample.bean);
    sample = {};
}
