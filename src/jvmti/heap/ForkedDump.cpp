#include "ForkedDump.h"

#include "ClassRecords.h"
#include "DumpCallbacks.h"
#include "DumpState.h"
#include "ForkedWalk.h"
#include "HeapDump.h"
#include "ObjectTags.h"
#include "jvmti/ClassMirrors.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "qorcost.h"
#include "qorlog.h"

#include <cerrno>
#include <cstring>
#include <utility>

namespace {

constexpr jint FRAME_CAPACITY = 16;

QorDumpFile classRecords; // their text, composed before the fork

// Objects that some reference has led to, and those that the walk has been in. While they differ the walk
// can't be over, however quiet it is. Class objects are left out: the walk doesn't say when it is in them.
// Read by the copy's watching thread.
volatile int64_t objectsMet, objectsVisited;
int64_t classOfClasses; // number of java.lang.Class

bool WalkCanBeOver() {
    const bool begun = objectsMet || !igbTagClassCount; // without classes nothing is counted
    return fp.error || (begun && objectsVisited >= objectsMet);
}

bool IsWriting() {
    return fp.writing;
}

int64_t NumberOf(const char *signature) {
    for (int64_t i = 0; i < igbTagClassCount; i++)
        if (strcmp(objTagClass[i].signature, signature) == 0)
            return QorTagNumber(objTagClass[i].tag);
    return 0;
}

inline bool IsCounted(jlong classTag) {
    const int64_t klass = QorTagNumber(classTag);
    // Without the list of classes they have no tags at first, and those that they get on the way would
    // miscount.
    return igbTagClassCount && klass > 0 && klass != classOfClasses;
}

int32_t FinishFile() {
    QorFinishArrayHeader();
    QorDumpText(&fp, classRecords.buffer, classRecords.used);
    QorWriteDumpTrailer();
    QorDumpFlush(&fp);
    return fp.error;
}

jint JNICALL ForkedReference(jvmtiHeapReferenceKind kind, const jvmtiHeapReferenceInfo *info, jlong classTag,
                             jlong referrerClassTag, jlong size, jlong *tagPtr, jlong *referrerTagPtr,
                             jint length, void *userData) {
    if (!QorWalkOnInChild())
        return JVMTI_VISIT_ABORT;
    if (IsCounted(classTag) && (!*tagPtr || QorTagIsStale(*tagPtr, igbCurrentRun)))
        objectsMet = objectsMet + 1;
    if (kind == JVMTI_HEAP_REFERENCE_CLASS && IsCounted(referrerClassTag))
        objectsVisited = objectsVisited + 1; // each object's visit begins with the reference to its class
    return cbQorHeapReference(kind, info, classTag, referrerClassTag, size, tagPtr, referrerTagPtr, length,
                              userData);
}

jint JNICALL ForkedPrimArray(jlong classTag, jlong size, jlong *tagPtr, jint count, jvmtiPrimitiveType type,
                             const void *elements, void *userData) {
    if (!QorWalkOnInChild())
        return JVMTI_VISIT_ABORT;
    return cbQorPrimArrayData(classTag, size, tagPtr, count, type, elements, userData);
}

bool ComposeClassRecords() {
    if (!QorDumpBegin(&classRecords, DUMP_BUFFER_SIZE))
        return false;
    std::swap(fp, classRecords);
    QorWriteClassRecords();
    std::swap(fp, classRecords);
    return !classRecords.error;
}

int32_t Fork() {
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_reference_callback = ForkedReference;
    callbacks.array_primitive_value_callback = ForkedPrimArray;
    objectsMet = objectsVisited = 0;
    classOfClasses = NumberOf("Ljava/lang/Class;");
    jobject held = QorHoldMirrorFields(gbDumpEnv);
    const int64_t start = QorStopStarts();
    const int32_t pid =
        QorForkedWalkReturned(gbDumpEnv->FollowReferences(0, nullptr, nullptr, &callbacks, nullptr));
    QorStopEnded(STOP_COPY, start);
    QorDeleteLocalRef(jvmtijni_env, held);
    return pid;
}

// With the dump begun: takes its file over, or closes it.
int32_t ForkInWalk(const int32_t pipe[2]) {
    const QorForkPlan plan = {fp.fd,      {pipe[0], pipe[1]}, 0, WalkCanBeOver, IsWriting,
                              FinishFile, QorLogDumpEnd};
    if (!ComposeClassRecords() || !QorPrepareFork(plan)) {
        fp.error = ENOMEM;
        QorDumpClose(&fp);
        return FORK_REFUSED_BY_SYSTEM;
    }
    const int32_t pid = Fork();
    QorDumpAbandon(&fp); // the copy has its own of what the buffer holds
    if (pid < 0)
        QorForgetFork();
    return pid;
}

int32_t DumpTo(const char *path, const int32_t pipe[2]) {
    const int32_t run = igbCurrentRun;
    int32_t pid = FORK_REFUSED_FILE;
    if (QorBeginDump(path) == 0) {
        pid = ForkInWalk(pipe);
        QorEndDump();
        QorDumpAbandon(&classRecords);
    }
    igbCurrentRun = run; // this process has made no dump
    return pid;
}

} // namespace

int32_t QorForkHeapDump(const char *path, const int32_t pipe[2]) {
    if (!jvmtijni_env)
        return FORK_REFUSED_BY_JVM;
    const int32_t refusal = QorCheckFork(FORK_FOR_DUMP, QorJvmHeapInUse());
    if (refusal)
        return refusal;
    QorLocalFrame frame(jvmtijni_env, FRAME_CAPACITY);
    if (!frame.pushed) {
        QorLogNoFrame(LOG_ERROR);
        return FORK_REFUSED_BY_JVM;
    }
    gbDumpEnv = QorOpenTagEnvironment();
    if (!gbDumpEnv)
        return FORK_REFUSED_BY_JVM;
    const int32_t result = DumpTo(path, pipe);
    QorCloseTagEnvironment(gbDumpEnv);
    gbDumpEnv = nullptr;
    return result;
}
