#include "MemorySystem.h"

#include "Session.h"

static uint64_t ask(jlong(JNICALL *entry)()) {
    return entry != nullptr ? static_cast<uint64_t>(entry()) : 1;
}

uint64_t QorGetTotalMemory() {
    return ask(fnptrJVM_TotalMemory);
}

uint64_t QorGetFreeMemory() {
    return ask(fnptrJVM_FreeMemory);
}

uint64_t QorGetMaxMemory() {
    static uint64_t maxMemory; // it doesn't change while the JVM runs
    if (maxMemory == 0)
        maxMemory = ask(fnptrJVM_MaxMemory);
    return maxMemory;
}

bool QorReadExtendedAttribute(int32_t key, double *value) {
    if (jmm_ext == nullptr || jvmtijni_env == nullptr)
        return false;
    jmm_ext->GetDoubleAttribute(jvmtijni_env, nullptr, key, 0, value);
    return true;
}
