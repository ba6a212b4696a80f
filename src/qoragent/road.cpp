// The choice of the road, on a thread of its own: level and vendor give a text, the text gives a build.

#include "fault_handler.h"
#include "gc_lock.h"
#include "qorlog.h"
#include "qorsettings.h"
#include "qorsysinfo.h"
#include "startup.h"
#include "worker.h"

#include "RequestHandler/records.h"
#include "jvmti/trycatch.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/linux.h"

#include <cstdio>
#include <cstring>
#include <unistd.h>

int32_t init_status = START_RUNNING;
int32_t doing_init;
int32_t ext_jvm_id;
int32_t maxstates;
int32_t NUM_HEAP_SPACES;

namespace {

constexpr int32_t HEAP_SPACES = 4;
constexpr int32_t DIRECT_THREAD_STATES = 9;
constexpr int32_t FIRST_DIRECT_BUILD = 6, LAST_DIRECT_BUILD = 10;
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
    maxstates = offsetind >= FIRST_DIRECT_BUILD && offsetind <= LAST_DIRECT_BUILD ? DIRECT_THREAD_STATES : 0;
    ext_jvm_id = 0;
    init_status = resolved;
    QORLOG(LOG_ERROR, " Skipped Initialization 2/3, 3/3.");
}

// The direct road goes by a table of offsets into the JVM's structures, with a row for each build. This
// version has none, so that road ends here even for a JVM that shows all its symbols.
bool KnowsOffsets(int32_t) {
    return false;
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
    NUM_HEAP_SPACES = HEAP_SPACES;
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
        QorForgiveSymbols(words);
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
    QorPrepareFaultHandler();
    set_qor_handler();

    const int32_t resolved = ChooseRoad();
    if (QorOnJvmtiRoad())
        init_status = START_OK;
    else
        FinishDirectRoad(resolved);

    reset_qor_handler();
    doing_init = 0;
    return nullptr;
}

int32_t IsNimbJvm(const char *osName) {
    if (!osName) {
        QORLOG(LOG_ERROR, "OS Name Passed is NULL");
        return 0;
    }
    if (!strstr(osName, "NIMB"))
        return 0;
    QORLOG(LOG_NOTE, "NIMB OS");
    return 1;
}

bool QorVendorIsDov() {
    return strstr(vend, "DOV") || strstr(vend, "Tessar");
}

bool QorIsEarlyDov() {
    return QorVendorIsDov() && !strstr(vers, "1.7");
}
