#include "VirtualMonitors.h"

#include "MountedThreads.h"
#include "VirtualFields.h"
#include "VirtualSets.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "jvmti/ValueText.h"
#include "qorcost.h"
#include "qorlog.h"
#include "qorrequest.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr jint RELEASE_WITH_SNAPSHOTS = 25;
constexpr int32_t MOST_WAITERS = 16;    // threads of a walk that are looked at
constexpr int32_t MOST_CANDIDATES = 64; // objects in their frames
constexpr jint DEPTH_OF_WAIT = 2;       // of Object.wait(long) and wait0 on top: the monitor is the object's
constexpr int32_t LAST_HEAP_KIND = 20;  // references from object to object, and room for more of them
constexpr int64_t SEARCH_USEC = 10000;  // of the JVM's stop for them
constexpr int64_t ASKING_USEC = 50000;  // of the questions about them, a short stop each
constexpr int32_t MOST_OWNERS = 1000;   // threads among which an owner is looked for
constexpr int64_t OWNER_USEC = 100000;  // and for how long
constexpr int64_t REST = 50;            // in polls, times what a search has taken
constexpr jlocation NATIVE_LOCATION = -1;
constexpr jint SNAPSHOT_REFERENCES = 16;
constexpr jint LOCKED = 0; // the ordinal of a monitor that is held; others were elided by the compiler

bool IsBlocked(jint state) {
    return (state & JVMTI_THREAD_STATE_BLOCKED_ON_MONITOR_ENTER) != 0;
}

bool IsBlockedAt(const QorThreadHandle *handle, int32_t index) {
    const jvmtiStackInfo *stack = QorWalkStack(handle, index);
    return stack && IsBlocked(stack->state);
}

// ---- By the objects in the waiters' frames

struct Waiter {
    int64_t tid;
    int32_t index;          // in the walk
    jint lastDepth;         // of the frames that may have the monitor
    jobject monitor, owner; // global references
};

// What the frames of waiters hold.
struct Candidates {
    Waiter waiters[MOST_WAITERS];
    int32_t waiterCount;
    jlong count; // objects that are tagged, from 1 on
    QorStopLimit limit;
};

struct Waits {
    bool searched;
    Candidates candidates;
};
Waits waits;
int64_t nextSearch; // of polls

// Not of kind OTHER, as which the JVM reports each mounted thread ahead of its stack.
bool IsBehindStacks(jvmtiHeapReferenceKind kind) {
    return kind <= LAST_HEAP_KIND || kind == JVMTI_HEAP_REFERENCE_JNI_GLOBAL ||
           kind == JVMTI_HEAP_REFERENCE_SYSTEM_CLASS;
}

// Tags the locals of the top frames. Runs inside the JVM with all threads stopped: it touches memory of its
// own and the tag.
jint JNICALL TagCandidates(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info, jlong, jlong,
                           jlong, jlong *tag, jlong *, jint, void *userData) {
    auto *found = static_cast<Candidates *>(userData);
    if (found->count == MOST_CANDIDATES || QorStopIsOver(&found->limit))
        return JVMTI_VISIT_ABORT;
    if (kind != JVMTI_HEAP_REFERENCE_STACK_LOCAL)
        return IsBehindStacks(kind) ? JVMTI_VISIT_ABORT : 0;
    if (!info || *tag != 0)
        return 0;
    for (int32_t i = 0; i < found->waiterCount; i++)
        if (found->waiters[i].tid == info->stack_local.thread_id &&
            info->stack_local.depth <= found->waiters[i].lastDepth)
            *tag = ++found->count;
    return 0;
}

// The class whose static synchronized method a waiter is about to run isn't among its locals.
void TagClassOfTop(jvmtiEnv *env, const QorThreadHandle *handle, Candidates *found) {
    constexpr jint STATIC = 8, SYNCHRONIZED = 0x20;
    for (int32_t i = 0; i < found->waiterCount; i++) {
        const jvmtiStackInfo *stack = QorWalkStack(handle, found->waiters[i].index);
        jint modifiers = 0;
        jclass klass = nullptr;
        if (found->count == MOST_CANDIDATES ||
            jvmti->GetMethodModifiers(stack->frame_buffer[0].method, &modifiers) != JVMTI_ERROR_NONE ||
            (modifiers & (STATIC | SYNCHRONIZED)) != (STATIC | SYNCHRONIZED) ||
            jvmti->GetMethodDeclaringClass(stack->frame_buffer[0].method, &klass) != JVMTI_ERROR_NONE)
            continue;
        env->SetTag(klass, ++found->count);
        QorDeleteLocalRef(jvmtijni_env, klass);
    }
}

