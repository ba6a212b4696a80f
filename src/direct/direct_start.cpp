#include "direct_start.h"

#include "gc_lock.h"
#include "memory_text.h"
#include "server_port.h"

#include "platforms/own_address.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "qorthreads/hold_tests.h"
#include "qorthreads/qorthreads.h"
#include "qorutil/vm_calls.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "sunprint/report/connection_list.h"
#include "sunprint/report/jdbc_versions.h"

JNIEnv *jni_env;
int32_t callerJniVersion, callerThreadId;
jclass serverKlass1, serverKlass2;
jobject qor_ins, qor_ins_ref, qor_objArr, qor_intArr;
int32_t maxstates;
std::atomic<int32_t> direct_ready;

namespace {

constexpr int32_t DIRECT_JNI_VERSION = 0x00010004;
constexpr int START_TRIES = 3; // a collection may move what is looked at

bool TryReaders() {
    QorForgetPages();
    if (QorCheckRow(QorAddressOf(jni_env), callerThreadId) != 0)
        return false;
    if (QorLayOutSpaces() != 0) {
        QORLOG(LOG_ERROR, "The JVM's heap spaces weren't found");
        return false;
    }
    return heap_initialize(QorAddressOf(qor_ins), QorAddressOf(qor_ins_ref), QorAddressOf(qor_objArr),
                           QorAddressOf(qor_intArr)) == 0;
}

// The first figures, for those that count from the last reading on.
void PrimeFigures() {
    char text[128];
    QorText figures;
    QorTextStart(&figures, text, sizeof text);
    qormemsum(&figures, QORREQ_JUST_THREADS);
}

} // namespace

uint64_t QorAddressOf(const void *pointer) {
    return reinterpret_cast<uint64_t>(pointer);
}

bool QorSelectBuild(int32_t build) {
    const bool agrees = build < 0 || callerJniVersion == DIRECT_JNI_VERSION;
    if (!agrees)
        QORLOG(LOG_ERROR, "Not the JVM that its version says: JNI version 0x%08x",
               static_cast<uint32_t>(callerJniVersion));
    const bool selected = QorSelectOffsets(agrees ? build : BUILD_UNSUPPORTED);
    maxstates = offsets ? OS_STATES : 0;
    return selected;
}

void QorForgiveUnneeded(uint32_t (&words)[SYMBOL_WORDS]) {
    QorReadCollector();
    QorForgiveSymbols(words);
}

// A collection that doesn't end in time is waited for once only: the application waits for this start.
bool QorStartReaders() {
    bool ready = false, moved = true;
    for (int i = 0; i < START_TRIES && !ready && moved; i++) {
        const bool quiet = qor_disable_gc(GC_WAIT_BOUNDED) == 0;
        const uint32_t collections = QorCollectionCount();
        ready = TryReaders();
        moved = quiet && (QorIsCollecting() || QorCollectionCount() != collections);
        qor_enable_gc();
    }
    return ready;
}

void QorPrepareSamples() {
    QorFindSizeFunctions();
    PrimeFigures();
    if (QorFindBlobTables() == 0)
        QORLOG(LOG_ERROR, "Stacks end at compiled code: libjvm's file can't be read");
    QorPrepareHolds(&QOR_HOLD_TESTS);
    OwnAddress(true); // samples use what is known by now
    QorIdentifyServer();
    direct_ready = 1;
}

void QorDropDirectSamples() {
    QorDropConnectionList();
    QorDropJdbcVersions();
}
