#include "HeapDump.h"

#include "ClassRecords.h"
#include "DumpCallbacks.h"
#include "DumpHeader.h"
#include "DumpState.h"
#include "LocalNames.h"
#include "MemorySystem.h"
#include "ObjectTags.h"
#include "jvmti/ClassMirrors.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/TagEnvironment.h"
#include "platforms/memory_headroom.h"
#include "qorcost.h"
#include "qorlog.h"

#include <cerrno>
#include <cstring>
#include <ctime>

int32_t gbiDumpBufferSize = DUMP_BUFFER_SIZE;

QorDumpFile fp = {-1, 0, 0, 0, 0, nullptr, 0};
jvmtiEnv *gbDumpEnv;
int32_t igbCurrentRun = 1;
int64_t iHeapObjectStartNum = FIRST_OBJECT_NUMBER;
QorTagClassEntry *objTagClass;
int64_t igbTagClassCount;
int32_t igbfpSet;
int64_t gbiFpPos;
int32_t igbArrayElementlength;
int64_t iQorStrArrSize;

namespace {

constexpr uint64_t LEAST_OBJECT_SIZE = 16, TAG_COST = 72; // bytes; the cost is the newest JVMs'
constexpr int64_t STRING_ARRAY_SIZE = 40000;
constexpr jint FRAME_CAPACITY = 16;

time_t dumpStart;

// Whether the machine can give the JVM the memory for a tag on every object. The objects are only counted,
// which stops the JVM, when the heap's size alone doesn't decide it.
bool TagsFitInMemory() {
    const uint64_t headroom = QorMemoryHeadroom();
    if (headroom / TAG_COST >= QorGetUsedMemory() / LEAST_OBJECT_SIZE)
        return true;
    int64_t objects = 0;
    if (QorGetHeapObjectCount(&objects) != 0 || headroom / TAG_COST >= static_cast<uint64_t>(objects))
        return true;
    QORLOG(LOG_ERROR, "Heap dump refused: tags on %lld objects take up to %llu MiB, %llu MiB are free",
           static_cast<long long>(objects),
           static_cast<unsigned long long>(static_cast<uint64_t>(objects) * TAG_COST >> 20),
           static_cast<unsigned long long>(headroom >> 20));
    return false;
}

void Walk() {
    jvmtiHeapCallbacks callbacks = {};
    callbacks.heap_reference_callback = cbQorHeapReference;
    callbacks.array_primitive_value_callback = cbQorPrimArrayData;
    jobject held = QorHoldMirrorFields(gbDumpEnv);
    const int64_t start = QorStopStarts();
    const jvmtiError error = gbDumpEnv->FollowReferences(0, nullptr, nullptr, &callbacks, nullptr);
    QorStopEnded(STOP_HEAP, start);
    QorClearException(jvmtijni_env);
    QorDeleteLocalRef(jvmtijni_env, held);
    if (error != JVMTI_ERROR_NONE)
        QORLOG(LOG_ERROR, "QorDumpHeap followreferences failed %d", error);
    QorFinishArrayHeader();
    QorDumpFlush(&fp);
    if (qorNamelessLocals)
        QORLOG(LOG_DETAIL, "Heap dump: %lld locals of methods with no name",
               static_cast<long long>(qorNamelessLocals));
}

// The dump with its environment open. 0, or -1.
int32_t DumpTo(const char *path) {
    if (QorBeginDump(path) != 0)
        return -1;
    Walk();
    QorWriteClassRecords();
    QORLOG(LOG_NOTE, "Finished with Heap dump");
    QorWriteDumpTrailer();
    QorEndDump();
    if (QorDumpClose(&fp) == 0)
        return 0;
    QORLOG(LOG_ERROR, "Heap dump: %s could not be written and is left empty: %s", path, strerror(errno));
    return -1;
}

} // namespace

int32_t QorBeginDump(const char *path) {
    iQorStrArrSize = STRING_ARRAY_SIZE;
    igbArrayElementlength = 0;
    QORLOG(LOG_NOTE, "Heap Dumping to %s", path);
    if (QorDumpOpen(&fp, path, gbiDumpBufferSize) != 0) {
        QORLOG(LOG_ERROR, "Not able to open the file for writing %s", path);
        QORLOG(LOG_ERROR, "Heap dump: %s", strerror(errno));
        return -1;
    }
    dumpStart = time(nullptr);
    QorWriteHeapDumpHeader(&fp);
    igbCurrentRun = !igbCurrentRun;
    iHeapObjectStartNum = FIRST_OBJECT_NUMBER;
    QorCollectLocalNames();
    tag_all_classes(); // last, so that few classes come after it; without it the dump has no class records
    QorStartDumpWalk();
    return 0;
}

void QorWriteDumpTrailer() {
    const int64_t seconds = time(nullptr) - dumpStart;
    constexpr char BEFORE[] = " Finished ", AFTER[] = " secs";
    char *p = QorPutText(QorDumpReserve(&fp, DUMP_LEAST_BUFFER), BEFORE);
    p = QorPutSigned(p, seconds > 0 ? seconds : 0);
    QorDumpCommit(&fp, QorPutText(p, AFTER));
}

void QorEndDump() {
    QorFreeClassList();
    QorDropLocalNames();
}

int32_t QorHeapDump(const char *path) {
    if (!jvmtijni_env)
        return -1;
    QorLocalFrame frame(jvmtijni_env, FRAME_CAPACITY); // holds all classes: without it none is ever unloaded
    if (!frame.pushed) {
        QorLogNoFrame(LOG_ERROR);
        return -1;
    }
    if (!TagsFitInMemory())
        return -1;
    gbDumpEnv = QorOpenTagEnvironment();
    if (!gbDumpEnv)
        return -1;
    const int32_t result = DumpTo(path);
    QorCloseTagEnvironment(gbDumpEnv);
    gbDumpEnv = nullptr;
    return result;
}