// Notes the object and its owner for those waiters that the JVM lists as such.
void AskForUsage(const QorThreadHandle *handle, jobject object, Candidates *found) {
    jvmtiMonitorUsage usage = {};
    const int64_t start = QorStopStarts();
    const jvmtiError error = jvmti->GetObjectMonitorUsage(object, &usage);
    QorStopEnded(STOP_LOCKS, start);
    if (error != JVMTI_ERROR_NONE)
        return;
    QorExpectLocalRefs(usage.waiter_count + usage.notify_waiter_count);
    for (int32_t i = 0; i < found->waiterCount; i++) {
        Waiter &waiter = found->waiters[i];
        const auto isWaiter = [&](jthread thread) {
            return QorIsSameObject(jvmtijni_env, thread, handle->threads[waiter.index]);
        };
        if (waiter.monitor || !usage.owner ||
            std::none_of(usage.waiters, usage.waiters + usage.waiter_count, isWaiter))
            continue;
        waiter.monitor = QorNewGlobalRef(jvmtijni_env, object);
        waiter.owner = QorNewGlobalRef(jvmtijni_env, usage.owner);
    }
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(usage.waiters));
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(usage.notify_waiters));
}

bool IsSearchOver(const Candidates &found) {
    return std::all_of(found.waiters, found.waiters + found.waiterCount,
                       [](const Waiter &waiter) { return waiter.monitor != nullptr; });
}

void AskAboutCandidates(jvmtiEnv *env, const QorThreadHandle *handle, Candidates *found) {
    const int64_t end = QorVirtualClock() + ASKING_USEC;
    for (jlong tag = 1; tag <= found->count && !IsSearchOver(*found) && qorLeave == 0; tag++) {
        if (QorVirtualClock() >= end)
            return;
        const QorLocalFrame frame(jvmtijni_env, SNAPSHOT_REFERENCES);
        jint count = 0;
        jobject *objects = nullptr;
        if (!frame.pushed || env->GetObjectsWithTags(1, &tag, &count, &objects, nullptr) != JVMTI_ERROR_NONE)
            return;
        if (count == 1)
            AskForUsage(handle, objects[0], found);
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(objects));
    }
}

void ListWaiters(const QorThreadHandle *handle, QorMonitorScope scope, Candidates *found) {
    const bool all = scope == MONITORS_OF_THE_WALK;
    for (int32_t i = all ? 0 : handle->index; i < (all ? handle->count : handle->index + 1); i++) {
        const jvmtiStackInfo *stack = QorWalkStack(handle, i);
        if (!QorIsVirtual(handle, i) || !IsBlockedAt(handle, i) || stack->frame_count == 0 ||
            found->waiterCount == MOST_WAITERS)
            continue;
        const bool wasWaiting = stack->frame_buffer[0].location == NATIVE_LOCATION;
        found->waiters[found->waiterCount++] = {QorGetWalkThreadId(handle, i), i,
                                                wasWaiting ? DEPTH_OF_WAIT : 0, nullptr, nullptr};
    }
}

void SearchFrames(const QorThreadHandle *handle, QorMonitorScope scope) {
    QorCloseVirtualMonitors();
    waits.searched = true;
    Candidates *found = &waits.candidates;
    ListWaiters(handle, scope, found);
    jvmtiEnv *env = found->waiterCount > 0 ? QorOpenTagEnvironment() : nullptr;
    if (!env)
        return;
    TagClassOfTop(env, handle, found);
    found->limit.usec = SEARCH_USEC;
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_reference_callback = TagCandidates;
    const int64_t start = QorStopStarts();
    const jvmtiError error = env->FollowReferences(0, nullptr, nullptr, &callbacks, found);
    QorStopEnded(STOP_LOCKS, start);
    if (found->limit.isOver)
        QORLOG(LOG_DETAIL, "Not all stacks were searched for monitors: %d callbacks", found->limit.callbacks);
    if (error == JVMTI_ERROR_NONE)
        AskAboutCandidates(env, handle, found);
    else
        describe(error);
    QorCloseTagEnvironment(env);
}

