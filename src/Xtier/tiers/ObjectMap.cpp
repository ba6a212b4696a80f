#include "ObjectMap.h"

#include "ValueText.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "qorStrUtils.h"
#include "qorlog.h"

#include <cstring>

namespace {

// Goes one step. False when the path ends here; a field that isn't there or holds nothing gives null, at
// which the next step ends.
bool Follow(char *step, jobject object, jobject *found) {
    *found = nullptr;
    char *const comma = strrchr(step, ',');
    if (!comma) {
        QORLOG(LOG_TRACE, "Qor Agent Error: Not got expected seperator %s ", step);
        return false;
    }
    *comma = 0;
    const char *const signature = comma + 1;
    if (!*step || !*signature || QorIsSameObject(jvmtijni_env, object, nullptr)) {
        QORLOG(LOG_TRACE, "Qor Agent Error: Not got Object for field %s and sig %s", step, signature);
        return false;
    }
    QorGetObjField(object, step, signature, found);
    return true;
}

} // namespace

jobject ParseJVMTIObjectMap(char *map, jobject object) {
    char *steps[OBJECT_MAP_STEPS];
    const int32_t count = map ? QorSplitObjectMap(map, steps) : 0;
    jobject current = object;
    for (int32_t i = 0; i < count; i++) {
        jobject found = nullptr;
        const bool goesOn = Follow(steps[i], current, &found);
        if (current != object)
            QorDeleteLocalRef(jvmtijni_env, current);
        current = found;
        if (!goesOn)
            break;
    }
    return count > 0 ? current : nullptr;
}

jobject QorFollowObjectMap(const char *map, jobject object) {
    char copy[OBJECT_MAP_SIZE];
    if (!map || QorStrncpy(copy, map, sizeof copy, sizeof copy) < 0)
        return nullptr;
    return ParseJVMTIObjectMap(copy, object);
}

int32_t QorReadStringByMap(const char *map, jobject object, char *dest, int32_t capacity) {
    dest[0] = 0;
    jobject text = QorFollowObjectMap(map, object);
    if (!text)
        return -1;
    const int32_t result = QorReadValueText(static_cast<jstring>(text), dest, capacity);
    QorDeleteLocalRef(jvmtijni_env, text);
    return result;
}
