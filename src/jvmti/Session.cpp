#include "Session.h"

#include "JniCalls.h"
#include "JvmtiCalls.h"
#include "QorOS.h"
#include "platforms/qorsysinfo.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <cstddef>
#include <cstring>

JavaVM *jr_jvm;
JavaVM *qor_vm;
jvmtiEnv *jvmti;
JNIEnv *jvmtijni_env;
jclass threadClass;
jclass hashTableClass;
jclass gbjcManagementClass;
jclass ownableClass;
jfieldID idField;
jfieldID parkBlockerField;
int64_t gbiAgentWorkerThreadId = -1;
const JmmTable *jmm;
const JmmExtTable *jmm_ext;

// Whether a JVMTI call about a thread keeps the JVM's record of it until the call is done. JVMs before JDK 10
// don't: a thread that ends meanwhile takes with it the lock that the call is about to enter, and the call
// then writes into freed memory.
bool gbQorJvmKeepsThreads;

void *(JNICALL *fnptrJVM_GetManagement)(jint version);
jlong(JNICALL *fnptrJVM_TotalMemory)();
jlong(JNICALL *fnptrJVM_MaxMemory)();
jlong(JNICALL *fnptrJVM_FreeMemory)();

const char *gbQorJVMLibName = "libjvm.so";
const char *gbQorJVMGetManagement = "JVM_GetManagement";
const char *gbQorJVMTotalMemory = "JVM_TotalMemory";
const char *gbQorJVMMaxMemory = "JVM_MaxMemory";
const char *gbQorJVMFreeMemory = "JVM_FreeMemory";

int32_t iCanGetOSThreadID;
int32_t iCanTriggerVmDump;
jvmtiExtensionFunction funcGetOSThreadID;
jvmtiExtensionFunction funcTriggerVmDump;
int32_t igbIsJvmtiDOV;
int32_t implCount;

namespace {

constexpr jint JVMTI_VERSION_WANTED = 0x30010166; // 1.1.102
constexpr jint JNI_VERSION_WANTED = 0x10004;
constexpr jint MANAGEMENT_EXTENDED = static_cast<jint>(0xff010001);
constexpr jint JNI_VERSION_KEEPING_THREADS = 0x000a0000; // JVMs whose calls keep the threads they deal with
constexpr char WORKER_NAME[] = "QORD Agent Worker";

// The management table's versions. A JVM accepts exactly one of them, and the two functions that the agent
// calls are in slots of their own in each. Any other slot holds a function with other arguments, whose
// call would end the JVM, so an unknown version isn't a table.
struct JmmVersion {
    jint version;
    int32_t getLongAttribute, dumpHeap0; // slots
};
constexpr JmmVersion JMM_VERSIONS[] = {
    {0x20010000, 13, 30}, // JDK 8 and before
    {0x20020000, 11, 28}, // JDK 9 to 13
    {0x20030000, 12, 29}, // JDK 14 to 17
    {0x20040000, 13, 30}, // later
};

// The table as the readers see it, filled from the JVM's.
JmmTable presentedJmm;

static_assert(offsetof(JmmTable, GetLongAttribute) == 13 * sizeof(void *), "slot of the first version");
static_assert(offsetof(JmmTable, DumpHeap0) == 30 * sizeof(void *), "slot of the first version");

struct ClassRow {
    jclass *ref;
    const char *name, *missing;
};

// Classes kept for the session; dropped in the same order.
constexpr ClassRow CLASSES[] = {
    {&threadClass, "java/lang/Thread", "thread class NULL "},
    {&hashTableClass, "java/util/Hashtable", "hash table class NULL "},
    {&gbjcManagementClass, "java/lang/management/ManagementFactory", "Management class NULL "},
    {&ownableClass, "java/util/concurrent/locks/AbstractOwnableSynchronizer", "lock class NULL "},
};

// The JVM library; it is loaded already, so this only counts a reference. Null when it isn't there.
void *OpenJvmLibrary() {
    void *handle = nullptr;
    if (QorLoadLibrary(&handle, gbQorJVMLibName) != 0) {
        QORLOG(LOG_ERROR, "Not able to load library");
        return nullptr;
    }
    return handle;
}

template <typename Function>
void FindEntry(void *library, const char *name, Function *out) {
    *out = reinterpret_cast<Function>(QorFindSymbol(library, name));
}

// A class kept from a start that never ended stays: the worker of that start may be using it.
void KeepClasses(JNIEnv *env) {
    QORLOG(LOG_DETAIL, "Getting New Thread Class");
    for (const ClassRow &row : CLASSES) {
        if (*row.ref)
            continue;
        jclass found = env->FindClass(row.name); // null with an exception in an image without the module
        QorClearException(env);
        *row.ref = found ? static_cast<jclass>(QorNewGlobalRef(env, found)) : nullptr;
        if (found)
            QorDeleteLocalRef(env, found);
        if (!*row.ref)
            QORLOG(LOG_ERROR, "%s", row.missing);
    }
}

void FindIbmExtensions() {
    if (gbIbmJvm == 0)
        return;
    iCanGetOSThreadID = 0;
    iCanTriggerVmDump = 0;
    QorGetIBMExtension();
    if (iCanGetOSThreadID != 0)
        QORLOG(LOG_NOTE, "Information - IBM JVM can get OSThreadID");
    if (iCanTriggerVmDump != 0)
        QORLOG(LOG_NOTE, "Information - IBM JVM can Trigger VM Dump");
}

int32_t FindMemoryEntries() {
    void *library = OpenJvmLibrary();
    if (!library)
        return -1;
    FindEntry(library, gbQorJVMTotalMemory, &fnptrJVM_TotalMemory);
    FindEntry(library, gbQorJVMMaxMemory, &fnptrJVM_MaxMemory);
    FindEntry(library, gbQorJVMFreeMemory, &fnptrJVM_FreeMemory);
    QorCloseLibrary(library);
    return 0;
}

// No JVM in use today has the extended table, so this is where a start usually ends, with all else in force.
int32_t FindExtendedManagement() {
    if (gbIbmJvm != 0)
        return 0;
    jmm_ext = fnptrJVM_GetManagement
                  ? static_cast<const JmmExtTable *>(fnptrJVM_GetManagement(MANAGEMENT_EXTENDED))
                  : nullptr;
    if (!jmm_ext) {
        QORLOG(LOG_DETAIL, "jmm_ext NULL");
        return -1;
    }
    igbIsJvmtiDOV = 1;
    qorReadExtendedAttribute = QorReadExtendedAttribute;
    return 0;
}

// The environment of the calling thread, null when it isn't attached.
JNIEnv *CurrentEnv() {
    void *env = nullptr;
    if (!jr_jvm || jr_jvm->GetEnv(&env, JNI_VERSION_WANTED) != JNI_OK)
        return nullptr;
    return static_cast<JNIEnv *>(env);
}

jfieldID FindIdField(jclass klass) {
    jfieldID field = nullptr;
    if (gbIbmJvm != 0)
        field = QorGetFieldID(jvmtijni_env, klass, "uniqueId", "J");
    if (!field)
        field = QorGetFieldID(jvmtijni_env, klass, "tid", "J");
    return field;
}

void RenameThread(jclass klass, jobject thread, const char *name) {
    jmethodID setName = QorGetMethodID(jvmtijni_env, klass, "setName", "(Ljava/lang/String;)V");
    if (!setName) {
        QORLOG(LOG_TRACE, "Failed to get method 'setName' in Thread class");
        return;
    }
    jstring text = QorNewStringUTF(jvmtijni_env, name);
    if (text)
        QorCallVoidMethod(jvmtijni_env, thread, setName, text);
}

} // namespace

