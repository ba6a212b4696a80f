#include "Monitors.h"

#include "MethodTable.h"
#include "MonitorMemo.h"
#include "MonitorsManagement.h"
#include "VirtualFields.h"
#include "VirtualMonitors.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/trycatch.h"
#include "qorcost.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

enum LockInfoLevel : int32_t { LOCKS_BY_BEST_ROAD = 1, LOCKS_BY_MANAGEMENT = 2 };

enum MonitorRoad { ROAD_NONE, ROAD_JVMTI, ROAD_MANAGEMENT };

// Room for "@" and a number after a description.
constexpr size_t LONGEST_NUMBERED = 1000;
constexpr jint MONITOR_REFERENCES = 32;
constexpr char NO_NAME[] = "^";

// Makes room for further references behind many that JVMTI has handed out at once.
void ExpectReferences() {
    jvmtijni_env->EnsureLocalCapacity(MONITOR_REFERENCES);
    QorClearException(jvmtijni_env);
}

// A thread may end between the snapshot and the reading of its locks.
QorLogThreshold ThresholdOf(jvmtiError error) {
    return error == JVMTI_ERROR_THREAD_NOT_ALIVE ? LOG_DETAIL : LOG_ERROR;
}

// JVMTI's lock calls have the hole of its thread states on JVMs that don't keep threads.
MonitorRoad ChooseRoad() {
    const bool byJvmti = gbQorJvmKeepsThreads && QorGetJvmtiMonitorCapability() != 0;
    if (qorLockInfoLevel == LOCKS_BY_BEST_ROAD && byJvmti)
        return ROAD_JVMTI;
    if (qorLockInfoLevel == LOCKS_BY_BEST_ROAD || qorLockInfoLevel == LOCKS_BY_MANAGEMENT)
        return ROAD_MANAGEMENT;
    return ROAD_NONE;
}

// The dotted class name of a lock's class, as java.lang.management has it, into `description`: 1, 0 for no
// class, or -1 with the JVM's error.
int32_t ReadLockClass(jclass klass, char *description, jvmtiError *error) {
    *error = JVMTI_ERROR_NONE;
    if (!klass || QorIsSameObject(jvmtijni_env, klass, nullptr))
        return 0;
    char *signature = nullptr;
    *error = jvmti->GetClassSignature(klass, &signature, nullptr);
    if (*error != JVMTI_ERROR_NONE)
        return -1;
    if (!signature)
        return 0;
    const bool isArray = signature[0] == '['; // its name is its signature
    QorCopyName(description, isArray ? signature : signature + 1);
    if (isArray)
        std::replace(description, description + strlen(description), '/', '.');
    else
        Slash2Dot(description);
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(signature));
    return 1;
}

// Takes the object's hash code as the lock's number, and puts it after the class name.
void NumberLock(jobject object, QorMonitorRecord *record) {
    jint hash = 0;
    jvmti->GetObjectHashCode(object, &hash);
    record->hash = hash;
    record->lockId = hash;
    const size_t length = strnlen(record->description, NAME_SIZE);
    if (length >= LONGEST_NUMBERED) {
        QORLOG(LOG_WARNING, "  Warning - Data not copied, Memory overrun avoided while calculating monitors");
        return;
    }
    snprintf(record->description + length, NAME_SIZE - length, "@%d", hash);
}

void ReadOwnedMonitor(const jvmtiMonitorStackDepthInfo &entry, QorMonitorRecord *record) {
    QorLocalFrame frame(jvmtijni_env, 4);
    jclass klass = QorGetObjectClass(jvmtijni_env, entry.monitor);
    jvmtiError error;
    if (!klass)
        QORLOG(LOG_ERROR, "  Class Null");
    else if (ReadLockClass(klass, record->description, &error) < 0)
        QORLOG(LOG_NOTE, "  Error Getting Class Signature");
    NumberLock(entry.monitor, record);
    record->waiting = 0;
    record->stackDepth = entry.stack_depth;
    if (!frame.pushed && klass)
        QorDeleteLocalRef(jvmtijni_env, klass);
}

