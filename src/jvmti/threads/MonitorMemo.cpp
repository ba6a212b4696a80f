#include "MonitorMemo.h"

#include "MethodTable.h"
#include "MonitorsManagement.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"

#include <cstdlib>
#include <cstring>
#include <numeric>

namespace {

enum MemoState { NOT_TRIED, IN_USE, OFF };

constexpr int32_t BUCKETS = 1024;
constexpr int32_t TEST_READS = 64;
constexpr jlong COARSEST_NANOS = 1000;
constexpr jlong MOVED = -1; // no clock has this value

struct HeldMonitor {
    int64_t lockId;
    int32_t stackDepth;
    const char *description;
};

// What is kept of a thread. Allocated; `held` is one block with its texts.
struct Entry {
    Entry *next; // in its bucket
    jweak thread;
    int64_t tid;
    jlong cpu; // MOVED: the answer serves this walk only
    uint64_t stack;
    int64_t waits; // as the JVM counted them when it reported the monitors
    uint32_t met;  // number of the walk
    int32_t count;
    HeldMonitor *held;
    jweak blocker; // what it was last parked by; null: not known
    char *parked;
    int64_t parkedId;
};

enum LookState : int8_t { UNSEEN, KNOWN, TO_ASK, ASKED };

// A thread in the open walk.
struct Look {
    LookState state;
    int64_t tid;
    jlong cpu;
    uint64_t stack;
    Entry *entry; // null: holds nothing, as far as is known
};

// All of this is the worker's.
MemoState memoState;
Entry *buckets[BUCKETS];
uint32_t walkNumber;
bool walkOpen;
Look looks[MAX_WALK_THREADS];

Entry **BucketOf(int64_t tid) {
    return &buckets[static_cast<uint64_t>(tid) % BUCKETS];
}

void TurnOff(const char *why) {
    QORLOG(LOG_NOTE, "Monitors are asked for at each sample: %s", why);
    memoState = OFF;
}

// A thread's processor time. False when it has ended, or when the clock can't be read, which ends the memo.
bool ReadClock(jthread thread, jlong *nanos) {
    const jvmtiError error = jvmti->GetThreadCpuTime(thread, nanos);
    if (error != JVMTI_ERROR_NONE && error != JVMTI_ERROR_THREAD_NOT_ALIVE)
        TurnOff("a thread's processor clock can't be read");
    return error == JVMTI_ERROR_NONE;
}

// A clock of a system's ticks wouldn't move while a thread takes a lock and parks again.
bool ClockIsFine() {
    jlong last = 0, step = 0;
    if (!ReadClock(nullptr, &last))
        return false;
    for (int32_t i = 0; i < TEST_READS; i++) {
        jlong now = 0;
        if (!ReadClock(nullptr, &now) || now <= last)
            return false;
        step = std::gcd(step, now - last);
        last = now;
    }
    return step <= COARSEST_NANOS;
}

void TryMemo() {
    jvmtiCapabilities wanted = {};
    wanted.can_get_thread_cpu_time = 1;
    if (!gbQorJvmKeepsThreads)
        TurnOff("this JVM's threads may end while they are asked about");
    else if (jvmti->AddCapabilities(&wanted) != JVMTI_ERROR_NONE)
        TurnOff("the JVM doesn't offer the processor clocks of threads");
    else if (!ClockIsFine())
        TurnOff("the processor clocks of threads are too coarse");
    else
        memoState = IN_USE;
}

uint64_t HashStack(const jvmtiStackInfo &stack) {
    uint64_t hash = static_cast<uint64_t>(stack.frame_count);
    for (jint i = 0; i < stack.frame_count; i++) {
        hash = (hash ^ reinterpret_cast<uint64_t>(stack.frame_buffer[i].method)) * 0x9e3779b97f4a7c15u;
        hash =
            (hash ^ hash >> 29 ^ static_cast<uint64_t>(stack.frame_buffer[i].location)) * 0xbf58476d1ce4e5b9u;
    }
    return hash;
}

Entry *FindEntry(int64_t tid, jthread thread) {
    for (Entry *entry = *BucketOf(tid); entry; entry = entry->next)
        if (entry->tid == tid && QorIsSameObject(jvmtijni_env, entry->thread, thread))
            return entry;
    return nullptr;
}

Entry *AddEntry(int64_t tid, jthread thread) {
    jweak weak = jvmtijni_env->NewWeakGlobalRef(thread);
    QorClearException(jvmtijni_env);
    Entry *entry = weak ? static_cast<Entry *>(calloc(1, sizeof(Entry))) : nullptr;
    if (!entry) {
        if (weak)
            jvmtijni_env->DeleteWeakGlobalRef(weak);
        return nullptr;
    }
    entry->thread = weak;
    entry->tid = tid;
    entry->met = walkNumber;
    entry->next = *BucketOf(tid);
    *BucketOf(tid) = entry;
    return entry;
}

void ForgetParked(Entry *entry) {
    if (entry->blocker)
        jvmtijni_env->DeleteWeakGlobalRef(entry->blocker);
    entry->blocker = nullptr;
    free(entry->parked);
    entry->parked = nullptr;
}

void FreeEntry(Entry *entry) {
    jvmtijni_env->DeleteWeakGlobalRef(entry->thread);
    ForgetParked(entry);
    free(entry->held);
    free(entry);
}

// Frees the entries that the walk of this number hasn't met.
void KeepThoseMetIn(uint32_t number) {
    for (Entry *&bucket : buckets) {
        for (Entry **at = &bucket; *at;) {
            Entry *entry = *at;
            if (entry->met == number) {
                at = &entry->next;
                continue;
            }
            *at = entry->next;
            FreeEntry(entry);
        }
    }
}

void OpenWalk() {
    walkOpen = true;
    if (++walkNumber == 0) // no thread is met in it
        walkNumber = 1;
    memset(looks, 0, sizeof looks);
}

// Whether the thread is in the wait that it was in when the JVM reported its monitors.
bool InTheSameWait(const QorThreadHandle *handle, int32_t index, const Entry &entry) {
    constexpr jint COUNTED = JVMTI_THREAD_STATE_WAITING | JVMTI_THREAD_STATE_BLOCKED_ON_MONITOR_ENTER;
    return (QorWalkStack(handle, index)->state & COUNTED) && QorGetWaitCount(handle, index) == entry.waits;
}

LookState LookAt(const QorThreadHandle *handle, int32_t index, Look *look) {
    const jvmtiStackInfo *stack = QorWalkStack(handle, index);
    look->tid = QorGetWalkThreadId(handle, index);
    if (!stack || look->tid <= 0 || QorIsVirtual(handle, index)) // whose clocks and monitors the JVM refuses
        return KNOWN;
    if (!ReadClock(handle->threads[index], &look->cpu))
        return memoState == OFF ? TO_ASK : KNOWN;
    look->stack = HashStack(*stack);
    look->entry = FindEntry(look->tid, handle->threads[index]);
    if (!look->entry)
        return TO_ASK;
    Entry *entry = look->entry;
    entry->met = walkNumber;
    const bool stood = entry->cpu == look->cpu && entry->stack == look->stack;
    return stood && (entry->count == 0 || InTheSameWait(handle, index, *entry)) ? KNOWN : TO_ASK;
}

// Puts the records into the entry. False without memory; it then has none.
bool Fill(Entry *entry, const QorMonitorRecord *records, int32_t count) {
    free(entry->held);
    entry->held = nullptr;
    entry->count = 0;
    if (count <= 0)
        return true;
    size_t size = static_cast<size_t>(count) * sizeof(HeldMonitor);
    for (int32_t i = 0; i < count; i++)
        size += strlen(records[i].description) + 1;
    entry->held = static_cast<HeldMonitor *>(malloc(size));
    if (!entry->held)
        return false;
    char *text = reinterpret_cast<char *>(entry->held + count);
    for (int32_t i = 0; i < count; i++) {
        entry->held[i] = {records[i].lockId, records[i].stackDepth, text};
        text = stpcpy(text, records[i].description) + 1;
    }
    entry->count = count;
    return true;
}

} // namespace

