#include "VirtualSets.h"

#include "MountedThreads.h"
#include "VirtualFields.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "qorrequest.h"

#include <algorithm>
#include <ctime>

namespace {

constexpr jint MOVED = -1, TREE_BIN = -2; // hashes of nodes that hold no key
constexpr int32_t MOST_IN_BIN = 10000;    // a chain that grows while it is followed has an end
constexpr int32_t MOST_TABLES = 4;        // a resize within a resize
constexpr int32_t MOST_SCOPES = 8;        // scopes within scopes
constexpr int32_t SLOTS_PER_LOOK = 64;    // slots between two looks at the clock

// A local reference for the length of a scope.
struct Local {
    explicit Local(jobject ref) : ref(ref) {}
    ~Local() {
        if (ref)
            QorDeleteLocalRef(jvmtijni_env, ref);
    }
    Local(const Local &) = delete;
    Local &operator=(const Local &) = delete;

    void Follow(jfieldID field) {
        jobject next = QorGetObjectField(jvmtijni_env, ref, field);
        QorDeleteLocalRef(jvmtijni_env, ref);
        ref = next;
    }
    bool IsA(jclass klass) const { return ref && klass && jvmtijni_env->IsInstanceOf(ref, klass); }

    jobject ref;
};

jobject FieldOf(jobject object, jfieldID field) {
    return object && field ? QorGetObjectField(jvmtijni_env, object, field) : nullptr;
}

// The map under a set; null for a set of another kind.
jobject MapOf(jobject set) {
    const bool known = set && jvmtijni_env->IsInstanceOf(set, qorVirtual.keySet);
    return known ? FieldOf(set, qorVirtual.map) : nullptr;
}

// The sum of a map's or an adder's base and cells.
int64_t Sum(jobject object, jfieldID base, jfieldID cells, jfieldID value) {
    if (!object || !base)
        return 0;
    int64_t sum = QorGetLongField(jvmtijni_env, object, base);
    const Local array(FieldOf(object, cells));
    if (!array.ref || !value)
        return sum;
    const jobjectArray all = static_cast<jobjectArray>(array.ref);
    for (jint i = 0, count = QorGetArrayLength(jvmtijni_env, all); i < count; i++) {
        const Local cell(QorGetObjectArrayElement(jvmtijni_env, all, i));
        if (cell.ref)
            sum += QorGetLongField(jvmtijni_env, cell.ref, value);
    }
    return sum;
}

int64_t SizeOf(jobject set) {
    const Local map(MapOf(set));
    return std::max<int64_t>(
        0, Sum(map.ref, qorVirtual.baseCount, qorVirtual.counterCells, qorVirtual.cellValue));
}

// The set of a container's threads; null when it is of no known kind or has made none yet.
jobject ThreadsOf(jobject container) {
    const auto is = [&](jclass klass) { return klass && jvmtijni_env->IsInstanceOf(container, klass); };
    if (is(qorVirtual.perTask))
        return FieldOf(container, qorVirtual.perTaskThreads);
    if (is(qorVirtual.shared))
        return FieldOf(container, qorVirtual.sharedThreads);
    if (!is(qorVirtual.flockContainer))
        return nullptr;
    const Local flock(FieldOf(container, qorVirtual.flock));
    return FieldOf(flock.ref, qorVirtual.flockThreads);
}

jobject StaticField(jclass klass, jfieldID field) {
    return klass && field ? QorGetStaticObjectField(jvmtijni_env, klass, field) : nullptr;
}

// ---- Tables. `visit` is a function of a key, which answers whether to go on.

template <typename Visit>
bool VisitBin(jobjectArray table, jint slot, int32_t tables, const Visit &visit);

// The bins that a bin has been moved to.
template <typename Visit>
bool VisitMoved(const Local &node, jint slot, jint length, int32_t tables, const Visit &visit) {
    if (!node.IsA(qorVirtual.forwardingNode) || tables == MOST_TABLES)
        return true;
    const Local moved(FieldOf(node.ref, qorVirtual.forwardTable));
    if (!moved.ref)
        return true;
    const jobjectArray table = static_cast<jobjectArray>(moved.ref);
    const jint newLength = QorGetArrayLength(jvmtijni_env, table);
    for (const jint at : {slot, slot + length})
        if (at < newLength && !VisitBin(table, at, tables + 1, visit))
            return false;
    return true;
}

template <typename Visit>
bool VisitBin(jobjectArray table, jint slot, int32_t tables, const Visit &visit) {
    Local node(QorGetObjectArrayElement(jvmtijni_env, table, slot));
    if (!node.ref)
        return true;
    const jint hash = QorGetIntField(jvmtijni_env, node.ref, qorVirtual.hash);
    if (hash == MOVED)
        return VisitMoved(node, slot, QorGetArrayLength(jvmtijni_env, table), tables, visit);
    if (hash < 0 && (hash != TREE_BIN || !node.IsA(qorVirtual.treeBin)))
        return true;
    if (hash < 0)
        node.Follow(qorVirtual.binFirst);
    for (int32_t i = 0; node.ref && i < MOST_IN_BIN; i++) {
        const Local key(FieldOf(node.ref, qorVirtual.key));
        if (key.ref && !visit(key.ref))
            return false;
        node.Follow(qorVirtual.next);
    }
    return true;
}

// Visits the slots from `start` in steps of `stride`, an odd number: a table's length is a power of two, so
// that each slot is met once.
template <typename Visit, typename GoOn>
bool VisitSet(jobject set, uint32_t start, uint32_t stride, const Visit &visit, const GoOn &goOn) {
    const Local map(MapOf(set));
    const Local table(FieldOf(map.ref, qorVirtual.table));
    if (!table.ref)
        return true;
    const jobjectArray slots = static_cast<jobjectArray>(table.ref);
    const uint32_t length = static_cast<uint32_t>(QorGetArrayLength(jvmtijni_env, slots));
    for (uint32_t i = 0; i < length; i++) {
        const uint32_t slot = (start + i * stride) & (length - 1);
        if (!VisitBin(slots, static_cast<jint>(slot), 0, visit))
            return false;
        if (i % SLOTS_PER_LOOK == SLOTS_PER_LOOK - 1 && i + 1 < length && !goOn())
            return false;
    }
    return true;
}

uint32_t Random(QorVirtualWalk *walk) {
    walk->random = walk->random * 6364136223846793005U + 1442695040888963407U;
    return static_cast<uint32_t>(walk->random >> 32);
}

// Calls `visit` with the container of each registered executor until it answers false.
template <typename Visit>
void VisitExecutors(QorVirtualWalk *walk, const Visit &visit) {
    const Local registry(StaticField(qorVirtual.containers, qorVirtual.registry));
    VisitSet(
        registry.ref, Random(walk), Random(walk) | 1,
        [&](jobject weak) {
            if (!jvmtijni_env->IsInstanceOf(weak, qorVirtual.reference))
                return true;
            const Local container(FieldOf(weak, qorVirtual.referent));
            return !container.ref || visit(container.ref);
        },
        [] { return qorLeave == 0; });
}

// An executor that makes a platform thread per task is a container too; its first thread shows that.
bool HoldsVirtualThreads(jobject set) {
    bool isVirtual = false;
    VisitSet(
        set, 0, 1,
        [&](jobject thread) {
            isVirtual = QorIsVirtualThread(thread);
            return false;
        },
        [] { return true; });
    return isVirtual;
}

// ---- The walk

// Whether stops have taken as long.
bool IsStoppedFor(const QorVirtualWalk &walk, int64_t usec) {
    return walk.mostStopUsec != 0 && walk.stopUsec >= usec;
}

bool IsOver(QorVirtualWalk *walk) {
    walk->ended =
        walk->ended || QorVirtualClock() >= walk->deadline || QorStopsAreSpent(*walk) || qorLeave != 0;
    return walk->ended;
}

bool VisitThread(QorVirtualWalk *walk, jobject thread);

// Visits the threads of the scopes that a thread has opened.
void VisitScopes(QorVirtualWalk *walk, jobject thread) {
    Local scope(FieldOf(thread, qorVirtual.scopes));
    if (walk->depth == MOST_SCOPES)
        return;
    for (walk->depth++; scope.ref && !IsOver(walk); scope.Follow(qorVirtual.previousScope)) {
        if (!scope.IsA(qorVirtual.flockContainer))
            continue;
        const Local threads(ThreadsOf(scope.ref));
        const bool all = VisitSet(
            threads.ref, 0, 1,
            [&](jobject forked) {
                walk->inScopes += QorIsVirtualThread(forked);
                return VisitThread(walk, forked);
            },
            [&] { return !IsOver(walk); });
        walk->cut = walk->cut || !all;
    }
    walk->cut = walk->cut || scope.ref;
    walk->depth--;
}

bool VisitThread(QorVirtualWalk *walk, jobject thread) {
    if (!QorIsVirtualThread(thread))
        return true;
    if (walk->visited >= walk->most) {
        walk->ended = walk->cut = true;
        return false;
    }
    walk->visited++;
    if (!walk->visit(walk->data, thread))
        walk->ended = true;
    else
        VisitScopes(walk, thread);
    return !walk->ended;
}

// Visits as many threads of the set as are its share of those that may still be visited.
void WalkSet(QorVirtualWalk *walk, jobject set, int64_t size) {
    if (size == 0)
        return;
    if (IsOver(walk)) { // here too, as a small set ends before its own look at the clock
        walk->cut = true;
        return;
    }
    const int64_t left = walk->most - walk->visited, expected = std::max(walk->expected, size);
    const bool whole = expected <= left;
    const int64_t share = whole ? left : std::max<int64_t>(1, left * size / expected);
    const int64_t now = QorVirtualClock();
    const int64_t timeShare = std::max<int64_t>(0, walk->deadline - now) * size / expected;
    const int64_t stopShare = (walk->mostStopUsec - walk->stopUsec) * size / expected;
    const int64_t mostStops = walk->stopUsec + stopShare + 1;
    const int64_t start = walk->visited;
    bool partly = false;
    const auto goOn = [&] {
        // One thread at least, so that many small sets are all heard.
        partly = walk->most != VIRTUAL_ALL_THREADS && walk->visited > start &&
                 (walk->visited - start >= share || QorVirtualClock() - now > timeShare ||
                  IsStoppedFor(*walk, mostStops));
        return !IsOver(walk) && !partly;
    };
    // Threads that only switch mostly run in the table's order: a visit that has it too meets each at its
    // switch.
    const bool inOrder = walk->most == VIRTUAL_ALL_THREADS;
    const bool all = VisitSet(
        set, inOrder ? 0 : Random(walk), inOrder ? 1 : Random(walk) | 1,
        [&](jobject thread) { return VisitThread(walk, thread) && (whole || goOn()); }, goOn);
    walk->cut = walk->cut || !all;
    walk->expected -= size;
}

void WalkRootAndExecutors(QorVirtualWalk *walk) {
    const Local root(StaticField(qorVirtual.trackingRoot, qorVirtual.rootThreads));
    WalkSet(walk, root.ref, SizeOf(root.ref));
    VisitExecutors(walk, [&](jobject container) {
        const Local threads(ThreadsOf(container));
        WalkSet(walk, threads.ref, SizeOf(threads.ref));
        return !walk->ended;
    });
}

// Visits the scopes that platform threads have opened, and counts what is mounted on them.
void WalkPlatformThreads(QorVirtualWalk *walk) {
    jint count = 0;
    jthread *threads = nullptr;
    if (jvmti->GetAllThreads(&count, &threads) != JVMTI_ERROR_NONE)
        return;
    for (jint i = 0; i < count; i++) {
        const Local mounted(QorMountedOn(threads[i]));
        walk->mounted += mounted.ref != nullptr;
        if (!walk->ended && qorVirtual.flockContainer)
            VisitScopes(walk, threads[i]);
        QorDeleteLocalRef(jvmtijni_env, threads[i]);
    }
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(threads));
}