int32_t QorGetOwnedMonitorInfoUsingJvmti(QorThreadHandle *handle, QorMonitorRecord **out) {
    jint count = 0;
    jvmtiMonitorStackDepthInfo *entries = nullptr;
    const int64_t start = QorStopStarts();
    const jvmtiError error =
        jvmti->GetOwnedMonitorStackDepthInfo(handle->threads[handle->index], &count, &entries);
    QorStopEnded(STOP_LOCKS, start);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(ThresholdOf(error), "  Error in GetOwnedMonitorInfo %d", error);
        return 0;
    }
    if (count > MONITOR_REFERENCES)
        ExpectReferences();
    if (count > 0) {
        *out = static_cast<QorMonitorRecord *>(calloc(static_cast<size_t>(count), sizeof(QorMonitorRecord)));
        if (!*out) {
            QORLOG(LOG_ERROR, " monitor_handle allocation fialed ");
            count = 0;
        }
    }
    for (jint i = 0; i < count; i++)
        ReadOwnedMonitor(entries[i], &(*out)[i]);
    if (entries)
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(entries));
    return count;
}

// Java thread id of the monitor's owner, 0 for none; false when the JVM doesn't say.
bool ReadOwner(jobject object, int64_t *owner) {
    jvmtiMonitorUsage usage = {};
    const int64_t start = QorStopStarts();
    const jvmtiError error = jvmti->GetObjectMonitorUsage(object, &usage);
    QorStopEnded(STOP_LOCKS, start);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_ERROR, "  GetObjectMonitorUsage Failed");
        return false;
    }
    // Each waiter came as a reference. Newer JVMs no longer count the notified ones among the waiters.
    if (usage.waiter_count + usage.notify_waiter_count > MONITOR_REFERENCES / 2)
        ExpectReferences();
    if (usage.owner) {
        QorRefreshIdField();
        QorReadThreadId(usage.owner, owner);
    }
    if (usage.waiters)
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(usage.waiters));
    if (usage.notify_waiters)
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(usage.notify_waiters));
    return true;
}

int32_t QorGetContendedMonitorInfoUsingJvmti(QorThreadHandle *handle, QorMonitorRecord *record,
                                             int32_t wantOwner) {
    jobject object = nullptr;
    const int64_t start = QorStopStarts();
    jvmtiError error = jvmti->GetCurrentContendedMonitor(handle->threads[handle->index], &object);
    QorStopEnded(STOP_LOCKS, start);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(ThresholdOf(error), "  Error in GetCurrentContendedMonitor %d", error);
        return 0;
    }
    if (!object || QorIsSameObject(jvmtijni_env, object, nullptr))
        return 0;
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    if (!klass) {
        QORLOG(LOG_ERROR, "  Class Null");
        return 0;
    }
    const int32_t named = ReadLockClass(klass, record->description, &error);
    if (named < 0)
        QORLOG(LOG_ERROR, "  Error Getting Class Signature %d", error);
    if (named <= 0)
        return 0;
    NumberLock(object, record);
    record->waiting = 1;
    int64_t owner = 0;
    if (wantOwner != 0 && !ReadOwner(object, &owner))
        return 0;
    record->owner = owner;
    return 1;
}

// JVMTI's answer with what it leaves out: locks of java.util.concurrent, and the owner unless it is asked
// for.
int32_t ContendedByBoth(QorThreadHandle *handle, const QorThreadRecord *thread, QorMonitorScope scope,
                        QorMonitorRecord *record, int32_t wantOwner) {
    const int32_t found = QorGetContendedMonitorInfoUsingJvmti(handle, record, wantOwner);
    if (found && wantOwner != 0)
        return found;
    QorMonitorRecord other = {};
    if (QorGetContendedMonitorInfoUsingManagement(handle, thread, scope, &other) != 1)
        return found;
    if (!found)
        *record = other;
    else if (other.lockId == record->lockId)
        record->owner = other.owner;
    return 1;
}

bool LookUpOwners() {
    if (!QorCanSeeMounted())
        return false;
    const bool isKnown = qorVirtual.thread && qorVirtual.owner; // classes yet to come don't matter here
    return isKnown || QorLookUpVirtual() == VIRTUAL_READY;
}

// The virtual thread that owns what the thread at the cursor is parked by; null if it isn't this owner (any
// more).
jobject ParkedByOwner(const QorThreadHandle *handle, int64_t id) {
    jobject owner = QorOwnerOfBlocker(QorParkBlocker(handle, handle->index));
    int64_t ownerId = 0;
    return owner && QorReadThreadId(static_cast<jthread>(owner), &ownerId) && ownerId == id ? owner : nullptr;
}

