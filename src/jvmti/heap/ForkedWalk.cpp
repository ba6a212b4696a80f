#include "ForkedWalk.h"

#include "MemorySystem.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"
#include "qorrequest.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

namespace {

// Whether the heap is this process's alone. A new object shows where the heap is: a local reference points to
// a place that holds the object's address, as the collector has it. What can't be found counts as shared.
bool HeapIsPrivate() {
    QorLocalFrame frame(jvmtijni_env, 1);
    jstring object = frame.pushed ? QorNewStringUTF(jvmtijni_env, "") : nullptr;
    if (!object)
        return false;
    uint64_t address = 0;
    memcpy(&address, static_cast<const void *>(object), sizeof address);
    return QorIsPrivateMemory(address);
}

} // namespace

QorHeapInUse QorJvmHeapInUse() {
    return {QorGetUsedMemory(), HeapIsPrivate()};
}

bool QorWantsCopy() {
    return copy_flags ? copy_flags == FLAG_COPY : QorGetForkHeapDumpCapability() != 0;
}

int32_t QorForkedWalkReturned(jvmtiError error) {
    while (qorInForkedChild)
        pause();
    QorClearException(jvmtijni_env);
    const pid_t pid = QorForkedPid();
    if (pid > 0)
        return pid;
    if (pid == 0) {
        QORLOG(LOG_ERROR, "The JVM refuses heap walks: error %d", error);
        return FORK_REFUSED_BY_JVM;
    }
    QORLOG(LOG_ERROR, "No copy of the process: %s", strerror(errno));
    return FORK_REFUSED_BY_SYSTEM;
}
