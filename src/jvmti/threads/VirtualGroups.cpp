#include "VirtualGroups.h"

#include "MethodTable.h"
#include "VirtualFields.h"
#include "VirtualSets.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "qorStrUtils.h"
#include "qorcost.h"
#include "qorlog.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr jint RELEASE_WITHOUT_STOP = 25;
constexpr int32_t BATCH = 64;
constexpr int32_t MOST_SCHEDULER_FRAMES = 10;
constexpr jint READ_DEPTH = VIRTUAL_DEPTH + MOST_SCHEDULER_FRAMES;
constexpr jint REFERENCES = VIRTUAL_WALK_REFERENCES + BATCH;
constexpr int64_t LONGEST_REST_USEC = 20000;
constexpr int64_t STOPPED_SHARE = 5; // stops may have this part of a sample's time
constexpr int32_t MOST_READS = 3;    // of a thread that switches meanwhile

struct Defaults {
    int32_t threads, milliseconds;
};
constexpr Defaults WITH_STOPS = {4096, 100}, WITHOUT_STOPS = {8192, 200};

// The groups of the one sample.
QorVirtualGroup *groupsInUse;

// A sample that is being taken. One at a time, the worker's.
struct Sampler {
    QorVirtualSample *sample;
    QorVirtualWalk *walk;
    bool batches;
    void (*onMember)(QorVirtualGroup *group, jobject thread);
    jthread threads[BATCH];
    int32_t held;
};

struct SchedulerFrame {
    const char *className; // its whole name, or with `prefix` its beginning
    bool prefix;
    const char *method; // null: any
};
constexpr SchedulerFrame SCHEDULER_FRAMES[] = {
    {"jdk.internal.vm.Continuation", false, nullptr},
    {"java.lang.VirtualThread", false, nullptr},
    {"java.lang.System$", true, "parkVirtualThread"},
    {"jdk.internal.misc.VirtualThreads", false, nullptr},
    {"java.util.concurrent.locks.LockSupport", false, nullptr},
};

bool IsSchedulerFrame(const QorFrameRecord &frame) {
    for (const SchedulerFrame &row : SCHEDULER_FRAMES) {
        const bool isClass = row.prefix ? strncmp(frame.className, row.className, strlen(row.className)) == 0
                                        : strcmp(frame.className, row.className) == 0;
        if (isClass)
            return !row.method || strcmp(frame.method, row.method) == 0;
    }
    return false;
}

void Mix(uint64_t *hash, uint64_t value) {
    *hash = (*hash ^ value) * 0x9e3779b97f4a7c15U;
    *hash ^= *hash >> 29;
}

uint64_t HashOf(int32_t state, const jvmtiFrameInfo *frames, int32_t count) {
    uint64_t hash = static_cast<uint64_t>(state) + 1;
    for (int32_t i = 0; i < count; i++) {
        Mix(&hash, reinterpret_cast<uint64_t>(frames[i].method));
        Mix(&hash, static_cast<uint64_t>(frames[i].location));
    }
    return hash;
}

// The group with this hash, or the free place for it; null when the table is nearly full.
QorVirtualGroup *FindGroup(QorVirtualSample *sample, uint64_t hash) {
    uint32_t at = static_cast<uint32_t>(hash >> 32) % VIRTUAL_GROUPS;
    while (sample->groups[at].count != 0 && sample->groups[at].hash != hash)
        at = (at + 1) % VIRTUAL_GROUPS;
    QorVirtualGroup *group = &sample->groups[at];
    return group->count == 0 && sample->groupCount >= VIRTUAL_GROUPS * 3 / 4 ? nullptr : group;
}

void CopyClassName(jobject object, char *dest) {
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    char *signature = nullptr;
    if (klass && jvmti->GetClassSignature(klass, &signature, nullptr) == JVMTI_ERROR_NONE && signature) {
        QorCopyText(dest, signature[0] == 'L' ? signature + 1 : signature, VIRTUAL_TEXT_SIZE, BLANK_MARKS);
        Slash2Dot(dest);
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(signature));
    }
    if (klass)
        QorDeleteLocalRef(jvmtijni_env, klass);
}

