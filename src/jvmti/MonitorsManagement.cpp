#include "MonitorsManagement.h"

#include "JniCalls.h"
#include "JniFields.h"
#include "MethodTable.h"
#include "Session.h"
#include "qorlog.h"

#include <cstdlib>

// The bean answers for many threads in one call. An answer is an array of ThreadInfo in the order of the ids
// asked for, with nulls for threads that have ended, kept as a global reference: the views open and close
// local frames between two threads of a walk. Ids at or below 0 are left out, since one of them makes the
// whole call throw.

namespace {

// The answer of one bean call for the threads [first, first + count) of the walk.
struct InfoBatch {
    jobjectArray infos; // global reference; null when nothing was answered
    int32_t first, count;
    int16_t position[MAX_WALK_THREADS]; // by walk index minus first; -1: not asked for
    int32_t used;                       // how many of them were looked at
};

// A single sample's state; QorCloseMonitorSample ends it.
struct MonitorSample {
    bool open;
    bool usable; // the bean is there and the JVM supports contention monitoring
    bool contendedFetched;
    jobject bean; // global reference
    jmethodID getThreadInfos, getThreadInfosWithLocks, getThreadInfo;
    jmethodID getLockOwnerId, getLockName, getLockedMonitors; // of ThreadInfo
    jmethodID getLockedStackDepth, lockToString;              // of MonitorInfo and its superclass
    int32_t nextOwnedBatch;
};

MonitorSample sample;
InfoBatch contended;
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
    sample.nextOwnedBatch = OWNED_BATCH;
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

// The ids of the batch's threads as a Java array, with their positions noted. Null when there is nothing to
// ask.
jlongArray BatchIds(const QorThreadHandle *handle, const QorThreadRecord *thread, InfoBatch *batch) {
    jlong ids[MAX_WALK_THREADS];
    jsize count = 0;
    for (int32_t i = 0; i < batch->count; i++) {
        const int32_t index = batch->first + i;
        const int64_t tid = index == handle->index ? thread->tid : QorGetWalkThreadId(handle, index);
        batch->position[i] = -1;
        if (tid <= 0)
            continue;
        batch->position[i] = static_cast<int16_t>(count);
        ids[count++] = tid;
    }
    if (count == 0)
        return nullptr;
    jlongArray array = QorNewLongArray(jvmtijni_env, count);
    if (array)
        QorSetLongArrayRegion(jvmtijni_env, array, 0, count, ids);
    return array;
}

// Asks the bean for `count` threads from `first` on, with their locked monitors or without stacks and locks.
void FetchBatch(const QorThreadHandle *handle, const QorThreadRecord *thread, InfoBatch *batch, int32_t first,
                int32_t count, bool withMonitors) {
    DropBatch(batch);
    batch->first = first;
    batch->count = count < handle->count - first ? count : handle->count - first;
    batch->used = 0;
    jmethodID method = withMonitors ? sample.getThreadInfosWithLocks : sample.getThreadInfos;
    if (!method) {
        QORLOG(LOG_ERROR, "  Failed to get methodID for getThreadInfo ");
        return;
    }
    QorLocalFrame frame(jvmtijni_env, 4);
    jlongArray ids = frame.pushed ? BatchIds(handle, thread, batch) : nullptr;
    if (!ids)
        return;
    jobject infos = withMonitors ? jvmtijni_env->CallObjectMethod(sample.bean, method, ids,
                                                                  jboolean(JNI_TRUE), jboolean(JNI_FALSE))
                                 : jvmtijni_env->CallObjectMethod(sample.bean, method, ids);
    if (QorClearException(jvmtijni_env) || !infos) {
        QORLOG(LOG_ERROR, "ThreadInfo array Objet is NULL. ");
        return;
    }
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

// The owned batch that holds the thread at the cursor. A view that shows few of a walk's threads uses little
// of a batch, and each thread in one costs the JVM a walk of its stack: the next batch is then smaller.
void HaveOwnedBatch(const QorThreadHandle *handle, const QorThreadRecord *thread, QorMonitorScope scope) {
    if (scope == MONITORS_OF_ONE_THREAD) {
        FetchBatch(handle, thread, &owned, handle->index, 1, true);
        return;
    }
    if (InBatch(owned, handle->index))
        return;
    if (owned.count > 0) {
        const int32_t twiceUsed = 2 * owned.used;
        sample.nextOwnedBatch = twiceUsed < OWNED_BATCH ? (twiceUsed > 1 ? twiceUsed : 1) : OWNED_BATCH;
    }
    FetchBatch(handle, thread, &owned, handle->index, sample.nextOwnedBatch, true);
}

// The text of a Java string into NAME_SIZE bytes. False when it can't be had.
bool ReadText(jobject str, char *dest) {
    if (!str)
        return false;
    const char *chars = QorGetStringUTFChars(jvmtijni_env, static_cast<jstring>(str), nullptr);
    if (!chars)
        return false;
    QorCopyName(dest, chars);
    QorReleaseStringUTFChars(jvmtijni_env, static_cast<jstring>(str), chars);
    return true;
}

// The two methods that tell of a MonitorInfo, whose superclass prints it.
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

// The thread's ThreadInfo without stack and locks, a local reference.
jobject ContendedInfo(const QorThreadHandle *handle, const QorThreadRecord *thread, QorMonitorScope scope) {
    if (scope == MONITORS_OF_THE_WALK) {
        if (!sample.contendedFetched)
            FetchBatch(handle, thread, &contended, 0, MAX_WALK_THREADS, false);
        sample.contendedFetched = true;
        return BatchElement(&contended, handle->index);
    }
    if (!sample.getThreadInfo || thread->tid <= 0)
        return nullptr;
    jobject info = jvmtijni_env->CallObjectMethod(sample.bean, sample.getThreadInfo, thread->tid);
    return QorClearException(jvmtijni_env) ? nullptr : info;
}

} // namespace

int32_t QorGetOwnedMonitorInfoUsingManagement(QorThreadHandle *handle, const QorThreadRecord *thread,
                                              QorMonitorScope scope, QorMonitorRecord **out) {
    if (!SampleUsable() || thread->tid <= 0)
        return 0;
    QORLOG(LOG_TRACE, " Thread Id is %d, threadName:%s", static_cast<int>(thread->tid), thread->name);
    HaveOwnedBatch(handle, thread, scope);
    if (!owned.infos)
        return 0;
    owned.used++;
    QorLocalFrame frame(jvmtijni_env, 4);
    jobject info = frame.pushed ? BatchElement(&owned, handle->index) : nullptr;
    if (!info) {
        QORLOG(LOG_ERROR, "Failed to get object for thread Info");
        return 0;
    }
    jobjectArray monitors = LockedMonitors(info);
    const jsize count = monitors ? QorGetArrayLength(jvmtijni_env, monitors) : 0;
    if (count <= 0)
        return 0;
    QorMonitorRecord *records =
        static_cast<QorMonitorRecord *>(calloc(static_cast<size_t>(count), sizeof(QorMonitorRecord)));
    if (!records) {
        QORLOG(LOG_ERROR, "monitor_handle allocation failed ");
        return 0;
    }
    for (jsize i = 0; i < count; i++) {
        if (!ReadMonitorInfo(monitors, i, thread->tid, &records[i])) {
            free(records);
            return 0;
        }
    }
    QORLOG(LOG_TRACE, "Deallocating the objects ");
    *out = records;
    return count;
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

void QorCloseMonitorSample() {
    DropBatch(&contended);
    DropBatch(&owned);
    if (sample.bean)
        QorDeleteGlobalRef(jvmtijni_env, sample.bean);
    sample = {};
}