bool QorMemoUsable() {
    if (memoState == NOT_TRIED)
        TryMemo();
    return memoState == IN_USE;
}

bool QorMemoMustAsk(const QorThreadHandle *handle, int32_t index) {
    if (!walkOpen)
        OpenWalk();
    Look *look = &looks[index];
    if (look->state == UNSEEN)
        look->state = LookAt(handle, index, look);
    return look->state == TO_ASK;
}

bool QorMemoHolds(int64_t tid) {
    for (const Entry *entry = *BucketOf(tid); entry; entry = entry->next)
        if (entry->tid == tid && entry->count > 0)
            return true;
    return false;
}

void QorMemoStore(const QorThreadHandle *handle, int32_t index, const QorMonitorRecord *records,
                  int32_t count, int64_t waits) {
    Look *look = &looks[index];
    look->state = ASKED;
    jlong after = MOVED;
    const bool stood = waits >= 0 && ReadClock(handle->threads[index], &after) && after == look->cpu;
    if (!look->entry)
        look->entry = AddEntry(look->tid, handle->threads[index]);
    if (!look->entry)
        return;
    Entry *entry = look->entry;
    entry->stack = look->stack;
    entry->waits = waits;
    entry->cpu = Fill(entry, records, count) && stood ? after : MOVED;
}

int32_t QorMemoRecall(int32_t index, QorMonitorRecord **out) {
    const Entry *entry = looks[index].entry;
    if (!entry || entry->count == 0)
        return 0;
    auto *records =
        static_cast<QorMonitorRecord *>(calloc(static_cast<size_t>(entry->count), sizeof(QorMonitorRecord)));
    if (!records) {
        QORLOG(LOG_ERROR, "monitor_handle allocation failed ");
        return 0;
    }
    for (int32_t i = 0; i < entry->count; i++) {
        const HeldMonitor &held = entry->held[i];
        records[i].lockId = held.lockId;
        records[i].owner = entry->tid;
        records[i].stackDepth = held.stackDepth;
        QorCopyName(records[i].description, held.description);
    }
    *out = records;
    return entry->count;
}

bool QorMemoParked(int32_t index, jobject blocker, QorMonitorRecord *record) {
    const Entry *entry = walkOpen ? looks[index].entry : nullptr;
    if (!entry || !entry->blocker || !QorIsSameObject(jvmtijni_env, entry->blocker, blocker))
        return false;
    record->lockId = entry->parkedId;
    QorCopyName(record->description, entry->parked);
    return true;
}

void QorMemoKeepParked(int32_t index, jobject blocker, const QorMonitorRecord *record) {
    Entry *entry = walkOpen ? looks[index].entry : nullptr;
    if (!entry)
        return;
    ForgetParked(entry);
    entry->parked = strdup(record->description);
    entry->blocker = entry->parked ? jvmtijni_env->NewWeakGlobalRef(blocker) : nullptr;
    QorClearException(jvmtijni_env);
    entry->parkedId = record->lockId;
}

bool QorMemoWasAsked(int32_t index) {
    return looks[index].state == ASKED;
}

void QorCloseMemoWalk() {
    if (walkOpen)
        KeepThoseMetIn(memoState == IN_USE ? walkNumber : 0);
    walkOpen = false;
}

void QorDropMemo() {
    KeepThoseMetIn(0);
    walkOpen = false;
    memoState = NOT_TRIED;
}
