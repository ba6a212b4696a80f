#include "bci.h"

#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorlog.h"

#include <algorithm>

namespace {

jmethodID qor_bci_method_id;

void TakeThreadIds(JNIEnv *env, jlongArray ids) {
    const int32_t count = std::min<int32_t>(env->GetArrayLength(ids), MAX_BCI_THREADS);
    static_assert(sizeof(jlong) == sizeof gBciThreadIds[0], "ids are copied as they are");
    env->GetLongArrayRegion(ids, 0, count, reinterpret_cast<jlong *>(gBciThreadIds));
    gBciThreadIdCount = count;
    QORLOG(LOG_DETAIL, "----------------------------------------");
    for (int32_t i = 0; i < count; ++i)
        QORLOG(LOG_DETAIL, "BCI thread_id is = %d", static_cast<int32_t>(gBciThreadIds[i]));
}

void AskForThreadIds(JNIEnv *env) {
    qor_bci_method_id = env->GetStaticMethodID(e2eclass, "datafrombci", "()[J");
    if (QorDescribeException(env))
        QORLOG(LOG_ERROR, "dataFromBCI : Exception while getting the JNI method id for dataFromBCI method");
    if (!qor_bci_method_id)
        return;
    auto ids = static_cast<jlongArray>(env->CallStaticObjectMethod(e2eclass, qor_bci_method_id));
    if (QorDescribeException(env))
        return;
    if (!ids) {
        QORLOG(LOG_DETAIL, "dataFromBCI : No active threads returned from BCI");
        return;
    }
    TakeThreadIds(env, ids);
}

} // namespace

void dataFromBCI(JNIEnv *env, int) {
    if (!e2eclass)
        return;
    QORLOG(LOG_DETAIL, "Start of dataFromBCI");
    gBciThreadIdCount = 0;
    if (QorPushLocalFrame(env, 100) != 0) {
        QORLOG(LOG_ERROR, "dataFromBCI : Out of Memory when PushLocalFrame");
        return;
    }
    AskForThreadIds(env);
    QorPopLocalFrame(env, nullptr);
}