bool ReadName(jobject thread, char *name) {
    jvmtiThreadInfo info = {};
    if (jvmti->GetThreadInfo(thread, &info) != JVMTI_ERROR_NONE)
        return false;
    QorCopyName(name, info.name && info.name[0] ? info.name : NO_NAME);
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(info.name));
    return true;
}

// The virtual thread that was last found to own what a thread waits for.
struct FoundOwner {
    int64_t tid;
    char name[NAME_SIZE];
};
FoundOwner foundOwner;

int32_t DescribeWanted(const QorWantedMonitor &wanted, QorMonitorRecord *record) {
    jvmtiError error;
    if (ReadLockClass(QorGetObjectClass(jvmtijni_env, wanted.object), record->description, &error) != 1)
        return 0;
    if (wanted.owner && !QorReadThreadId(static_cast<jthread>(wanted.owner), &record->owner))
        return 0;
    NumberLock(wanted.object, record);
    record->waiting = 1;
    record->ownerIsVirtual = wanted.ownerIsVirtual;
    foundOwner.tid = wanted.owner && ReadName(wanted.owner, foundOwner.name) ? record->owner : 0;
    return 1;
}

// What a virtual thread waits for, of which neither JVMTI nor management says anything: a lock of
// java.util.concurrent by its fields, or a monitor.
int32_t ContendedByFields(const QorThreadHandle *handle, QorMonitorRecord *record) {
    QorLocalFrame frame(jvmtijni_env, 8);
    jobject blocker = frame.pushed && LookUpOwners() ? QorParkBlocker(handle, handle->index) : nullptr;
    jobject owner = QorOwnerOfBlocker(blocker);
    return owner && DescribeWanted({blocker, owner, false}, record);
}

// A monitor that a virtual thread waits for, or holds while the thread waits.
int32_t ContendedByVirtual(const QorThreadHandle *handle, QorMonitorScope scope, QorMonitorRecord *record) {
    QorLocalFrame frame(jvmtijni_env, MONITOR_REFERENCES);
    QorWantedMonitor wanted = {};
    return frame.pushed && QorFindWantedMonitor(handle, scope, &wanted) && DescribeWanted(wanted, record);
}

int32_t OwnedByVirtual(QorThreadHandle *handle, QorMonitorScope scope, QorMonitorRecord **out) {
    QorHeldMonitor held[MONITOR_REFERENCES];
    QorLocalFrame frame(jvmtijni_env, 2 * MONITOR_REFERENCES);
    if (scope != MONITORS_OF_ONE_THREAD || !frame.pushed)
        return 0;
    const int32_t count = QorFindHeldMonitors(handle, held, MONITOR_REFERENCES);
    if (count == 0)
        return 0;
    *out = static_cast<QorMonitorRecord *>(calloc(static_cast<size_t>(count), sizeof(QorMonitorRecord)));
    for (int32_t i = 0; *out && i < count; i++)
        ReadOwnedMonitor({held[i].object, held[i].depth}, &(*out)[i]);
    return *out ? count : 0;
}

// A virtual thread that holds a monitor stays on its carrier, which the JVM then takes for the owner. It
// isn't: carriers hold no monitors while they run a virtual thread.
void CorrectOwner(const QorThreadHandle *handle, QorMonitorRecord *record) {
    const jvmtiStackInfo *stack = QorWalkStack(handle, handle->index);
    if (!stack || (stack->state & JVMTI_THREAD_STATE_PARKED))
        return;
    for (int32_t i = 0; i < handle->count; i++) {
        if (QorWalkThreadKind(handle, i) == THREAD_CARRIER &&
            QorGetWalkThreadId(handle, i) == record->owner) {
            record->owner = QorGetPartnerId(handle, i);
            return;
        }
    }
}

int32_t ContendedByRoad(MonitorRoad road, QorThreadHandle *handle, const QorThreadRecord *thread,
                        QorMonitorScope scope, QorMonitorRecord *record, int32_t wantOwner) {
    switch (road) {
    case ROAD_JVMTI:
        QORLOG(LOG_TRACE, "QorAgetContendedMonitorInforUsing JVMTI");
        return ContendedByBoth(handle, thread, scope, record, wantOwner);
    case ROAD_MANAGEMENT:
        QORLOG(LOG_TRACE, "QorGetContendedMonitorInfoUsingManagement");
        return QorGetContendedMonitorInfoUsingManagement(handle, thread, scope, record);
    default:
        return 0;
    }
}

