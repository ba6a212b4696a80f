#include "RulePath.h"

#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "qortiers.h"

#include <algorithm>
#include <cstring>

namespace {

// The text after the first of `ends`, which is cut off; null when there is none.
char *Cut(char *text, const char *ends) {
    char *const at = text ? strpbrk(text, ends) : nullptr;
    if (!at)
        return nullptr;
    *at = 0;
    return at + 1;
}

void GoToField(const char *name, const char *signature, QorPathEnd *at) {
    jobject const owner = at->object;
    at->object = nullptr;
    jclass klass = QorGetObjectClass(jvmtijni_env, owner);
    if (klass && QorIsClassInitialized(klass)) {
        jfieldID field = QorGetFieldID(jvmtijni_env, klass, name, signature);
        at->noSuchField = !field;
        if (field)
            at->object = QorGetObjectField(jvmtijni_env, owner, field);
    }
    QorDeleteLocalRef(jvmtijni_env, klass);
}

jobject ElementOf(jobject array, jobject owner, const char *indexField) {
    int32_t index = 0;
    auto *const elements = static_cast<jobjectArray>(array);
    if (QorGetIntObjectField(owner, indexField, "I", &index) < 0 || index < 0 ||
        index >= QorGetArrayLength(jvmtijni_env, elements))
        return nullptr;
    return QorGetObjectArrayElement(jvmtijni_env, elements, index);
}

// Goes one step from the object; false when the way ends there.
bool Follow(char *step, QorPathEnd *at) {
    jobject const owner = at->object;
    char *const signature = Cut(step, ",");
    if (strcmp(signature, "I") == 0) {
        at->isNumber = QorGetIntObjectField(owner, step, signature, &at->number) == 0;
        at->object = nullptr;
        return false;
    }
    char *const end = strpbrk(signature, "@:");
    const bool isElement = end && *end == '@';
    char *const from = Cut(signature, "@:"), *const to = isElement ? nullptr : Cut(from, ":");
    GoToField(step, signature, at);
    if (!at->object)
        return false;
    if (isElement)
        at->object = ElementOf(at->object, owner, from);
    else if (to && (QorGetIntObjectField(owner, from, "I", &at->from) < 0 ||
                    QorGetIntObjectField(owner, to, "I", &at->to) < 0 || at->from < 0 || at->to <= at->from))
        at->object = nullptr;
    return at->object;
}

} // namespace

QorPathEnd QorFollowPath(std::string_view way, jobject object) {
    char copy[TIER_WAY_SIZE + 1];
    const size_t length = std::min(way.size(), sizeof copy - 1);
    memcpy(copy, way.data(), length);
    copy[length] = 0;
    QorPathEnd at = {};
    at.object = object;
    for (char *step = copy, *next; step; step = next) {
        next = Cut(step, "|");
        if (!Follow(step, &at))
            break;
    }
    return at;
}
