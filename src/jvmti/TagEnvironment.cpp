#include "TagEnvironment.h"

#include "JniCalls.h"
#include "Session.h"
#include "qorlog.h"

namespace {

constexpr jint JVMTI_VERSION_WANTED = 0x30010166;
constexpr jint SPARE_REFS = 64;

} // namespace

jvmtiEnv *QorOpenTagEnvironment() {
    void *environment = nullptr;
    if (!jr_jvm || jr_jvm->GetEnv(&environment, JVMTI_VERSION_WANTED) != JNI_OK) {
        QORLOG(LOG_ERROR, "No JVMTI environment for a heap walk");
        return nullptr;
    }
    jvmtiEnv *env = static_cast<jvmtiEnv *>(environment);
    jvmtiCapabilities request = {};
    request.can_tag_objects = 1;
    const jvmtiError error = env->AddCapabilities(&request);
    if (error == JVMTI_ERROR_NONE)
        return env;
    QORLOG(LOG_ERROR, "The JVM refuses heap walks: error %d", error);
    env->DisposeEnvironment();
    return nullptr;
}

void QorCloseTagEnvironment(jvmtiEnv *env) {
    if (env)
        env->DisposeEnvironment();
}

void QorExpectLocalRefs(int32_t count) {
    jvmtijni_env->EnsureLocalCapacity(count + SPARE_REFS);
    QorClearException(jvmtijni_env);
}