// Fills the counts, and what the walk expects by them.
void CountThreads(QorVirtualWalk *walk) {
    QorVirtualCounts &counts = walk->counts;
    counts = {0, 0, qorVirtual.rootThreads != nullptr, false};
    const int64_t now = QorVirtualClock(), end = now + (walk->deadline - now) / 2;
    VisitExecutors(walk, [&](jobject container) {
        const Local threads(ThreadsOf(container));
        if (const int64_t size = SizeOf(threads.ref))
            counts.inExecutors += HoldsVirtualThreads(threads.ref) ? size : 0;
        counts.cut = QorVirtualClock() >= end;
        return !counts.cut;
    });
    if (counts.rootIsListed) {
        const Local root(StaticField(qorVirtual.trackingRoot, qorVirtual.rootThreads));
        counts.all = counts.inExecutors + SizeOf(root.ref);
    } else {
        const Local adder(StaticField(qorVirtual.countingRoot, qorVirtual.rootCount));
        counts.all = counts.inExecutors +
                     Sum(adder.ref, qorVirtual.adderBase, qorVirtual.adderCells, qorVirtual.adderCellValue);
    }
    walk->expected = counts.rootIsListed ? counts.all : counts.inExecutors;
}

} // namespace

int64_t QorVirtualClock() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * int64_t{1000000} + now.tv_nsec / 1000;
}

