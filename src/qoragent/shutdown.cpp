#include "shutdown.h"

#include "agent_state.h"
#include "qoragent/requests/channel.h"
#include "qoragent/requests/forked_dump.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "vendor.h"

#include "QorOS.h"
#include "Xtier/Xtier.h"
#include "direct/direct_start.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/threads/MonitorMemo.h"
#include "jvmti/threads/VirtualFields.h"
#include "jvmti/threads/VirtualGroups.h"
#include "jvmti/threads/VirtualMonitors.h"
#include "jvmti/trycatch.h"
#include "qorthreads/qorthreads.h"

#include <ctime>

namespace {

constexpr int LEAVE_SLICES = 1200; // somewhat more than a waiting caller's slice of 10 seconds
constexpr int32_t LEAVE_SLICE_MSEC = 10;

char *keptReply; // taken away and not yet freed

void DropClass(JNIEnv *env, jclass *ref) {
    jclass dropped = *ref;
    *ref = nullptr;
    if (dropped)
        QorDeleteGlobalRef(env, dropped);
}

// What the direct road's samples have kept. The references to classes stay until a start drops them: the
// worker isn't one of Java's threads.
void DropSamples() {
    if (!QorTakeBusyWithin(LEAVE_SLICES * LEAVE_SLICE_MSEC))
        return;
    QorDropXtier(nullptr);
    QorDropDirectSamples();
    workerBusy = 0;
}

} // namespace

void QorFreeReply() {
    if (!QorTakeBusyWithin(LEAVE_SLICES * LEAVE_SLICE_MSEC))
        return; // a caller that Java doesn't answer still writes into it
    if (char *page = __atomic_exchange_n(&pagebuf, nullptr, __ATOMIC_SEQ_CST))
        keptReply = page;
    workerBusy = 0;
    for (int i = 0; callersInside != 0; i++) {
        if (i == LEAVE_SLICES)
            return;
        const timespec slice = {0, LEAVE_SLICE_MSEC * 1000L * 1000};
        nanosleep(&slice, nullptr);
    }
    QorFree(keptReply, PAGEBUF_SIZE);
    keptReply = nullptr;
}

void QorDropSession(JNIEnv *env) {
    QorBusyScope busy; // a Java thread may be taking the list
    DropClass(env, &e2eclass);
    DropClass(env, &jobjclass);
    DropClass(env, &jstringclass);
    DropClass(env, &gbDbUtilClass);
    if (QorIsEarlyDov())
        trycatch_Cleanup();
    QorDropXtier(env);
    QorDropDirectSamples();
    QorDovOnUnload(env);
    QorForgetMounted();
    // References go by the environment that the unload has set: the worker's may be gone.
    QorDropMemo();
    QorDropVirtualFields();
    QorDropVirtualGroups();
    QorDropVirtualMonitors();
}

void exitAgent(JNIEnv *env) {
    prev_ch_pid = ch_pid.load();
    QorDropCopies();
    QorEndHolds();
    QorSignalParent(); // whoever came with the SHUTDOWN gets no answer
    QorFreeReply();
    if (env) {
        QorDropSession(env);
        QORLOG(LOG_NOTE, "Detaching Child thread (%d).", ch_pid.load());
        QorDetachThread();
    } else {
        DropSamples();
    }
    agentstatus = 0;
    QORLOG(LOG_NOTE, "agentstatus reset to 0 before child thread exits");
}