// A field of type String; `dest` stays as it is when there is none.
void CopyStringField(jobject object, jfieldID field, char *dest) {
    jstring text =
        object && field ? static_cast<jstring>(QorGetObjectField(jvmtijni_env, object, field)) : nullptr;
    if (!text)
        return;
    if (const char *chars = QorGetStringUTFChars(jvmtijni_env, text, nullptr)) {
        QorCopyText(dest, chars, VIRTUAL_TEXT_SIZE, BLANK_MARKS);
        QorReleaseStringUTFChars(jvmtijni_env, text, chars);
    }
    QorDeleteLocalRef(jvmtijni_env, text);
}

// Name of the executor or scope, or its class; "" for the root.
void DescribeContainer(jobject container, char *dest) {
    const auto is = [&](jclass klass) { return klass && jvmtijni_env->IsInstanceOf(container, klass); };
    if (is(qorVirtual.trackingRoot) || is(qorVirtual.countingRoot))
        return;
    if (is(qorVirtual.shared)) {
        CopyStringField(container, qorVirtual.sharedName, dest);
    } else if (is(qorVirtual.flockContainer)) {
        jobject flock = QorGetObjectField(jvmtijni_env, container, qorVirtual.flock);
        CopyStringField(flock, qorVirtual.flockName, dest);
        QorDeleteLocalRef(jvmtijni_env, flock);
    }
    if (!dest[0])
        CopyClassName(container, dest);
}

// What is shown of a group's first member.
void DescribeMember(QorVirtualGroup *group, jthread thread) {
    group->tid = QorGetLongField(jvmtijni_env, thread, qorVirtual.tid);
    CopyStringField(thread, qorVirtual.name, group->name);
    if (jobject container = QorGetObjectField(jvmtijni_env, thread, qorVirtual.container)) {
        DescribeContainer(container, group->container);
        QorDeleteLocalRef(jvmtijni_env, container);
    }
    jobject blocker = QorGetObjectField(jvmtijni_env, thread, qorVirtual.blocker);
    if (!blocker)
        return;
    CopyClassName(blocker, group->waitsFor);
    if (jobject owner = QorOwnerOfBlocker(blocker)) {
        group->owner = QorGetLongField(jvmtijni_env, owner, qorVirtual.tid);
        QorDeleteLocalRef(jvmtijni_env, owner);
    }
    QorDeleteLocalRef(jvmtijni_env, blocker);
}

// Adds a thread's stack to its group.
void AddStack(Sampler *sampler, jthread thread, jint state, const jvmtiFrameInfo *frames, jint count) {
    if (!(state & JVMTI_THREAD_STATE_ALIVE))
        return;
    QorVirtualSample *sample = sampler->sample;
    sample->sampled++;
    const int32_t skipped =
        QorCountSchedulerFrames(frames, count); // without frames: waits for its first carrier
    const int32_t depth = std::min<int32_t>(count - skipped, VIRTUAL_DEPTH);
    const int32_t mapped = mapThreadStatetoQorState(state, -1);
    const uint64_t hash = HashOf(mapped, frames + skipped, depth);
    QorVirtualGroup *group = FindGroup(sample, hash);
    if (!group) {
        sample->groupsCut = true;
        return;
    }
    if (group->count++ == 0) {
        sample->groupCount++;
        group->hash = hash;
        group->state = mapped;
        group->depth = depth;
        memcpy(group->frames, frames + skipped, static_cast<size_t>(depth) * sizeof *frames);
        DescribeMember(group, thread);
    }
    sampler->onMember(group, thread);
}

