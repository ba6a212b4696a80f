#include "ForkedHistogram.h"

#include "ForkedWalk.h"
#include "jvmti/ClassMirrors.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "platforms/linux.h"
#include "qorcost.h"
#include "qorlog.h"

#include <cstdio>
#include <cstring>

int64_t gbiHistogramLife = 10 * 60 * 1000;

namespace {

constexpr int64_t MSEC_PER_SEC = 1000;
constexpr jlong COUNTED = 1LL << 40; // added to the tag of an object that has been counted, classes included

// How the instances of a class are counted. The walk visits an object once, and then reports the reference to
// its class; but it tells the size of what is referred to alone, and may come to that many times. So most
// objects are counted as they are visited, at the one size of their class, and need no tag, which would take
// the walk most of its time. Those of which each has its own size are counted as they are first met, by a
// tag.
enum Way : int32_t {
    BY_VISIT,
    BY_MEETING,       // classes themselves, and stacks of virtual threads
    BY_MEETING_ARRAY, // of objects
    BY_CONTENT,       // arrays of primitives have a callback of their own
};

// What the copy hands back for each class. `each`: the size of one, by visit.
struct Tally {
    int64_t count, size, each;
    Way way;
};

Tally *tallies;
// Arrays of objects that some reference has led to, and those visited. While they differ, or none has been
// met, the walk can't be over, however quiet it is.
volatile int64_t arraysMet, arraysVisited;

Way WayOf(const char *signature) {
    constexpr const char *OWN_SIZES[] = {"Ljava/lang/Class;", "Ljdk/internal/vm/StackChunk;"};
    if (signature[0] == '[')
        return signature[1] && !signature[2] ? BY_CONTENT : BY_MEETING_ARRAY;
    for (const char *name : OWN_SIZES)
        if (strcmp(signature, name) == 0)
            return BY_MEETING;
    return BY_VISIT;
}

bool WalkCanBeOver() {
    return arraysMet && arraysVisited >= arraysMet;
}

int32_t AddUp() {
    for (int32_t i = 0; i < gbiclassCount; i++)
        if (tallies[i].way == BY_VISIT)
            tallies[i].size = tallies[i].count * tallies[i].each;
    return 0;
}

// The class's tally; null for one that has none.
inline Tally *Find(jlong classTag) {
    const jlong index = (classTag & ~COUNTED) - 1;
    return index < 0 || index >= gbiclassCount ? nullptr : &tallies[index];
}

inline void Add(Tally *tally, jlong size) {
    tally->count++;
    tally->size += size;
}

void Meet(Tally *tally, jlong size, jlong *tag) {
    if (tally->way == BY_VISIT)
        tally->each = size;
    if (tally->way != BY_MEETING && tally->way != BY_MEETING_ARRAY)
        return;
    if (*tag & COUNTED)
        return;
    *tag |= COUNTED;
    Add(tally, size);
    if (tally->way == BY_MEETING_ARRAY)
        arraysMet = arraysMet + 1;
}

jint JNICALL CountReference(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *, jlong classTag,
                            jlong referrerClassTag, jlong size, jlong *tagPtr, jlong *, jint, void *) {
    if (!QorWalkOnInChild())
        return JVMTI_VISIT_ABORT;
    if (Tally *tally = Find(classTag))
        Meet(tally, size, tagPtr);
    if (kind != JVMTI_HEAP_REFERENCE_CLASS)
        return JVMTI_VISIT_OBJECTS;
    Tally *visited = Find(referrerClassTag);
    if (visited && visited->way == BY_VISIT)
        visited->count++;
    else if (visited && visited->way == BY_MEETING_ARRAY)
        arraysVisited = arraysVisited + 1;
    return JVMTI_VISIT_OBJECTS;
}

jint JNICALL CountPrimitives(jlong classTag, jlong size, jlong *, jint, jvmtiPrimitiveType, const void *,
                             void *) {
    if (!QorWalkOnInChild())
        return JVMTI_VISIT_ABORT;
    if (Tally *tally = Find(classTag))
        Add(tally, size);
    return JVMTI_VISIT_OBJECTS;
}

// The histogram that a copy makes, or has made for a request that couldn't wait.
struct Job {
    QorClassCountEntry *entries; // null: there is none
    int64_t count;
    int32_t pipe[2];
    int64_t madeAt, until; // by QorForkClock; when nobody has come for it, it is dropped
    QorForkState state;    // FORK_RUNNING as long as the copy isn't forgotten
    int32_t error;
};
Job job = {nullptr, 0, {-1, -1}, 0, 0, FORK_NONE, 0};
int32_t refused; // why the last pass made no copy

// The copy's end, seen in the process.
void TakeFigures(QorForkState state, int32_t error, const void *result) {
    const auto *figures = static_cast<const Tally *>(result);
    for (int64_t i = 0; state == FORK_DONE && job.entries && i < job.count; i++) {
        job.entries[i].count = figures[i].count;
        job.entries[i].size = figures[i].size;
    }
    job.state = state;
    job.error = error;
}

int32_t Walk(jvmtiEnv *env) {
    jvmtiHeapCallbacks callbacks = {};
    arraysMet = arraysVisited = 0;
    callbacks.heap_reference_callback = CountReference;
    callbacks.array_primitive_value_callback = CountPrimitives;
    jobject held = QorHoldMirrorFields(env);
    const int64_t start = QorStopStarts();
    const int32_t pid =
        QorForkedWalkReturned(env->FollowReferences(0, nullptr, nullptr, &callbacks, nullptr));
    QorStopEnded(STOP_COPY, start);
    QorDeleteLocalRef(jvmtijni_env, held);
    return pid;
}

// The pass over the heap: the copy makes it.
bool StartCopy(jvmtiEnv *env, QorClassCountEntry *entries) {
    const size_t size = static_cast<size_t>(gbiclassCount) * sizeof(Tally);
    const QorForkPlan plan = {
        -1, {job.pipe[0], job.pipe[1]}, size, WalkCanBeOver, [] { return false; }, AddUp, TakeFigures};
    refused = FORK_REFUSED_BY_SYSTEM;
    if (!QorPrepareFork(plan))
        return false;
    tallies = static_cast<Tally *>(QorForkResult());
    for (int32_t i = 0; i < gbiclassCount; i++)
        tallies[i].way = WayOf(entries[i].name);
    job.madeAt = QorForkClock();
    const int32_t pid = Walk(env);
    tallies = nullptr;
    if (pid > 0)
        return true;
    refused = pid;
    QorForgetFork();
    return false;
}

void Drop() {
    QorFreeClassCounts(job.entries, job.entries ? job.count : 0);
    job.entries = nullptr;
    qor_close_pipe(job.pipe);
}

// Begins the job. False with `refused` set.
bool Begin() {
    refused = FORK_REFUSED_BY_SYSTEM;
    if (!qor_create_pipe(job.pipe))
        return false;
    job.entries = QorListClasses(StartCopy);
    qor_close_handle(&job.pipe[1]);
    if (!job.entries) {
        Drop();
        return false;
    }
    job.count = gbiclassCount;
    job.state = FORK_RUNNING;
    return true;
}

// Hands the figures over.
QorClassCountEntry *Deliver(int64_t *count) {
    QorClassCountEntry *entries = job.entries;
    *count = job.count;
    job.entries = nullptr;
    Drop();
    return entries;
}

const char *FailureText() {
    static char text[256];
    snprintf(text, sizeof text, "Class histogram failed, %s", QorForkFailureText(job.state, job.error));
    QORLOG(LOG_ERROR, "%s", text);
    return text;
}

} // namespace