bool FindByFrames(const QorThreadHandle *handle, QorMonitorScope scope, QorWantedMonitor *out) {
    const int64_t now = QorVirtualClock();
    if ((scope == MONITORS_OF_ONE_THREAD || !waits.searched) && (!qorIsPollOrTrace || now >= nextSearch)) {
        SearchFrames(handle, scope);
        const int64_t end = QorVirtualClock();
        nextSearch = end + REST * (end - now);
    }
    const Candidates &found = waits.candidates;
    for (int32_t i = 0; i < found.waiterCount; i++) {
        const Waiter &waiter = found.waiters[i];
        if (waiter.index != handle->index || !waiter.monitor)
            continue;
        *out = {jvmtijni_env->NewLocalRef(waiter.monitor), jvmtijni_env->NewLocalRef(waiter.owner),
                QorIsVirtualThread(waiter.owner) != 0};
        return out->object != nullptr;
    }
    return false;
}

// ---- By the JDK's snapshots

struct Snapshots {
    bool tried;
    jclass klass; // a global reference; null where there are none
    jmethodID create;
    jfieldID status, blocker, locks, stack;
    jfieldID lockDepth, lockType, lockObject;
    jfieldID className, method;
};
Snapshots snapshots;

enum SnapshotClass { SNAPSHOT, LOCK, ELEMENT, SNAPSHOT_CLASSES };
constexpr const char *SNAPSHOT_CLASS_NAMES[] = {"jdk/internal/vm/ThreadSnapshot",
                                                "jdk/internal/vm/ThreadSnapshot$ThreadLock",
                                                "java/lang/StackTraceElement"};

struct SnapshotField {
    jfieldID Snapshots::*id;
    SnapshotClass of;
    const char *name, *signature;
};
constexpr SnapshotField SNAPSHOT_FIELDS[] = {
    {&Snapshots::status, SNAPSHOT, "threadStatus", "I"},
    {&Snapshots::blocker, SNAPSHOT, "blockerObject", "Ljava/lang/Object;"},
    {&Snapshots::locks, SNAPSHOT, "locks", "[Ljdk/internal/vm/ThreadSnapshot$ThreadLock;"},
    {&Snapshots::stack, SNAPSHOT, "stackTrace", "[Ljava/lang/StackTraceElement;"},
    {&Snapshots::lockDepth, LOCK, "depth", "I"},
    {&Snapshots::lockType, LOCK, "typeOrdinal", "I"},
    {&Snapshots::lockObject, LOCK, "obj", "Ljava/lang/Object;"},
    {&Snapshots::className, ELEMENT, "declaringClass", "Ljava/lang/String;"},
    {&Snapshots::method, ELEMENT, "methodName", "Ljava/lang/String;"},
};

bool LookUpSnapshots(const jclass (&classes)[SNAPSHOT_CLASSES]) {
    for (jclass klass : classes)
        if (!klass)
            return false;
    snapshots.create = QorGetStaticMethodID(jvmtijni_env, classes[SNAPSHOT], "create",
                                            "(Ljava/lang/Thread;)Ljdk/internal/vm/ThreadSnapshot;");
    jboolean isNative = JNI_FALSE;
    if (!snapshots.create || jvmti->IsMethodNative(snapshots.create, &isNative) != JVMTI_ERROR_NONE ||
        !isNative)
        return false;
    for (const SnapshotField &field : SNAPSHOT_FIELDS) {
        snapshots.*field.id = QorGetFieldID(jvmtijni_env, classes[field.of], field.name, field.signature);
        if (!(snapshots.*field.id))
            return false;
    }
    return true;
}

bool HasSnapshots() {
    if (snapshots.tried || QorJvmRelease() < RELEASE_WITH_SNAPSHOTS || !QorCanSeeMounted())
        return snapshots.klass;
    const QorLocalFrame frame(jvmtijni_env, SNAPSHOT_REFERENCES);
    if (!frame.pushed)
        return false;
    snapshots.tried = true;
    jclass classes[SNAPSHOT_CLASSES] = {};
    for (int32_t i = 0; i < SNAPSHOT_CLASSES; i++)
        classes[i] = QorFindBootClass(SNAPSHOT_CLASS_NAMES[i]);
    if (LookUpSnapshots(classes))
        snapshots.klass = static_cast<jclass>(QorNewGlobalRef(jvmtijni_env, classes[SNAPSHOT]));
    if (!snapshots.klass)
        QORLOG(LOG_NOTE, "Monitors of virtual threads aren't shown: this JDK has no such %s",
               SNAPSHOT_CLASS_NAMES[SNAPSHOT]);
    return snapshots.klass;
}

