#include "shutdown.h"

#include "caller.h"
#include "channel.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "startup.h"
#include "worker.h"

#include "RequestHandler/thread_e2e_info.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/trycatch.h"
#include "platforms/QorOS.h"

#include <cstring>
#include <ctime>

namespace {

constexpr int LEAVE_SLICES = 1200; // somewhat more than a waiting caller's slice of 10 seconds
constexpr long LEAVE_SLICE_NSEC = 10 * 1000 * 1000;

void DropClass(JNIEnv *env, jclass *ref) {
    if (*ref)
        QorDeleteGlobalRef(env, *ref);
    *ref = nullptr;
}

} // namespace

bool QorFreeReply() {
    char *page = __atomic_exchange_n(&pagebuf, nullptr, __ATOMIC_SEQ_CST);
    for (int i = 0; i < LEAVE_SLICES && callersInside != 0; i++) {
        const timespec slice = {0, LEAVE_SLICE_NSEC};
        nanosleep(&slice, nullptr);
    }
    if (callersInside != 0)
        return false;
    QorFree(page, PAGEBUF_SIZE);
    return true;
}

void QorDropSession(JNIEnv *env) {
    release_thread_e2e_info(env);
    QorDropE2EPool();
    DropClass(env, &e2eclass);
    DropClass(env, &jobjclass);
    DropClass(env, &jstringclass);
    DropClass(env, &gbDbUtilClass);
    if (QorVendorIsDov() && !strstr(vers, "1.7"))
        trycatch_Cleanup();
    QorDovOnUnload(env);
}

void exitAgent(JNIEnv *env) {
    prev_ch_pid = ch_pid.load();
    QorFreeReply();
    if (env) {
        QorDropSession(env);
        QORLOG(LOG_NOTE, "Detaching Child thread (%d).", ch_pid.load());
        QorDetachThread();
    }
    agentstatus = 0;
    QORLOG(LOG_NOTE, "agentstatus reset to 0 before child thread exits");
}