bool QorStopsAreSpent(const QorVirtualWalk &walk) {
    return IsStoppedFor(walk, walk.mostStopUsec);
}

void QorWalkVirtualThreads(QorVirtualWalk *walk) {
    walk->random = static_cast<uint64_t>(QorVirtualClock()) * 0x9e3779b97f4a7c15U;
    if (walk->most != VIRTUAL_ALL_THREADS)
        CountThreads(walk);
    walk->ended = !walk->visit;
    if (walk->visit)
        WalkRootAndExecutors(walk);
    WalkPlatformThreads(walk);
}

jobject QorFindVirtualThread(int64_t tid, int64_t usec) {
    struct Search {
        int64_t tid;
        jobject found;
    } search = {tid, nullptr};
    if (QorPushLocalFrame(jvmtijni_env, VIRTUAL_WALK_REFERENCES) != 0)
        return nullptr;
    QorVirtualWalk walk = {};
    walk.visit = [](void *data, jobject thread) {
        auto *wanted = static_cast<Search *>(data);
        if (QorGetLongField(jvmtijni_env, thread, qorVirtual.tid) == wanted->tid)
            wanted->found = jvmtijni_env->NewLocalRef(thread);
        return !wanted->found;
    };
    walk.data = &search;
    walk.most = VIRTUAL_ALL_THREADS;
    walk.deadline = QorVirtualClock() + usec;
    QorWalkVirtualThreads(&walk);
    return QorPopLocalFrame(jvmtijni_env, search.found);
}