bool AtThread(const QorThreadHandle *handle) {
    return handle && handle->threads && handle->index >= 0 && handle->index < handle->count;
}

void LogNoFrame(int32_t threshold) {
    QORLOG(threshold, "  Out of Memory");
}

} // namespace

int32_t QorGetOwnedMonitorInfo(QorThreadHandle *handle, const QorThreadRecord *thread, QorMonitorScope scope,
                               QorMonitorRecord **out) {
    if (!out)
        return 0;
    *out = nullptr;
    const MonitorRoad road = ChooseRoad();
    if (!AtThread(handle) || !thread || road == ROAD_NONE)
        return 0;
    if (road != ROAD_JVMTI && QorIsVirtual(handle, handle->index))
        return OwnedByVirtual(handle, scope, out);
    const bool byMemo = road == ROAD_MANAGEMENT && scope == MONITORS_OF_THE_WALK && QorMemoUsable();
    if (byMemo && !QorMemoMustAsk(handle, handle->index) && !QorMemoWasAsked(handle->index))
        return QorMemoRecall(handle->index, out);
    QorLocalFrame frame(jvmtijni_env, 1);
    if (!frame.pushed)
        LogNoFrame(LOG_ERROR);
    switch (road) {
    case ROAD_JVMTI:
        return QorGetOwnedMonitorInfoUsingJvmti(handle, out);
    case ROAD_MANAGEMENT:
        return QorGetOwnedMonitorInfoUsingManagement(handle, thread, scope, out);
    default:
        return 0;
    }
}

int32_t QorGetContendedMonitorInfo(QorThreadHandle *handle, const QorThreadRecord *thread,
                                   QorMonitorScope scope, QorMonitorRecord *record, int32_t wantOwner) {
    const MonitorRoad road = ChooseRoad();
    if (!AtThread(handle) || !thread || !record || road == ROAD_NONE)
        return 0;
    if (QorIsVirtual(handle, handle->index))
        return ContendedByFields(handle, record) || ContendedByVirtual(handle, scope, record);
    if (scope == MONITORS_OF_THE_WALK && !QorMayWaitForLock(handle, handle->index))
        return 0;
    QorLocalFrame frame(jvmtijni_env, 1);
    if (!frame.pushed)
        LogNoFrame(LOG_WARNING);
    const int32_t found = ContendedByRoad(road, handle, thread, scope, record, wantOwner);
    if (found == 1)
        CorrectOwner(handle, record);
    return found == 1 ? found : ContendedByVirtual(handle, scope, record);
}

bool QorNameVirtualOwner(const QorThreadHandle *handle, const QorMonitorRecord &lock, char *name) {
    QorLocalFrame frame(jvmtijni_env, 8);
    if (lock.ownerIsVirtual) {
        QorCopyName(name, lock.owner != 0 && lock.owner == foundOwner.tid ? foundOwner.name : NO_NAME);
        return true;
    }
    if (!frame.pushed || !AtThread(handle) || lock.owner == 0 || !LookUpOwners())
        return false;
    jobject owner = ParkedByOwner(handle, lock.owner);
    for (int32_t i = 0; !owner && i < handle->count; i++)
        if (QorIsVirtual(handle, i) && QorGetWalkThreadId(handle, i) == lock.owner)
            owner = handle->threads[i];
    return owner && QorIsVirtualThread(owner) && ReadName(owner, name);
}

int32_t QorGetParkedOn(const QorThreadHandle *handle, QorMonitorRecord *record) {
    if (!AtThread(handle) || !record || ChooseRoad() == ROAD_NONE)
        return 0;
    QorLocalFrame frame(jvmtijni_env, 4);
    jobject blocker = frame.pushed ? QorParkBlocker(handle, handle->index) : nullptr;
    if (!blocker)
        return 0;
    if (QorMemoParked(handle->index, blocker, record))
        return 1;
    jvmtiError error;
    if (ReadLockClass(QorGetObjectClass(jvmtijni_env, blocker), record->description, &error) != 1)
        return 0;
    NumberLock(blocker, record);
    QorMemoKeepParked(handle->index, blocker, record);
    return 1;
}
