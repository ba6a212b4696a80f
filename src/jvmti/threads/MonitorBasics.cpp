#include "MonitorBasics.h"

#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>

jobject QorParkBlocker(const QorThreadHandle *handle, int32_t index) {
    const jvmtiStackInfo *stack = QorWalkStack(handle, index);
    if (!stack || !(stack->state & JVMTI_THREAD_STATE_PARKED) || !parkBlockerField)
        return nullptr;
    return QorGetObjectField(jvmtijni_env, stack->thread, parkBlockerField);
}

bool QorMayWaitForLock(const QorThreadHandle *handle, int32_t index) {
    const jvmtiStackInfo *stack = QorWalkStack(handle, index);
    if (!stack)
        return false;
    if (stack->state & (JVMTI_THREAD_STATE_BLOCKED_ON_MONITOR_ENTER | JVMTI_THREAD_STATE_IN_OBJECT_WAIT))
        return true;
    jobject blocker = QorParkBlocker(handle, index);
    const bool owned = blocker && ownableClass && jvmtijni_env->IsInstanceOf(blocker, ownableClass);
    QorDeleteLocalRef(jvmtijni_env, blocker);
    return owned;
}

int64_t QorParseLockName(char *description) {
    constexpr int HEX = 16;
    constexpr size_t DIGITS_KEPT = 64; // far beyond any hash; longer digits are all alike
    const size_t length = strnlen(description, NAME_SIZE - 1);
    description[length] = 0;

    char *at = strchr(description, '@');
    char *hash = nullptr; // where the hash text begins
    char *end = nullptr;  // where the name is cut
    if (!at) {
        char *p = description + length;
        while (p > description && p[-1] >= '0' && p[-1] <= '9')
            p--;
        if (p > description && *p != 0)
            hash = end = p;
    } else if (!strchr(at + 1, '@')) {
        hash = at + 1;
        end = at;
    }
    if (!hash || *hash == 0)
        return 0;
    char digits[DIGITS_KEPT];
    snprintf(digits, sizeof digits, "%s", hash);
    const int64_t id = strtoll(digits, nullptr, HEX);
    snprintf(end, static_cast<size_t>(description + NAME_SIZE - end), "@%lld", static_cast<long long>(id));
    return id;
}