// One stop for all threads that are held, and a rest as long if others follow. Before it stops the JVM waits
// until no virtual thread is being switched; where they switch all the time that may last 10 ms, in which
// none is switched.
void ReadBatch(Sampler *sampler, bool rest) {
    jvmtiStackInfo *stacks = nullptr;
    const int64_t start = QorVirtualClock(), stop = QorStopStarts();
    const jvmtiError error =
        jvmti->GetThreadListStackTraces(sampler->held, sampler->threads, READ_DEPTH, &stacks);
    QorStopEnded(STOP_STACKS, stop);
    const int64_t taken = QorVirtualClock() - start;
    sampler->sample->stopUsec += taken;
    sampler->walk->stopUsec += taken;
    if (error != JVMTI_ERROR_NONE) {
        describe(error);
        return;
    }
    for (int32_t i = 0; i < sampler->held; i++)
        AddStack(sampler, sampler->threads[i], stacks[i].state, stacks[i].frame_buffer,
                 stacks[i].frame_count);
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(stacks));
    if (rest) {
        const timespec time = {0, std::min(taken, LONGEST_REST_USEC) * 1000};
        nanosleep(&time, nullptr);
    }
}

// A stack and the state that the thread had before and after: almost surely of one moment. Of a thread that
// switches all the time the last ones. False for one that has ended.
bool ReadThread(jthread thread, jint *state, jvmtiFrameInfo *frames, jint *count) {
    jint before = 0;
    if (jvmti->GetThreadState(thread, &before) != JVMTI_ERROR_NONE)
        return false;
    for (int32_t i = 0; i < MOST_READS; i++, before = *state) {
        if (jvmti->GetStackTrace(thread, 0, READ_DEPTH, frames, count) != JVMTI_ERROR_NONE ||
            jvmti->GetThreadState(thread, state) != JVMTI_ERROR_NONE)
            return false;
        if (*state == before)
            break;
    }
    return true;
}

// One thread after another, without a stop: only the one that is read is kept from being switched.
void ReadSingly(Sampler *sampler) {
    const int64_t start = QorVirtualClock();
    for (int32_t i = 0; i < sampler->held; i++) {
        jvmtiFrameInfo frames[READ_DEPTH];
        jint state = 0, count = 0;
        if (ReadThread(sampler->threads[i], &state, frames, &count))
            AddStack(sampler, sampler->threads[i], state, frames, count);
    }
    sampler->sample->stopUsec += QorVirtualClock() - start;
}

void ReadHeld(Sampler *sampler, bool othersFollow) {
    if (sampler->held == 0)
        return;
    if (QorStopsAreSpent(*sampler->walk))
        sampler->walk->cut = true;
    else if (sampler->batches)
        ReadBatch(sampler, othersFollow);
    else
        ReadSingly(sampler);
    for (int32_t i = 0; i < sampler->held; i++)
        QorDeleteLocalRef(jvmtijni_env, sampler->threads[i]);
    sampler->held = 0;
}

bool VisitThread(void *data, jobject thread) {
    Sampler *sampler = static_cast<Sampler *>(data);
    if (jobject carrier = QorGetObjectField(jvmtijni_env, thread, qorVirtual.carrier)) {
        QorDeleteLocalRef(jvmtijni_env, carrier);
        return true; // samples of all threads have it
    }
    jobject kept = jvmtijni_env->NewLocalRef(thread);
    if (!kept)
        return false;
    sampler->threads[sampler->held++] = kept;
    if (sampler->held == (sampler->batches ? BATCH : 1))
        ReadHeld(sampler, true);
    return true;
}

// Moves the groups to the front, largest first.
void SortGroups(QorVirtualSample *sample) {
    QorVirtualGroup *end = std::remove_if(sample->groups, sample->groups + VIRTUAL_GROUPS,
                                          [](const QorVirtualGroup &group) { return group.count == 0; });
    std::sort(sample->groups, end, [](const QorVirtualGroup &a, const QorVirtualGroup &b) {
        return a.count != b.count ? a.count > b.count : a.tid < b.tid;
    });
}

void TakeCounts(const QorVirtualWalk &walk, QorVirtualSample *sample) {
    sample->count = walk.counts.all + walk.inScopes;
    sample->inExecutors = walk.counts.inExecutors;
    sample->rootIsListed = walk.counts.rootIsListed;
    sample->countCut = walk.counts.cut;
    sample->mounted = walk.mounted;
    sample->cut = walk.cut;
}

