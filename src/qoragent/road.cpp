#include "road.h"

// The choice of the road, on a separate thread: level and vendor give a text, the text a build.

#include "agent_state.h"
#include "fault_handler.h"
#include "platforms/qorsysinfo.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "server_port.h"
#include "vendor.h"
#include "worker.h"

#include "RequestHandler/XtierDbSession.h"
#include "heaptraverse/memory_text.h"
#include "jvmti/trycatch.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/linux.h"
#include "platforms/own_address.h"
#include "qoragent/requests/dispatch.h"
#include "qorthreads/hold_tests.h"
#include "qorthreads/qorthreads.h"
#include "qorutil/gc_lock.h"
#include "qorutil/vm_calls.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "reply/records.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

constexpr int32_t DIRECT_JNI_VERSION = 0x00010004;
constexpr int START_TRIES = 3; // a collection may move what is looked at
constexpr char BUILD_BANNER[] = "libqoragent for Linux x86-64";
constexpr int SYMINSTR_SIZE = VENDOR_SIZE + VERSION_SIZE;

// The DOV and Tessar VMs before 1.7 let the agent catch a fault through their own signal table, when asked.
int32_t StartOnJvmtiRoad() {
    if (!QorIsEarlyDov() || jvm_sighandler_chain == 0)
        return initvar(DEFAULT_JVM, "");
    sig_hack = 1;
    return initvar(SYMBOLS_JVM, "");
}

// The status of the chosen road's resolution.
int32_t ChooseRoad() {
    switch (gbiOptimizationLevel) {
    case 2:
        return initvar(vend, vers);
    case 1:
        return initvar(SYMBOLS_JVM, "");
    case 0:
    case 3:
    case 9:
        return StartOnJvmtiRoad();
    default:
        QORLOG(LOG_NOTE, "Unsupported Optimization level:  %d", gbiOptimizationLevel);
        return START_BAD_LEVEL;
    }
}

uint64_t AddressOf(const void *pointer) {
    return reinterpret_cast<uint64_t>(pointer);
}

// Makes the readers ready once. START_FAILED when the row doesn't fit, or the heap can't be made out.
int32_t StartReaders() {
    QorForgetPages();
    if (QorCheckRow(AddressOf(jni_env), callerThreadId) != 0)
        return START_FAILED;
    if (QorLayOutSpaces() != 0) {
        QORLOG(LOG_ERROR, "The JVM's heap spaces weren't found");
        return START_FAILED;
    }
    return heap_initialize(AddressOf(qor_ins), AddressOf(qor_ins_ref), AddressOf(qor_objArr),
                           AddressOf(qor_intArr));
}

// The same, again when a collection has moved what it looked at. One that doesn't end in time is waited for
// once only: the application waits for this start.
int32_t StartReadersBetweenCollections() {
    int32_t failed = START_FAILED;
    bool moved = true;
    for (int i = 0; i < START_TRIES && failed && moved; i++) {
        const bool quiet = qor_disable_gc(GC_WAIT_BOUNDED) == 0;
        const uint32_t collections = QorCollectionCount();
        failed = StartReaders();
        moved = quiet && (QorIsCollecting() || QorCollectionCount() != collections);
        qor_enable_gc();
    }
    return failed;
}

// The first figures, for those that count from the last reading on.
void PrimeFigures() {
    char text[128];
    QorText figures;
    QorTextStart(&figures, text, sizeof text);
    qormemsum(&figures, QORREQ_JUST_THREADS);
}

// Settles the direct road's status. A failed resolution leaves a build index behind, but nothing is read by
// it.
void FinishDirectRoad(int32_t resolved) {
    maxstates = offsets ? OS_STATES : 0;
    init_status = resolved;
    if (offsetind < 0 || resolved != START_OK) {
        QORLOG(LOG_ERROR, " Skipped Initialization 2/3, 3/3.");
        return;
    }
    init_status = StartReadersBetweenCollections();
    if (init_status != START_OK)
        return;
    QorFindSizeFunctions();
    PrimeFigures();
    if (QorFindBlobTables() == 0)
        QORLOG(LOG_ERROR, "Stacks end at compiled code: libjvm's file can't be read");
    QorPrepareHolds(&QOR_HOLD_TESTS);
    OwnAddress(true); // samples use what is known by now
    QorIdentifyServer();
    direct_ready = 1;
}

// A version text can be forged, and another JVM has its fields elsewhere. The JVM's own word comes first,
// before anything is read by the row.
bool KnowsOffsets(int32_t build) {
    if (callerJniVersion != DIRECT_JNI_VERSION) {
        QORLOG(LOG_ERROR, "Not the JVM that its version says: JNI version 0x%08x",
               static_cast<uint32_t>(callerJniVersion));
        return false;
    }
    return QorSelectOffsets(build);
}

// What is left of the words when no symbol that the build needs may be missing: 0, or START_FAILED. An
// unsupported JVM passes, and is known by its build index.
int32_t JudgeSymbols(const uint32_t words[SYMBOL_WORDS]) {
    if ((words[0] | words[1] | words[2] | words[3]) == 0) {
        QORLOG(LOG_DETAIL, "Initialization Code 0, 0x%x : Normal", words[0]);
        return START_OK;
    }
    QORLOG(LOG_NOTE, "Initialization Code 0x%08x 0x%08x 0x%08x 0x%08x", words[3], words[2], words[1],
           words[0]);
    if (words[0] != SYMBOLS_NO_LIST && words[0] != SYMBOLS_UNSUPPORTED) {
        QORLOG(LOG_ERROR, "Exiting...");
        return START_FAILED;
    }
    offsetind = BUILD_UNSUPPORTED;
    return START_OK;
}

} // namespace

int32_t initvar(const char *vendor, const char *version) {
    QorSelectOffsets(BUILD_UNSUPPORTED);
    memcpy(null_str, "^", sizeof null_str);
    char syminstr[SYMINSTR_SIZE];
    snprintf(syminstr, sizeof syminstr, "%s%s", vendor, version);

    uint32_t words[SYMBOL_WORDS] = {};
    findsymbols(getpid(), syminstr, words);
    if (QorOnJvmtiRoad()) {
        if (!gbNimbJvm)
            qorsysinfo(CPU_INITIALISE);
        return START_OK; // a missing symbol is one guard less, no more
    }
    if (offsetind >= 0) {
        QorReadCollector();
        QorForgiveSymbols(words);
    }
    if (JudgeSymbols(words) != START_OK || (offsetind >= 0 && !KnowsOffsets(offsetind)))
        return START_FAILED;
    QORLOG(LOG_DETAIL, "%s", BUILD_BANNER);
    qorsysinfo(CPU_INITIALISE);
    return static_cast<int32_t>(words[0]);
}

void *do_initialization(void *) {
    ch_pid = qor_current_thread_id();
    doing_init = 1;
    init_status = START_RUNNING;
    sig_hack = 0;
    QorPrepareFaultHandler({QorReplaceWorker, QorWorkerGone});
    set_qor_handler();

    const int32_t resolved = ChooseRoad();
    ext_jvm_id = 0;
    if (QorOnJvmtiRoad()) {
        init_status = START_OK;
        QorNameJvmByPort();
    } else {
        FinishDirectRoad(resolved);
    }

    reset_qor_handler();
    doing_init = 0;
    return nullptr;
}
