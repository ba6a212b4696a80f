#include "MemorySystem.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"

QorHeapSummaryEntry gbHamHeapSummaryObj[HEAP_ENTRIES];

namespace {

constexpr int KIB_SHIFT = 10;
constexpr jlong BYTES_PER_KIB = 1024;
enum : jint { NURSERY_TOTAL = 105, NURSERY_USED = 106 }; // attributes of the extended table

uint64_t Ask(jlong(JNICALL *entry)()) {
    return entry ? static_cast<uint64_t>(entry()) : 1;
}

uint32_t ToKib(uint64_t bytes) {
    return static_cast<uint32_t>(bytes >> KIB_SHIFT);
}

uint32_t Less(uint32_t whole, uint32_t part) {
    return whole > part ? whole - part : 0;
}

uint32_t AskNursery(jint attribute) {
    const jlong bytes = jmm_ext->GetLongAttribute(jvmtijni_env, nullptr, attribute);
    QorClearException(jvmtijni_env);
    return static_cast<uint32_t>(bytes / BYTES_PER_KIB);
}

jvmtiIterationControl JNICALL count_callback(jlong, jlong, jlong *, void *counter) {
    ++*static_cast<int64_t *>(counter);
    return JVMTI_ITERATION_CONTINUE;
}

} // namespace

uint64_t QorGetTotalMemory() {
    return Ask(fnptrJVM_TotalMemory);
}

uint64_t QorGetFreeMemory() {
    return Ask(fnptrJVM_FreeMemory);
}

uint64_t QorGetMaxMemory() {
    static uint64_t maxMemory; // it doesn't change while the JVM runs
    if (maxMemory == 0)
        maxMemory = Ask(fnptrJVM_MaxMemory);
    return maxMemory;
}

uint64_t QorGetUsedMemory() {
    const uint64_t total = QorGetTotalMemory(), available = QorGetFreeMemory();
    return total > available ? total - available : 0;
}

int32_t QorInitHeapSummaryHandle() {
    return 0;
}

int32_t QorCloseHeapSummaryHandle() {
    return 0;
}

int32_t QorGetMemorySummary(QorHeapSummaryEntry **entries) {
    *entries = gbHamHeapSummaryObj;
    QorHeapSummaryEntry &old = gbHamHeapSummaryObj[0], &nursery = gbHamHeapSummaryObj[1];
    old = {1, "Old", ToKib(QorGetFreeMemory()), ToKib(QorGetTotalMemory()), ToKib(QorGetMaxMemory())};
    if (!jmm_ext || !jvmtijni_env)
        return 1;
    const uint32_t total = AskNursery(NURSERY_TOTAL), used = AskNursery(NURSERY_USED);
    nursery = {2, "Nursery", Less(total, used), total, total};
    old.maxKb = Less(old.maxKb, nursery.maxKb);
    old.totalKb = Less(old.totalKb, nursery.totalKb);
    old.freeKb = Less(old.freeKb, nursery.freeKb);
    return 2;
}

int64_t QorGetMemory(const char *methodName) {
    JNIEnv *env = jvmtijni_env;
    QorLocalFrame frame(env, 1);
    if (!frame.pushed)
        QorLogNoFrame(LOG_ERROR);
    jclass klass = frame.pushed ? QorFindClass(env, "java/lang/Runtime") : nullptr;
    if (!klass)
        return 0;
    jmethodID getRuntime = QorGetStaticMethodID(env, klass, "getRuntime", "()Ljava/lang/Runtime;");
    jmethodID method = QorGetMethodID(env, klass, methodName, "()J");
    if (!getRuntime || !method)
        return 0;
    jobject runtime = QorCallStaticObjectMethod(env, klass, getRuntime);
    return runtime ? QorCallLongMethod(env, runtime, method) : 0;
}

int32_t QorGetHeapObjectCount(int64_t *counter) {
    if (!jvmti)
        return -1;
    const jvmtiError error = jvmti->IterateOverHeap(JVMTI_HEAP_OBJECT_EITHER, count_callback, counter);
    if (error != JVMTI_ERROR_NONE)
        QORLOG(LOG_ERROR, "The heap's objects can't be counted: error %d", error);
    return error == JVMTI_ERROR_NONE ? 0 : -1;
}