void TakeSample(const QorVirtualLimits &limits, bool countOnly, QorVirtualSample *sample) {
    static Sampler sampler;
    const bool batches = QorJvmRelease() < RELEASE_WITHOUT_STOP;
    const Defaults &defaults = batches ? WITH_STOPS : WITHOUT_STOPS;
    const int64_t usec =
        (limits.milliseconds > 0 ? limits.milliseconds : defaults.milliseconds) * int64_t{1000};
    QorVirtualWalk walk = {};
    sampler = {sample, &walk, batches, limits.onMember, {}, 0};
    walk.visit = countOnly ? nullptr : VisitThread;
    walk.data = &sampler;
    walk.most = limits.threads > 0 ? limits.threads : defaults.threads;
    walk.deadline = QorVirtualClock() + usec;
    walk.mostStopUsec = batches ? usec / STOPPED_SHARE : 0;
    QorWalkVirtualThreads(&walk);
    ReadHeld(&sampler, false);
    TakeCounts(walk, sample);
    if (!countOnly && !walk.cut)
        sample->count = std::max(sample->count, walk.visited);
}

} // namespace

int32_t QorCountSchedulerFrames(const jvmtiFrameInfo *frames, jint count) {
    static QorFrameHandle top;
    top.count = std::min<jint>(count - 1, MOST_SCHEDULER_FRAMES);
    if (top.count <= 0)
        return 0;
    memcpy(top.frames, frames, static_cast<size_t>(top.count) * sizeof *frames);
    for (top.index = 0; top.index < top.count; top.index++) {
        QorFrameRecord frame;
        if (QorReadFrame(&top, FRAME_METHOD_AND_CLASS, &frame) != 0 || !IsSchedulerFrame(frame))
            break;
    }
    return top.index;
}

int32_t QorSampleVirtualThreads(const QorVirtualLimits &limits, bool countOnly, QorVirtualSample *sample) {
    *sample = {};
    const QorLocalFrame frame(jvmtijni_env, REFERENCES);
    QorDropVirtualGroups(); // a fault has ended the last view
    groupsInUse = static_cast<QorVirtualGroup *>(calloc(VIRTUAL_GROUPS, sizeof(QorVirtualGroup)));
    sample->groups = groupsInUse;
    if (!frame.pushed || !sample->groups)
        return -1;
    TakeSample(limits, countOnly, sample);
    SortGroups(sample);
    return 0;
}

void QorFreeVirtualSample(QorVirtualSample *sample) {
    sample->groups = nullptr;
    QorDropVirtualGroups();
    QorDropMethodFacts();
}

void QorDropVirtualGroups() {
    free(groupsInUse);
    groupsInUse = nullptr;
}

bool QorRefineUnmounted(QorFrameHandle *frames, QorThreadRecord *thread) {
    constexpr char SLEEP[] = "sleep", CHANNELS[] = "sun.nio.ch.", POLLER_LOOP[] = "PollerLoop";
    bool isPoller = false;
    const int32_t parked = thread->state == STATE_OBJECT_WAIT ? frames->count : 0;
    for (frames->index = 0; frames->index < parked && thread->state != STATE_SLEEPING; frames->index++) {
        QorFrameRecord frame;
        if (QorReadFrame(frames, FRAME_METHOD_AND_CLASS, &frame) != 0)
            break;
        if (frames->index == 0 && strcmp(frame.className, "java.lang.Thread") == 0 &&
            strncmp(frame.method, SLEEP, sizeof SLEEP - 1) == 0)
            thread->state = STATE_SLEEPING;
        else if (strncmp(frame.className, CHANNELS, sizeof CHANNELS - 1) != 0)
            break;
        else
            thread->state = STATE_NETWORK_WAIT;
        isPoller = strcasestr(frame.method, POLLER_LOOP) != nullptr;
        if (isPoller || strcasestr(frame.method, "accept")) {
            thread->state = STATE_OBJECT_WAIT;
            break;
        }
    }
    thread->enhancedState = thread->state;
    frames->index = 0;
    return isPoller;
}
