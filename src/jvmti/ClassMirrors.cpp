#include "ClassMirrors.h"

#include "JniCalls.h"
#include "Session.h"
#include "TagEnvironment.h"
#include "qorlog.h"

#include <cstdint>
#include <cstring>

namespace {

constexpr int32_t MAX_MIRROR_FIELDS = 32;
constexpr jint STATIC_FLAG = 8;
// The walk comes by these in any case.
constexpr const char *REPORTED[] = {"Ljava/lang/Class;", "Ljava/lang/ClassLoader;", "Ljava/lang/Module;"};

struct MirrorFields {
    jfieldID ids[MAX_MIRROR_FIELDS];
    int32_t count;
};

bool IsOfInterest(const char *signature, jint flags) {
    if ((signature[0] != 'L' && signature[0] != '[') || (flags & STATIC_FLAG))
        return false;
    for (const char *reported : REPORTED)
        if (strcmp(signature, reported) == 0)
            return false;
    return true;
}

void FindFields(jvmtiEnv *env, MirrorFields *found) {
    found->count = 0;
    jclass mirror = QorFindClass(jvmtijni_env, "java/lang/Class");
    jint count = 0;
    jfieldID *ids = nullptr;
    if (!mirror || env->GetClassFields(mirror, &count, &ids) != JVMTI_ERROR_NONE)
        return;
    for (jint i = 0; i < count && found->count < MAX_MIRROR_FIELDS; i++) {
        jint flags = 0;
        char *signature = nullptr;
        if (env->GetFieldModifiers(mirror, ids[i], &flags) != JVMTI_ERROR_NONE ||
            env->GetFieldName(mirror, ids[i], nullptr, &signature, nullptr) != JVMTI_ERROR_NONE)
            continue;
        if (IsOfInterest(signature, flags))
            found->ids[found->count++] = ids[i];
        env->Deallocate(reinterpret_cast<unsigned char *>(signature));
    }
    env->Deallocate(reinterpret_cast<unsigned char *>(ids));
}

// Puts what the fields hold into `array`, or counts it when that is null. A field may be set in between: what
// the array has no room for is left out. The number.
jsize Gather(const jclass *classes, jint classCount, const MirrorFields &fields, jobjectArray array,
             jsize room) {
    jsize used = 0;
    for (jint i = 0; i < classCount; i++)
        for (int32_t f = 0; f < fields.count; f++) {
            jobject value = QorGetObjectField(jvmtijni_env, classes[i], fields.ids[f]);
            if (!value)
                continue;
            if (used < room)
                jvmtijni_env->SetObjectArrayElement(array, used, value);
            used++;
            QorDeleteLocalRef(jvmtijni_env, value);
        }
    return used;
}

} // namespace

jobject QorHoldMirrorFields(jvmtiEnv *env) {
    constexpr jint FRAME_CAPACITY = 16;
    if (QorPushLocalFrame(jvmtijni_env, FRAME_CAPACITY) != JNI_OK)
        return nullptr;
    MirrorFields fields;
    FindFields(env, &fields);
    jobjectArray array = nullptr;
    jint count = 0;
    jclass *classes = nullptr;
    if (env->GetLoadedClasses(&count, &classes) == JVMTI_ERROR_NONE) {
        QorExpectLocalRefs(count + FRAME_CAPACITY);
        const jsize length = Gather(classes, count, fields, nullptr, 0);
        jclass object = QorFindClass(jvmtijni_env, "java/lang/Object");
        if (object)
            array = jvmtijni_env->NewObjectArray(length, object, nullptr);
        if (QorClearException(jvmtijni_env) || !array)
            QORLOG(LOG_NOTE, "No memory for the fields of %d Class instances", count);
        else
            Gather(classes, count, fields, array, length);
    }
    env->Deallocate(reinterpret_cast<unsigned char *>(classes));
    return QorPopLocalFrame(jvmtijni_env, array);
}
