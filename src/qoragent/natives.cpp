#include "natives.h"

#include "qoragent/requests/direct_threads.h"

#include "agent_state.h"
#include "platforms/qorsysinfo.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "settings_from_java.h"

#include "QorOS.h"
#include "Xtier/thread_e2e_info.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/threads/ThreadSystem.h"
#include "reply/records.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dlfcn.h>

const char *gbstrInstrumentLib = "libinstrument.so";

namespace {

constexpr int BCI_LEVEL = 3; // start-up words levels 3 and 9 the other way round
constexpr int LIBRARY_PATH_SIZE = 4096;
constexpr int64_t LARGEST_SHOWN_COUNTER = 0x7fffffff;
constexpr int32_t SLOW_DELAY_USEC = 10000, LONGEST_DELAY_SHOWN = 9999;

// The path of the loaded JVM library.
bool PathOfJvm(char *path, int32_t size) {
    void *library = dlopen(gbQorJVMLibName, RTLD_LAZY | RTLD_NOLOAD);
    if (!library)
        return false;
    void *symbol = dlsym(library, gbQorJVMTotalMemory);
    dlclose(library); // the JVM itself keeps it loaded
    Dl_info found = {};
    if (!symbol || !dladdr(symbol, &found) || !found.dli_fname)
        return false;
    return snprintf(path, static_cast<size_t>(size), "%s", found.dli_fname) < size;
}

// The instrumentation library beside the JVM's own, for the JVMs that don't find it by its bare name: the JVM
// library lies one directory below it.
bool PathBesideJvm(char *path, int32_t size) {
    if (!PathOfJvm(path, size))
        return false;
    for (int level = 0; level < 2; level++) {
        char *slash = strrchr(path, '/');
        if (!slash)
            return false;
        *slash = 0;
    }
    const int32_t room = size - static_cast<int32_t>(strlen(path));
    return snprintf(path + strlen(path), static_cast<size_t>(room), "/%s", gbstrInstrumentLib) < room;
}

void *OpenInstrumentLibrary() {
    void *handle = nullptr;
    if (QorLoadLibrary(&handle, gbstrInstrumentLib) == 0)
        return handle;
    char path[LIBRARY_PATH_SIZE];
    if (PathBesideJvm(path, sizeof path) && QorLoadLibrary(&handle, path) == 0)
        return handle;
    QORLOG(LOG_ERROR, "Failed to load Library %s", gbstrInstrumentLib);
    return nullptr;
}

jint AttachInstrumentation(JavaVM *vm, char *options) {
    using AttachEntry = jint(JNICALL *)(JavaVM *, char *, void *);
    void *library = OpenInstrumentLibrary();
    if (!library)
        return -1;
    auto entry = reinterpret_cast<AttachEntry>(QorFindSymbol(library, "Agent_OnAttach"));
    if (!entry) {
        QORLOG(LOG_ERROR, "Failed to find Agent_OnAttach in libinstrument.so");
        return -2;
    }
    entry(vm, options, nullptr);
    QorCloseLibrary(library);
    return 0;
}

// Takes the list away from the worker, unless that is busy with a request.
QorE2EBlock *TakeThreadList() {
    int32_t idle = 0;
    if (!workerBusy.compare_exchange_strong(idle, 1))
        return nullptr;
    QorE2EBlock *list = thread_e2e_info;
    thread_e2e_info = nullptr;
    workerBusy = 0;
    return list;
}

// Packed, with nulls at the end for threads that have no reference, or have ended.
jobjectArray ThreadsOf(JNIEnv *env, const QorE2EBlock *list) {
    jsize count = 0;
    for (const QorE2EBlock *block = list; block; block = block->next)
        count++;
    // Not `jobjclass`: a worker that leaves meanwhile drops it.
    jclass object = QorFindClass(env, "java/lang/Object");
    jobjectArray threads = object ? env->NewObjectArray(count, object, nullptr) : nullptr;
    if (QorClearException(env) || !threads)
        return nullptr;
    jobjectArray found = QorOnJvmtiRoad() ? nullptr : QorFindDirectThreads(env, list);
    jsize index = 0, number = 0;
    for (const QorE2EBlock *block = list; block; block = block->next, number++) {
        jobject element = found ? QorGetObjectArrayElement(env, found, number) : nullptr;
        if (!block->directRef && !element)
            continue;
        env->SetObjectArrayElement(threads, index++, element ? element : block->threadRef);
        QorClearException(env);
        QorDeleteLocalRef(env, element);
    }
    QorDeleteLocalRef(env, found);
    return threads;
}

// The delay of a second try when the first was slow: one hiccup isn't a measurement.
int32_t SchedulingDelay() {
    if (const int32_t first = GetOSRValue(); first <= SLOW_DELAY_USEC)
        return first;
    const int32_t second = GetOSRValue();
    return second > SLOW_DELAY_USEC ? LONGEST_DELAY_SHOWN : second;
}

} // namespace

void QorSetOptLevel(int32_t level) {
    QORLOG(LOG_ERROR, "QorAgent : Changed qorOptimizationLevel to %d", level);
    QorStoreLevel(level, BCI_LEVEL, LOG_NOTE);
}

int32_t QorLoadJavaAgent(JNIEnv *env, jstring options) {
    QORLOG(LOG_NOTE, "inside loadJavaAgent");
    JavaVM *vm = nullptr;
    if (!options || env->GetJavaVM(&vm) != JNI_OK)
        return -1;
    QORLOG(LOG_DETAIL, "loadJavaAgent into qor_vm %d", static_cast<int>(reinterpret_cast<intptr_t>(vm)));
    const char *chars = QorGetStringUTFChars(env, options, nullptr);
    char *copy = chars ? strdup(chars) : nullptr; // the entry may write into its options
    if (chars)
        QorReleaseStringUTFChars(env, options, chars);
    if (!copy)
        return -1;
    const int32_t result = AttachInstrumentation(vm, copy);
    QorClearException(env);
    free(copy);
    return result;
}

jobjectArray QorGetThreadObjects(JNIEnv *env) {
    const bool wanted = reqid & QORREQ_THREAD_DATA;
    QorE2EBlock *list = TakeThreadList();
    jobjectArray threads = wanted ? ThreadsOf(env, list) : nullptr;
    while (QorE2EBlock *block = list) { // not back to the pool: that is the worker's alone
        list = block->next;
        if (block->threadRef)
            QorDeleteGlobalRef(env, block->threadRef);
        free(block->lockOwner);
        free(block);
    }
    return threads;
}

void getCpuInfo(char *text, int32_t size) {
    const int64_t machine = qorsysinfo(CPU_MACHINE_COUNTER);
    int64_t process = qorsysinfo(CPU_PROCESS_COUNTER);
    if (process > LARGEST_SHOWN_COUNTER)
        process = machine;
    uint32_t switches = 0;
    QorGetProcessContextSwitch(&switches);
    snprintf(text, static_cast<size_t>(size), "%u%c%u%c%c%u%c%u%c%lu%02lu", static_cast<uint32_t>(machine),
             FIELD_SEP, static_cast<uint32_t>(process), FIELD_SEP, SECTION_END, switches, SECTION_END,
             static_cast<uint32_t>(SchedulingDelay()), SECTION_END,
             static_cast<unsigned long>(last_snap_time_hi), static_cast<unsigned long>(last_snap_time_lo));
}
