#include "road.h"

// The choice of the road, on a separate thread: level and vendor give a text, the text a build.

#include "agent_state.h"
#include "fault_handler.h"
#include "platforms/qorsysinfo.h"
#include "qorlog.h"
#include "qorsettings.h"
#include "vendor.h"
#include "worker.h"

#include "RequestHandler/listening_ports.h"
#include "direct/direct_start.h"
#include "jvmti/trycatch.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/linux.h"
#include "qoragent/requests/dispatch.h"
#include "reply/records.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

namespace {

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

// Settles the direct road's status. A failed resolution leaves a build index behind, but nothing is read by
// it.
void FinishDirectRoad(int32_t resolved) {
    init_status = resolved;
    if (offsetind < 0 || resolved != START_OK) {
        QORLOG(LOG_ERROR, " Skipped Initialization 2/3, 3/3.");
        return;
    }
    init_status = QorStartReaders() ? START_OK : START_FAILED;
    if (init_status == START_OK)
        QorPrepareSamples();
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
    QorSelectBuild(BUILD_UNSUPPORTED);
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
    if (offsetind >= 0)
        QorForgiveUnneeded(words);
    if (JudgeSymbols(words) != START_OK || (offsetind >= 0 && !QorSelectBuild(offsetind)))
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
