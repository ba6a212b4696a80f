#include "ForkedHistogram.h"

#include "ForkedWalk.h"
#include "Session.h"
#include "platforms/linux.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <cerrno>
#include <cstdio>
#include <cstring>

namespace {

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

int32_t Fork(jvmtiEnv *env) {
    jvmtiHeapCallbacks callbacks = {};
    arraysMet = arraysVisited = 0;
    callbacks.heap_reference_callback = CountReference;
    callbacks.array_primitive_value_callback = CountPrimitives;
    return QorForkedWalkReturned(env->FollowReferences(0, nullptr, nullptr, &callbacks, nullptr));
}

void TakeFigures(QorClassCountEntry *entries) {
    for (int32_t i = 0; i < gbiclassCount; i++) {
        entries[i].count = tallies[i].count;
        entries[i].size = tallies[i].size;
    }
}

// How a copy ended; a late one counts as one that failed.
QorForkState Outcome(int32_t pipeEnd, int32_t *error) {
    const bool inTime = QorWaitForFork(pipeEnd, qor_max_timeout);
    const QorForkState state = QorForkOutcome(error);
    if (inTime || state != FORK_RUNNING)
        return state;
    *error = ETIMEDOUT;
    return FORK_FAILED;
}

// One fork, and the wait for its figures. 0 with the outcome, or the refusal.
int32_t CountOnce(jvmtiEnv *env, QorClassCountEntry *entries, QorForkState *state, int32_t *error) {
    int32_t pipe[2];
    if (!qor_create_pipe(pipe))
        return FORK_REFUSED_BY_SYSTEM;
    const size_t size = static_cast<size_t>(gbiclassCount) * sizeof(Tally);
    int32_t pid = FORK_REFUSED_BY_SYSTEM;
    if (QorPrepareFork({-1, {pipe[0], pipe[1]}, size, WalkCanBeOver, AddUp})) {
        tallies = static_cast<Tally *>(QorForkResult());
        for (int32_t i = 0; i < gbiclassCount; i++)
            tallies[i].way = WayOf(entries[i].name);
        pid = Fork(env);
        qor_close_handle(&pipe[1]);
        if (pid > 0)
            *state = Outcome(pipe[0], error);
        if (*state == FORK_DONE)
            TakeFigures(entries);
        QorForgetFork();
        tallies = nullptr;
    }
    qor_close_pipe(pipe);
    return pid < 0 ? pid : 0;
}

} // namespace

const char *QorCountHeapInCopy(jvmtiEnv *env, QorClassCountEntry *entries) {
    static char text[256];
    const int32_t refusal = QorCheckFork();
    if (refusal)
        return QorForkRefusalText(refusal);
    QorForkState state = FORK_NONE;
    int32_t error = 0;
    for (int attempt = 0; attempt < FORK_ATTEMPTS; attempt++) {
        const int32_t refused = CountOnce(env, entries, &state, &error);
        if (refused)
            return QorForkRefusalText(refused);
        if (state == FORK_DONE)
            return nullptr;
        if (state == FORK_FAILED)
            break;
    }
    snprintf(text, sizeof text, "Class histogram failed, %s", QorForkFailureText(state, error));
    QORLOG(LOG_ERROR, "%s", text);
    return text;
}
