#include "MountedThreads.h"

#include "jvmti/Capabilities.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "jvmti/VmFlags.h"
#include "qorcost.h"
#include "qorlog.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>

namespace {

constexpr jint JNI_VERSION_OF_VIRTUAL = 0x00150000; // JDK 21
constexpr char GET_VIRTUAL_THREAD[] = "com.sun.hotspot.functions.GetVirtualThread";

constexpr size_t REFERENCE_SIZE = sizeof(void *); // of a jthread

enum Sight { NOT_TRIED, SEEN, UNSEEN };

Sight sight;
const char *whyUnseen = "";
jvmtiExtensionFunction getVirtualThread;
// What a platform thread runs when it carries one; null where the JDK has no such field.
jfieldID continuation;

void FreeExtension(jvmtiExtensionFunctionInfo *extension) {
    for (jint i = 0; i < extension->param_count; i++)
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(extension->params[i].name));
    for (void *part : {static_cast<void *>(extension->id), static_cast<void *>(extension->short_description),
                       static_cast<void *>(extension->params), static_cast<void *>(extension->errors)})
        jvmti->Deallocate(static_cast<unsigned char *>(part));
}

jvmtiExtensionFunction FindExtension(const char *id) {
    jint count = 0;
    jvmtiExtensionFunctionInfo *extensions = nullptr;
    jvmtiExtensionFunction found = nullptr;
    if (jvmti->GetExtensionFunctions(&count, &extensions) != JVMTI_ERROR_NONE)
        return nullptr;
    for (jint i = 0; i < count; i++) {
        if (strcmp(extensions[i].id, id) == 0)
            found = extensions[i].func;
        FreeExtension(&extensions[i]);
    }
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(extensions));
    return found;
}

Sight LookForExtension() {
    if (jvmtijni_env->GetVersion() < JNI_VERSION_OF_VIRTUAL)
        return UNSEEN;
    // Without the JVM's notes of mounting and unmounting, questions about virtual threads fail or hang.
    if (QorVmFlagIsOff("DoJVMTIVirtualThreadTransitions")) {
        whyUnseen = "the JVM runs with -XX:-DoJVMTIVirtualThreadTransitions";
        QORLOG(LOG_NOTE, "Virtual threads aren't shown: %s", whyUnseen);
        return UNSEEN;
    }
    getVirtualThread = QorCanSupportVirtualThreads() ? FindExtension(GET_VIRTUAL_THREAD) : nullptr;
    if (getVirtualThread) {
        continuation =
            threadClass ? QorGetFieldID(jvmtijni_env, threadClass, "cont", "Ljdk/internal/vm/Continuation;")
                        : nullptr;
        return SEEN;
    }
    whyUnseen = "the JVM doesn't offer a way to them";
    QORLOG(LOG_NOTE, "Samples are without virtual threads: %s", whyUnseen);
    return UNSEEN;
}

// The threads to ask for: each platform thread, and after it the one that it carries. One block.
struct ThreadList {
    jthread *threads;
    QorThreadKind *kinds;
    jint count;
};

jvmtiError ListThreads(ThreadList *list) {
    jint count = 0;
    jthread *platform = nullptr;
    const jvmtiError error = jvmti->GetAllThreads(&count, &platform);
    if (error != JVMTI_ERROR_NONE)
        return error;
    const size_t most = 2 * static_cast<size_t>(count);
    list->threads = static_cast<jthread *>(malloc(most * (REFERENCE_SIZE + sizeof(QorThreadKind))));
    if (!list->threads)
        QORLOG(LOG_ERROR, "No memory for a list of %d threads", count);
    list->kinds = reinterpret_cast<QorThreadKind *>(list->threads + most);
    for (jint i = 0; i < count && list->threads; i++) {
        jthread mounted = QorMountedOn(platform[i]);
        list->kinds[list->count] = mounted ? THREAD_CARRIER : THREAD_PLATFORM;
        list->threads[list->count++] = platform[i];
        if (!mounted)
            continue;
        list->kinds[list->count] = THREAD_MOUNTED;
        list->threads[list->count++] = mounted;
    }
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(platform));
    return list->threads ? JVMTI_ERROR_NONE : JVMTI_ERROR_OUT_OF_MEMORY;
}

// A virtual thread without frames is at its end, whatever its state.
bool HasEnded(const jvmtiStackInfo &stack, QorThreadKind kind) {
    return !(stack.state & JVMTI_THREAD_STATE_ALIVE) || (kind == THREAD_MOUNTED && stack.frame_count == 0);
}

// Drops threads that have ended since they were listed: GetAllStackTraces wouldn't report them either.
// Returns the number of those left.
jint DropEnded(jvmtiStackInfo *stacks, const ThreadList &list) {
    jint kept = 0;
    for (jint i = 0; i < list.count; i++) {
        QorThreadKind kind = list.kinds[i];
        if (HasEnded(stacks[i], kind))
            continue;
        if (kind == THREAD_CARRIER && HasEnded(stacks[i + 1], THREAD_MOUNTED))
            kind = THREAD_PLATFORM;
        else if (kind == THREAD_MOUNTED && HasEnded(stacks[i - 1], THREAD_CARRIER))
            kind = THREAD_MOUNTED_ALONE;
        stacks[kept] = stacks[i];
        list.kinds[kept++] = kind;
    }
    return kept;
}

// Whether to ask the JVM, which holds back all switches of virtual threads for each question.
bool MayCarry(jthread thread) {
    if (!continuation)
        return true;
    jobject current = QorGetObjectField(jvmtijni_env, thread, continuation);
    if (current)
        QorDeleteLocalRef(jvmtijni_env, current);
    return current != nullptr;
}

} // namespace

bool QorCanSeeMounted() {
    if (sight == NOT_TRIED && jvmti && jvmtijni_env)
        sight = LookForExtension();
    return sight == SEEN;
}

const char *QorWhyMountedAreUnseen() {
    return whyUnseen;
}

jthread QorMountedOn(jthread carrier) {
    jthread mounted = nullptr;
    if (!QorCanSeeMounted() || !MayCarry(carrier) ||
        getVirtualThread(jvmti, carrier, &mounted) != JVMTI_ERROR_NONE)
        return nullptr;
    return mounted;
}

jvmtiError QorTakeStacks(jint depth, jvmtiStackInfo **stacks, jint *count, QorThreadKind *kinds,
                         int32_t kindCount) {
    *stacks = nullptr;
    *count = 0;
    memset(kinds, THREAD_PLATFORM, static_cast<size_t>(kindCount) * sizeof *kinds);
    if (!QorCanSeeMounted()) {
        const int64_t start = QorStopStarts();
        const jvmtiError error = jvmti->GetAllStackTraces(depth, stacks, count);
        QorStopEnded(STOP_STACKS, start);
        return error;
    }
    ThreadList list = {};
    jvmtiError error = ListThreads(&list);
    if (error == JVMTI_ERROR_NONE) {
        const int64_t start = QorStopStarts();
        error = jvmti->GetThreadListStackTraces(list.count, list.threads, depth, stacks);
        QorStopEnded(STOP_STACKS, start);
    }
    if (error == JVMTI_ERROR_NONE) {
        *count = DropEnded(*stacks, list);
        memcpy(kinds, list.kinds, static_cast<size_t>(std::min(*count, kindCount)) * sizeof *kinds);
    }
    free(list.threads);
    return error;
}

void QorForgetMounted() {
    sight = NOT_TRIED;
    continuation = nullptr;
}
