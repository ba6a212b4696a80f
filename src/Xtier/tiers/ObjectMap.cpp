#include "ObjectMap.h"

#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "jvmti/ValueText.h"
#include "qorlog.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr char STRING[] = "Ljava/lang/String;";

// The text after the first of `ends`, which is cut off; null when there is none.
char *Cut(char *text, const char *ends) {
    char *const at = text ? strpbrk(text, ends) : nullptr;
    if (!at)
        return nullptr;
    *at = 0;
    return at + 1;
}

// False when there is no such field. A class that another thread is initialising says nothing about its
// fields, which only the log of a table's path takes for missing ones.
bool ReadField(jobject owner, const char *name, const char *signature, QorPathLog log, jobject *found) {
    if (log == PATH_LOGGED)
        return QorGetObjField(owner, name, signature, found) == 0;
    bool isThere = true;
    jclass klass = QorGetObjectClass(jvmtijni_env, owner);
    if (klass && QorIsClassInitialized(klass)) {
        jfieldID field = QorGetFieldID(jvmtijni_env, klass, name, signature);
        isThere = field;
        if (field)
            *found = QorGetObjectField(jvmtijni_env, owner, field);
    }
    QorDeleteLocalRef(jvmtijni_env, klass);
    return isThere;
}

jobject ElementOf(jobject array, jobject owner, const char *indexField) {
    int32_t index = 0;
    auto *const elements = static_cast<jobjectArray>(array);
    if (QorGetIntObjectField(owner, indexField, "I", &index) < 0 || index < 0 ||
        index >= QorGetArrayLength(jvmtijni_env, elements))
        return nullptr;
    return QorGetObjectArrayElement(jvmtijni_env, elements, index);
}

bool ReadRange(jobject owner, const char *from, const char *to, bool isLength, QorPathEnd *at) {
    int32_t first = 0, end = 0;
    if (QorGetIntObjectField(owner, from, "I", &first) < 0 || QorGetIntObjectField(owner, to, "I", &end) < 0)
        return false;
    const int64_t last = isLength ? int64_t{first} + end : end;
    at->from = first;
    at->to = static_cast<int32_t>(std::min<int64_t>(last, INT32_MAX));
    return first >= 0 && last > first;
}

bool ReadNumber(jobject owner, const char *name, char type, int64_t *number) {
    int32_t narrow = 0;
    jboolean flag = JNI_FALSE;
    int32_t result = -1;
    switch (type) {
    case 'I':
        result = QorGetIntObjectField(owner, name, "I", &narrow);
        *number = narrow;
        break;
    case 'Z':
        result = QorGetBooleanObjectField(owner, name, "Z", &flag);
        *number = flag;
        break;
    default:
        result = QorGetLongObjectField(owner, name, "J", number);
        break;
    }
    return result == 0;
}

// Replaces an array by what the step's end says of it.
void ReadArray(char mark, char *end, jobject owner, QorPathEnd *at) {
    jobject const array = at->object;
    if (mark == '@') {
        at->object = ElementOf(array, owner, end);
        QorDeleteLocalRef(jvmtijni_env, array);
        return;
    }
    char *const plus = strchr(end, '+');
    const char *const to = Cut(end, ":+");
    if (to && !ReadRange(owner, end, to, plus, at)) {
        QorDeleteLocalRef(jvmtijni_env, array);
        at->object = nullptr;
    }
}

// Goes one step from the owner. False when the path ends here; a field that isn't there or holds nothing
// returns null, at which the next step ends.
bool Follow(char *step, int32_t number, jobject owner, QorPathLog log, QorPathEnd *at) {
    at->object = nullptr;
    char *const comma = strrchr(step, ',');
    if (!comma) {
        if (log == PATH_LOGGED)
            QORLOG(LOG_TRACE, "Qor Agent Error: Not got expected seperator %s ", step);
        return false;
    }
    *comma = 0;
    char *const signature = comma + 1;
    if (!*step || !*signature || QorIsSameObject(jvmtijni_env, owner, nullptr)) {
        if (log == PATH_LOGGED)
            QORLOG(LOG_TRACE, "Qor Agent Error: Not got Object for field %s and sig %s", step, signature);
        return false;
    }
    if (signature[1] == 0 && strchr("IZJ", *signature)) {
        at->isNumber = ReadNumber(owner, step, *signature, &at->number);
        return false;
    }
    char *const mark = strpbrk(signature, "@:");
    const char kind = mark ? *mark : '\0';
    char *const end = Cut(signature, "@:");
    if (!ReadField(owner, step, signature, log, &at->object) && at->missingAt < 0)
        at->missingAt = number;
    at->isText = strcmp(signature, STRING) == 0;
    if (end && at->object)
        ReadArray(kind, end, owner, at);
    return true;
}

QorPathEnd FollowSteps(char *path, jobject object, QorPathLog log) {
    QorPathEnd at = {};
    at.missingAt = -1;
    char *steps[OBJECT_MAP_STEPS];
    const int32_t count = QorSplitObjectMap(path, steps);
    at.object = count > 0 ? object : nullptr;
    for (int32_t i = 0; i < count; i++) {
        jobject const owner = at.object;
        const bool goesOn = Follow(steps[i], i, owner, log, &at);
        if (owner != object)
            QorDeleteLocalRef(jvmtijni_env, owner);
        if (!goesOn)
            break;
    }
    return at;
}

} // namespace

QorPathEnd QorFollowPath(std::string_view path, jobject object, QorPathLog log) {
    char copy[OBJECT_MAP_SIZE];
    QorPathEnd here = {};
    here.object = object;
    here.missingAt = -1;
    if (path.empty())
        return here;
    const size_t length = std::min(path.size(), sizeof copy - 1);
    memcpy(copy, path.data(), length);
    copy[length] = 0;
    return FollowSteps(copy, object, log);
}

jobject ParseJVMTIObjectMap(char *map, jobject object) {
    return map ? FollowSteps(map, object, PATH_LOGGED).object : nullptr;
}

jobject QorFollowObjectMap(const char *map, jobject object) {
    return map ? QorFollowPath(map, object, PATH_LOGGED).object : nullptr;
}

int32_t QorReadStringByMap(const char *map, jobject object, char *dest, int32_t capacity) {
    dest[0] = 0;
    jobject text = QorFollowObjectMap(map, object);
    if (!text)
        return -1;
    const int32_t length =
        QorReadString(jvmtijni_env, static_cast<jstring>(text), dest, capacity, BLANK_SEPARATORS);
    QorDeleteLocalRef(jvmtijni_env, text);
    return length < 0 ? -1 : 0;
}