QorClassCountEntry *QorCountHeapInCopy(int64_t *count, const char **refusal, int64_t *age) {
    const int64_t asked = QorForkClock(), until = asked + QorForkPatience();
    QorTendHistogram();
    for (int32_t made = 1;; made++) {
        if (!job.entries &&
            ((refused = QorCheckFork(FORK_FOR_HISTOGRAM, QorJvmHeapInUse())) != 0 || !Begin())) {
            *refusal = QorForkRefusalText(refused);
            return nullptr;
        }
        if (job.state == FORK_RUNNING && !QorWaitForFork(job.pipe[0], until)) {
            job.until = QorForkClock() + gbiHistogramLife;
            *refusal = "Class histogram still being made, ask again.";
            return nullptr;
        }
        if (job.state == FORK_RUNNING)
            QorForgetFork(); // settles the job
        if (job.state == FORK_DONE) {
            *age = job.madeAt < asked ? (QorForkClock() - job.madeAt) / MSEC_PER_SEC : -1;
            return Deliver(count);
        }
        Drop();
        if (!QorForkAgain("Class histogram", made, until, job.state, job.error))
            break;
    }
    *refusal = FailureText();
    return nullptr;
}

void QorTendHistogram() {
    if (!job.entries)
        return;
    if (job.state == FORK_RUNNING && !QorForkedChildLives())
        QorForgetFork();
    if (QorForkClock() < job.until)
        return;
    QORLOG(LOG_NOTE, "Class histogram: nobody has asked for it in time, it is dropped");
    QorDropHistogram();
}

void QorDropHistogram() {
    if (job.entries && job.state == FORK_RUNNING)
        QorEndFork();
    Drop();
}