int32_t QorInitJmm() {
    jmm = nullptr;
    void *library = OpenJvmLibrary();
    if (!library)
        return -1;
    FindEntry(library, gbQorJVMGetManagement, &fnptrJVM_GetManagement);
    QorCloseLibrary(library);
    if (!fnptrJVM_GetManagement) {
        QORLOG(LOG_ERROR, "JVM_GetManagement NULL ");
        return -1;
    }
    for (const JmmVersion &row : JMM_VERSIONS) {
        void *const *table = static_cast<void *const *>(fnptrJVM_GetManagement(row.version));
        if (!table)
            continue;
        presentedJmm = {};
        memcpy(&presentedJmm.GetLongAttribute, &table[row.getLongAttribute], sizeof(void *));
        memcpy(&presentedJmm.DumpHeap0, &table[row.dumpHeap0], sizeof(void *));
        jmm = &presentedJmm;
        return 0;
    }
    QORLOG(LOG_ERROR, "  jmm NULL");
    return -1;
}

int32_t QorDovOnLoad(JNIEnv *env) {
    QORLOG(LOG_NOTE, "Loading Qoragent....");
    jr_jvm = nullptr;
    jvmtijni_env = nullptr; // an earlier start's may belong to another thread
    if (env->GetJavaVM(&jr_jvm) != JNI_OK) {
        QORLOG(LOG_ERROR, "not able to get java vm");
        jr_jvm = nullptr;
        return -1;
    }
    // Each GetEnv makes a new environment: one that an earlier start left open is used again.
    void *environment = jvmti;
    if (!environment && jr_jvm->GetEnv(&environment, JVMTI_VERSION_WANTED) != JNI_OK) {
        QORLOG(LOG_ERROR, "not able to get required env");
        return -1;
    }
    jvmti = static_cast<jvmtiEnv *>(environment);
    gbQorJvmKeepsThreads = env->GetVersion() >= JNI_VERSION_KEEPING_THREADS;
    QorOpenCapabilities(env);
    QorRequestCapabilities();
    jvmtijni_env = env;
    KeepClasses(env);
    FindIbmExtensions();
    if (FindMemoryEntries() != 0 || FindExtendedManagement() != 0)
        return -1;
    implCount++;
    return 0;
}

int32_t QorDovOnUnload(JNIEnv *) {
    QORLOG(LOG_NOTE, "Unloading qor agent");
    if (!jr_jvm)
        return 0;
    JNIEnv *current = CurrentEnv();
    if (!current)
        return 0;
    jvmtijni_env = current;
    for (const ClassRow &row : CLASSES) {
        if (*row.ref)
            QorDeleteGlobalRef(current, *row.ref);
        *row.ref = nullptr;
    }
    if (jvmti)
        jvmti->DisposeEnvironment();
    jvmti = nullptr;
    return 0;
}