bool MayTakeSnapshots() {
    return !qorIsPollOrTrace && HasSnapshots();
}

// A local reference; null for a thread that has ended. This thread alone is stopped for it.
jobject TakeThreadSnapshot(jobject thread) {
    jobject taken = jvmtijni_env->CallStaticObjectMethod(snapshots.klass, snapshots.create, thread);
    return QorClearException(jvmtijni_env) ? nullptr : taken;
}

// Calls `visit` with each monitor that the snapshot's thread holds, a local reference, and the depth of the
// frame that took it, until it answers false.
template <typename Visit>
void VisitHeld(jobject snapshot, const Visit &visit) {
    auto locks = static_cast<jobjectArray>(QorGetObjectField(jvmtijni_env, snapshot, snapshots.locks));
    const jsize count = locks ? QorGetArrayLength(jvmtijni_env, locks) : 0;
    for (jsize i = 0; i < count; i++) {
        jobject lock = QorGetObjectArrayElement(jvmtijni_env, locks, i);
        if (!lock)
            continue;
        const bool isHeld = QorGetIntField(jvmtijni_env, lock, snapshots.lockType) == LOCKED;
        jobject object = isHeld ? QorGetObjectField(jvmtijni_env, lock, snapshots.lockObject) : nullptr;
        const jint depth = QorGetIntField(jvmtijni_env, lock, snapshots.lockDepth);
        QorDeleteLocalRef(jvmtijni_env, lock);
        if (object && !visit(object, depth))
            return;
    }
}

// The call of an element of the snapshot's stack.
struct Call {
    char className[NAME_SIZE], method[NAME_SIZE];
};

bool ReadCall(jobjectArray stack, jsize index, Call *call) {
    const QorLocalFrame frame(jvmtijni_env, SNAPSHOT_REFERENCES);
    jobject element = frame.pushed ? QorGetObjectArrayElement(jvmtijni_env, stack, index) : nullptr;
    const auto read = [&](jfieldID field, char *dest) {
        auto text = static_cast<jstring>(QorGetObjectField(jvmtijni_env, element, field));
        return text && QorReadString(jvmtijni_env, text, dest, NAME_SIZE, BLANK_MARKS) >= 0;
    };
    return element && read(snapshots.className, call->className) && read(snapshots.method, call->method);
}

// The depth among the walk's frames of that at `depth` in the snapshot, which leaves out frames that the JVM
// hides: as many of the same call are above it. -1 when it isn't found.
int32_t DepthInWalk(QorThreadHandle *handle, jobject snapshot, int32_t depth) {
    static Call wanted, call;
    static QorFrameHandle frames;
    auto stack = static_cast<jobjectArray>(QorGetObjectField(jvmtijni_env, snapshot, snapshots.stack));
    if (!stack || depth < 0 || depth >= QorGetArrayLength(jvmtijni_env, stack) ||
        !ReadCall(stack, depth, &wanted) || QorGetFrames(handle, &frames) < 0)
        return -1;
    const auto isWanted = [&](const char *className, const char *method) {
        return strcmp(className, wanted.className) == 0 && strcmp(method, wanted.method) == 0;
    };
    int32_t above = 0;
    for (int32_t i = 0; i < depth; i++)
        above += ReadCall(stack, i, &call) && isWanted(call.className, call.method);
    QorDeleteLocalRef(jvmtijni_env, stack);
    for (frames.index = 0; frames.index < frames.count; frames.index++) {
        QorFrameRecord frame;
        if (QorReadFrame(&frames, FRAME_METHOD_AND_CLASS, &frame) == 0 &&
            isWanted(frame.className, frame.method) && above-- == 0)
            return frames.index;
    }
    return -1;
}

// A search for the virtual thread that holds a monitor.
struct OwnerSearch {
    jobject monitor, found;
};

bool IsOwner(void *data, jobject thread) {
    auto *search = static_cast<OwnerSearch *>(data);
    const QorLocalFrame frame(jvmtijni_env, SNAPSHOT_REFERENCES);
    jobject snapshot = frame.pushed ? TakeThreadSnapshot(thread) : nullptr;
    if (snapshot)
        VisitHeld(snapshot, [&](jobject object, jint) {
            const bool isIt = QorIsSameObject(jvmtijni_env, object, search->monitor);
            QorDeleteLocalRef(jvmtijni_env, object);
            if (isIt)
                search->found = QorNewGlobalRef(jvmtijni_env, thread);
            return !isIt;
        });
    return !search->found;
}

