#include "LibraryDump.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorcost.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <cstdio>

int32_t gbLibraryDumpWritten;

namespace {

constexpr jboolean LIVE_OBJECTS_ONLY = JNI_TRUE;
constexpr size_t OPTIONS_SIZE = 1024;

// The JVM refuses a name that exists, or a folder it can't write to, by an exception beside its result.
void AskForHprof(JNIEnv *env, jstring path) {
    const int64_t start = QorStopStarts();
    const jint result = jmm->DumpHeap0(env, path, LIVE_OBJECTS_ONLY);
    QorStopEnded(STOP_HEAP, start);
    const bool threw = QorClearException(env);
    gbLibraryDumpWritten = result == 0 && !threw;
    if (!gbLibraryDumpWritten)
        QORLOG(LOG_ERROR, "Hprof Dump: the JVM wrote no file, result %d", result);
}

// 0, or 1 when there is no string for the path.
int32_t DumpAttached(JNIEnv *env, const char *path) {
    jstring text = QorNewStringUTF(env, path);
    if (!text) {
        QORLOG(LOG_ERROR, "HprofHeapDump: Unable to create jstring containing dumpfile path");
        return 1;
    }
    QORLOG(LOG_NOTE, "Dumping Hprof heapdump to the file %s.", path);
    AskForHprof(env, text);
    QorDeleteLocalRef(env, text);
    return 0;
}

} // namespace

int32_t QorHprofHeapDump(const char *path, int32_t keepAttached) {
    gbLibraryDumpWritten = 0;
    if (!jmm || !jmm->DumpHeap0 || !qor_vm)
        return 0;
    void *attached = nullptr;
    const jint attach = qor_vm->AttachCurrentThreadAsDaemon(&attached, nullptr);
    if (attach < 0 || !attached) {
        QORLOG(LOG_ERROR, "Hprof Dump: ERROR in Attaching thread ** %d **\n", attach);
        return 1;
    }
    QORLOG(LOG_NOTE, "Hprof Dump: Thread attached %d", attach);
    const int32_t result = DumpAttached(static_cast<JNIEnv *>(attached), path);
    if (attach == JNI_OK && !keepAttached) {
        const jint detach = qor_vm->DetachCurrentThread();
        if (detach < 0)
            QORLOG(LOG_ERROR, "Hprof Dump: ERROR in Detaching thread ** %d **", detach);
    }
    if (result == 0)
        QORLOG(LOG_NOTE, "Finished dumping Hprof heapdump to the file %s.", path);
    return result;
}

int32_t QorPHDHeapDump(const char *path) {
    gbLibraryDumpWritten = 0;
    char options[OPTIONS_SIZE];
    snprintf(options, sizeof options, "heap:file=%s", path);
    if (!gbIbmJvm || !iCanTriggerVmDump || !funcTriggerVmDump)
        return 0;
    QORLOG(LOG_NOTE, "Dumping PHD heapdump to the file %s.", path);
    const jint error = funcTriggerVmDump(jvmti, options);
    if (error != JVMTI_ERROR_NONE)
        QORLOG(LOG_NOTE, "PHD Dump: Error in TriggerVmDump %d", error);
    gbLibraryDumpWritten = error == JVMTI_ERROR_NONE;
    QORLOG(LOG_NOTE, "Finished dumping PHD heapdump to the file %s.", path);
    return 0;
}