int32_t QorAttachThread() {
    if (!jr_jvm)
        return 0;
    QORLOG(LOG_DETAIL, "  Attaching Current Thread");
    void *env = nullptr;
    const jint result = jr_jvm->AttachCurrentThreadAsDaemon(&env, nullptr);
    QORLOG(LOG_DETAIL, "  Attach Current Thread returning %d", result);
    // Another thread's environment must not be used on this one: without an own one every call fails.
    jvmtijni_env = result == JNI_OK ? static_cast<JNIEnv *>(env) : nullptr;
    setThreadNameAndGetThreadID(WORKER_NAME);
    return 0;
}

int32_t QorDetachThread() {
    if (!jr_jvm)
        return 0;
    QORLOG(LOG_DETAIL, "  Detaching Current Thread");
    if (jvmtijni_env && jvmtijni_env == CurrentEnv())
        jvmtijni_env = nullptr;
    const jint result = jr_jvm->DetachCurrentThread();
    QORLOG(LOG_NOTE, "  Detach Current Thread returning %d", result);
    return 0;
}

void setThreadNameAndGetThreadID(const char *name) {
    QORLOG(LOG_TRACE, "Setting Thtread Name");
    QorLocalFrame frame(jvmtijni_env, 1);
    if (!frame.pushed) {
        QorLogNoFrame(LOG_ERROR);
        return;
    }
    jclass klass = QorFindClass(jvmtijni_env, "java/lang/Thread");
    if (!klass) {
        QORLOG(LOG_TRACE, "Failed to find class 'Thread'");
        return;
    }
    jmethodID current = QorGetStaticMethodID(jvmtijni_env, klass, "currentThread", "()Ljava/lang/Thread;");
    if (!current)
        return;
    jobject thread = QorCallStaticObjectMethod(jvmtijni_env, klass, current);
    if (!thread)
        return;
    RenameThread(klass, thread, name);
    idField = FindIdField(klass);
    QorReadThreadId(static_cast<jthread>(thread), &gbiAgentWorkerThreadId);
}

void QorLogNoFrame(int32_t threshold) {
    QORLOG(threshold, ": Out of Memory");
}

bool QorRefreshIdField() {
    if (QorIsClassInitialized(threadClass)) {
        idField = FindIdField(threadClass);
        parkBlockerField = QorGetFieldID(jvmtijni_env, threadClass, "parkBlocker", "Ljava/lang/Object;");
    }
    return idField;
}

bool QorReadThreadId(jthread thread, int64_t *out) {
    if (!idField) {
        QORLOG(LOG_ERROR, "  idField NULL");
        return false;
    }
    if (!thread || QorIsSameObject(jvmtijni_env, thread, nullptr))
        return false;
    *out = QorGetLongField(jvmtijni_env, thread, idField);
    return true;
}

int32_t QorGetIBMExtension() {
    constexpr struct {
        const char *id;
        jvmtiExtensionFunction *function;
        int32_t *found;
    } WANTED_EXTENSIONS[] = {
        {"com.ibm.GetOSThreadID", &funcGetOSThreadID, &iCanGetOSThreadID},
        {"com.ibm.TriggerVmDump", &funcTriggerVmDump, &iCanTriggerVmDump},
    };
    constexpr size_t ID_LENGTH = 21;

    jint count = 0;
    jvmtiExtensionFunctionInfo *extensions = nullptr;
    if (!jvmti || jvmti->GetExtensionFunctions(&count, &extensions) != JVMTI_ERROR_NONE)
        return 0;
    QORLOG(LOG_TRACE, "QorGetOSThreadIDExtension - ext count %d", count);
    // The array is a tree of allocations that is asked for once in a process; it is left to the JVM.
    for (jint i = 0; i < count && extensions && extensions[i].id; i++) {
        for (const auto &wanted : WANTED_EXTENSIONS) {
            if (strncmp(extensions[i].id, wanted.id, ID_LENGTH) == 0) {
                *wanted.function = extensions[i].func;
                *wanted.found = 1;
            }
        }
        if (iCanGetOSThreadID != 0 && iCanTriggerVmDump != 0)
            return 1;
    }
    return 0;
}

int64_t QorGetOSThreadID(jthread thread) {
    jlong id = -1;
    if (!funcGetOSThreadID)
        return -1;
    const jvmtiError error = funcGetOSThreadID(jvmti, thread, &id);
    if (error != JVMTI_ERROR_NONE) {
        QORLOG(LOG_NOTE, "QorGetOSThreadID Error %d", error);
        return -1;
    }
    return id;
}

bool QorReadExtendedAttribute(int32_t key, double *value) {
    if (!jmm_ext || !jvmtijni_env)
        return false;
    jmm_ext->GetDoubleAttribute(jvmtijni_env, nullptr, key, 0, value);
    QorClearException(jvmtijni_env);
    return true;
}