// The virtual thread that holds the monitor, as a local reference; null when it isn't among those looked at.
jobject FindVirtualOwner(jobject monitor) {
    if (QorLookUpVirtual() != VIRTUAL_READY)
        return nullptr;
    OwnerSearch search = {monitor, nullptr};
    {
        const QorLocalFrame frame(jvmtijni_env, VIRTUAL_WALK_REFERENCES);
        if (!frame.pushed)
            return nullptr;
        QorVirtualWalk walk = {};
        walk.visit = IsOwner;
        walk.data = &search;
        walk.most = MOST_OWNERS;
        walk.deadline = QorVirtualClock() + OWNER_USEC;
        QorWalkVirtualThreads(&walk);
    }
    jobject owner = search.found ? jvmtijni_env->NewLocalRef(search.found) : nullptr;
    if (search.found)
        QorDeleteGlobalRef(jvmtijni_env, search.found);
    return owner;
}

// The monitor that the thread is blocked by, a local reference.
jobject BlockerOf(jthread thread) {
    jobject snapshot = TakeThreadSnapshot(thread);
    if (!snapshot || !IsBlocked(QorGetIntField(jvmtijni_env, snapshot, snapshots.status)))
        return nullptr;
    return QorGetObjectField(jvmtijni_env, snapshot, snapshots.blocker);
}

bool FindBySnapshot(const QorThreadHandle *handle, QorWantedMonitor *out) {
    jthread thread = handle->threads[handle->index];
    jobject monitor = BlockerOf(thread);
    if (!monitor)
        return false;
    jvmtiMonitorUsage usage = {};
    const int64_t start = QorStopStarts();
    const jvmtiError error = jvmti->GetObjectMonitorUsage(monitor, &usage);
    QorStopEnded(STOP_LOCKS, start);
    if (error != JVMTI_ERROR_NONE)
        return false;
    QorExpectLocalRefs(usage.waiter_count + usage.notify_waiter_count);
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(usage.waiters));
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(usage.notify_waiters));
    *out = {monitor, usage.owner, false};
    if (usage.owner)
        return true;
    // The JVM names platform threads alone. It is another's, unless it was given up meanwhile.
    out->owner = FindVirtualOwner(monitor);
    out->ownerIsVirtual = out->owner || QorIsSameObject(jvmtijni_env, BlockerOf(thread), monitor);
    return true;
}

} // namespace

bool QorFindWantedMonitor(const QorThreadHandle *handle, QorMonitorScope scope, QorWantedMonitor *out) {
    if (!IsBlockedAt(handle, handle->index) || !QorCanSeeMounted())
        return false;
    if (QorJvmRelease() >= RELEASE_WITH_SNAPSHOTS)
        return scope == MONITORS_OF_ONE_THREAD && MayTakeSnapshots() && FindBySnapshot(handle, out);
    return QorIsVirtual(handle, handle->index) && FindByFrames(handle, scope, out);
}

int32_t QorFindHeldMonitors(QorThreadHandle *handle, QorHeldMonitor *out, int32_t most) {
    if (!MayTakeSnapshots())
        return 0;
    jobject snapshot = TakeThreadSnapshot(handle->threads[handle->index]);
    if (!snapshot)
        return 0;
    // The JDK goes on listing what is given up while the thread is in Object.wait.
    const bool waits =
        QorGetIntField(jvmtijni_env, snapshot, snapshots.status) & JVMTI_THREAD_STATE_IN_OBJECT_WAIT;
    jobject given = waits ? QorGetObjectField(jvmtijni_env, snapshot, snapshots.blocker) : nullptr;
    int32_t count = 0;
    VisitHeld(snapshot, [&](jobject object, jint depth) {
        if (!given || !QorIsSameObject(jvmtijni_env, object, given))
            out[count++] = {object, DepthInWalk(handle, snapshot, depth)};
        return count < most;
    });
    return count;
}

void QorCloseVirtualMonitors() {
    for (int32_t i = 0; i < waits.candidates.waiterCount; i++) {
        const Waiter &waiter = waits.candidates.waiters[i];
        if (waiter.monitor)
            QorDeleteGlobalRef(jvmtijni_env, waiter.monitor);
        if (waiter.owner)
            QorDeleteGlobalRef(jvmtijni_env, waiter.owner);
    }
    waits = {};
}

void QorDropVirtualMonitors() {
    if (snapshots.klass)
        QorDeleteGlobalRef(jvmtijni_env, snapshots.klass);
    snapshots = {};
}
