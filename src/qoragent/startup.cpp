#include "startup.h"

#include "agent_state.h"
#include "caller.h"
#include "direct/gc_lock.h"
#include "platforms/qorsysinfo.h"
#include "qoragent/requests/channel.h"
#include "qoragent/requests/dispatch.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "qorutil.h"
#include "road.h"
#include "settings_from_java.h"
#include "shutdown.h"
#include "vendor.h"
#include "worker.h"

#include "QorOS.h"
#include "RequestHandler/XtierDbSession.h"
#include "Xtier/LocalWalk.h"
#include "direct/direct_start.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/trycatch.h"
#include "platforms/linux.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <unistd.h>

namespace {

constexpr int HOSTNAME_ASKED = 80;
constexpr size_t NIMB_STACK_SIZE = 1024 * 1024;
// Waits for an earlier agent, 10 seconds in all. An idle worker needs milliseconds, also where the time-out
// is 0.
constexpr int32_t LEAST_LEAVE_SECONDS = 2, MOST_LEAVE_SECONDS = 6;
constexpr int32_t CLOSE_SECONDS = 2, RETIRE_SECONDS = 2;
constexpr long WAIT_SLICE_NSEC = 10 * 1000 * 1000;
constexpr int WAIT_SLICES_PER_SECOND = 100;

struct ServerMarker {
    const char *server, *class1, *class2;
};
constexpr ServerMarker SERVER_MARKERS[] = {
    {"Apache JServ", "org/apache/jserv/JServ", nullptr},
    {"QVS", "com/halcyon/server/http/HalcyonJSPFactory", "com/halcyon/server/LumoMonitorThread"},
    {"Ferrule", "ferrule/management/Admin", "ferrule/servlet/internal/WebAppConfigManager"},
};

struct GlobalClass {
    jclass *ref;
    const char *name;
};
constexpr GlobalClass GLOBAL_CLASSES[] = {
    {&e2eclass, "qoragent/cJavaCall"},
    {&jobjclass, "java/lang/Object"},
    {&jstringclass, "java/lang/String"},
    {&gbDbUtilClass, "qoragent/DbUtil"},
};

// One second, or less when the worker has left meanwhile.
void WaitASecondForWorker() {
    for (int i = 0; i < WAIT_SLICES_PER_SECOND && agentstatus != 0 && QorWorkerLives(); i++) {
        const timespec slice = {0, WAIT_SLICE_NSEC};
        nanosleep(&slice, nullptr);
    }
}

// Ends the start with a reason that Java can ask for.
void Fail(const char *reason) {
    init_status = START_FAILED;
    startFailure = reason;
    QORLOG(LOG_ERROR, "%s", reason);
}

// Waits for the agent of an earlier start to leave, and keeps callers out from then on. When it doesn't
// leave: false, and it goes on as before.
bool EarlierAgentLeft(int32_t timeout) {
    int32_t left = std::clamp<int32_t>(timeout, LEAST_LEAVE_SECONDS, MOST_LEAVE_SECONDS);
    for (; agentstatus != 0 && QorWorkerLives() && left > 0; left--) {
        QORLOG(LOG_NOTE, "Waiting for previous agent child thread to exit.");
        WaitASecondForWorker();
    }
    if ((agentstatus == 0 || !QorWorkerLives()) && QorCloseToCallers(CLOSE_SECONDS)) {
        // A worker that nobody asked to leave, or that was given up, leaves now: two must never inspect.
        if (QorRetireWorkers(RETIRE_SECONDS))
            return true;
        QorOpenToCallers();
    }
    QORLOG(LOG_NOTE, "Unable to clear previous QORD agent child thread. Not starting a new one. To manually "
                     "clear, please bounce the server.");
    startFailure = "the agent of an earlier start is still busy with a request";
    return false;
}

// What a worker that left without a SHUTDOWN has not freed, the road it went, and a SHUTDOWN that came too
// late for it.
void ClearEarlierRun(JNIEnv *env) {
    if (jvmti || jobjclass)
        QorDropSession(env);
    QorFreeReply();
    qorlocks[1] = 0;
    direct_ready = 0;
    offsetind = 0;
    agentstatus = 0;
    qorLeave = 0;
}

void FindServerMarkers(JNIEnv *env) {
    serverKlass1 = serverKlass2 = nullptr;
    for (const ServerMarker &marker : SERVER_MARKERS) {
        if (strncmp(webserver, marker.server, WEBSERVER_SIZE) != 0)
            continue;
        serverKlass1 = QorFindClass(env, marker.class1);
        serverKlass2 = marker.class2 ? QorFindClass(env, marker.class2) : nullptr;
    }
}

void FindGlobalClasses(JNIEnv *env) {
    jni_env = env;
    if (env->GetJavaVM(&qor_vm) != JNI_OK)
        qor_vm = nullptr;
    for (const GlobalClass &row : GLOBAL_CLASSES) {
        jclass found = QorFindClass(env, row.name);
        *row.ref = found ? static_cast<jclass>(QorNewGlobalRef(env, found)) : nullptr;
        if (found)
            QorDeleteLocalRef(env, found);
    }
}

bool AllocateReply() {
    auto *page = static_cast<char *>(QorMalloc(PAGEBUF_SIZE));
    if (!page) {
        QORLOG(LOG_ERROR, "malloc failed for pagebuf");
        return false;
    }
    page[0] = page[PAGEBUF_SIZE - 1] = 0;
    __atomic_store_n(&pagebuf, page, __ATOMIC_SEQ_CST);
    return true;
}

void LearnHost() {
    readconditions(nullptr);
    if (gethostname(hostname, HOSTNAME_ASKED) != 0)
        hostname[0] = 0;
    hostname[HOSTNAME_ASKED] = 0; // a longer name comes unterminated
    init_cpu();
}

bool AllocateSuspendedThreads() {
    free(suspended_threads);
    suspended_threads = static_cast<void **>(calloc(static_cast<size_t>(maxthreads), sizeof(void *)));
    if (suspended_threads)
        return true;
    qor_perror("QOR Agent : calloc failed 2005");
    QORLOG(LOG_ERROR, "calloc failed 2005");
    return false;
}

void OpenProcNet() {
    if (QorOpenProcNet())
        QORLOG(LOG_DETAIL, "DB connection status available");
    else
        QORLOG(LOG_DETAIL, "Unable to get db connection status");
}

// The road is chosen on a separate thread, so that whatever happens there does not happen to a Java thread.
// False when that thread is unavailable.
bool RunInitialization() {
    pthread_attr_t attributes;
    pthread_attr_init(&attributes);
    if (gbNimbJvm)
        pthread_attr_setstacksize(&attributes, NIMB_STACK_SIZE);
    pthread_t initializer;
    const int failed = pthread_create(&initializer, &attributes, do_initialization, nullptr);
    pthread_attr_destroy(&attributes);
    if (!failed) {
        pthread_join(initializer, nullptr);
        return true;
    }
    if (gbNimbJvm)
        QORLOG(LOG_ERROR, "Thread Createion Failed ");
    else
        QORLOG(LOG_ERROR, "Thread Createion Failed. !gbnimbJVM ");
    return false;
}

void OpenManagement() {
    if (!gbIbmJvm && (QorOnJvmtiRoad() || QorVendorIsDov() || strstr(vend, "Sun")))
        QorInitJmm();
}

// The session, and what may be done with it on this JVM.
void OpenSession(JNIEnv *env) {
    if (QorOnJvmtiRoad()) {
        QorDovOnLoad(env);
        checkGetObjOpt();
    }
    const bool early = QorIsEarlyDov();
    if (early)
        trycatch_init();
    gbQorRELocal = early && gbiOptimizationLevel == 2;
    QorSetManagementGCCountCapability(1);
    QorSetForkHeapDumpCapability(early && (gbiOptimizationLevel == 1 || gbiOptimizationLevel == 2));
}

void StartWorker() {
    if (qorlocks[0])
        qor_enable_gc();
    ch_pid = 0;
    if (qor_create_child_thread(&thread) != 0)
        Fail("no thread for the worker");
}

// References of the caller's frame, which is about to end.
void ForgetFrameReferences() {
    serverKlass1 = serverKlass2 = nullptr;
    qor_ins = qor_ins_ref = qor_objArr = qor_intArr = nullptr;
    jni_env = nullptr;
}

void StoreArguments(JNIEnv *env, const QorStartArguments *arguments) {
    QorStoreNumbers(arguments);
    QorStoreJvmTexts(env, arguments);
    QorOpenLog(env, arguments->logFile);
    QorStoreServerTexts(env, arguments);
    qor_ins = arguments->instance;
    qor_ins_ref = arguments->instanceRef;
    qor_objArr = arguments->objectArray;
    qor_intArr = arguments->intArray;
}

bool PrepareProcess(JNIEnv *env) {
    FindServerMarkers(env);
    FindGlobalClasses(env);
    memcpy(qorheapdir, "/tmp/", sizeof "/tmp/");
    if (!AllocateReply())
        return false;
    LearnHost();
    callerJniVersion = env->GetVersion();
    callerThreadId = qor_current_thread_id();
    if (!AllocateSuspendedThreads())
        return false;
    OpenProcNet();
    return true;
}

} // namespace

int32_t QorStart(JNIEnv *env, const QorStartArguments *arguments) {
    startFailure = nullptr;
    if (!EarlierAgentLeft(arguments->maxTimeout))
        return START_FAILED;
    ClearEarlierRun(env);
    StoreArguments(env, arguments);
    init_status = START_FAILED;
    if (!QorOpenChannel()) {
        // Before the JVM is asked for anything: a class of its own that can't be initialised now never can
        // be.
        Fail("no pipe for the requests: the process is short of descriptors");
    } else if (PrepareProcess(env) && RunInitialization()) {
        OpenManagement();
        OpenSession(env);
        StartWorker();
    }
    if (init_status == START_FAILED && !QorWorkerLives()) {
        QorCloseChannel();
        ClearEarlierRun(env); // nobody would use it, or give it back
    }
    ForgetFrameReferences();
    QorOpenToCallers();
    return init_status;
}
