#include "thread_lookup.h"

#include "Xtier/LocalWalk.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"

#include <cstdlib>
#include <cstring>

namespace {

jobjectArray heldThread; // a global reference; null outside of a view of an unmounted thread

void DropHeldThread() {
    gbQorHeldThreads = nullptr;
    if (heldThread)
        QorDeleteGlobalRef(jvmtijni_env, heldThread);
    heldThread = nullptr;
}

} // namespace

bool QorFindThread(QorThreadHandle *handle, int32_t processId, const char *key, QorThreadRecord *thread) {
    if (!key)
        return false;
    for (; handle->index < handle->count; QorGetJVMThread(handle, 0)) {
        if (QorGetThreadInfo(handle, thread) != 0)
            continue;
        char threadKey[THREAD_KEY_SIZE];
        QorFormatThreadKey(threadKey, processId, thread->tid);
        if (strncmp(threadKey, key, THREAD_KEY_SIZE) == 0)
            return true;
    }
    return QorTurnToKey(handle, processId, key) && QorGetThreadInfo(handle, thread) == 0;
}

bool QorTurnToKey(QorThreadHandle *handle, int32_t processId, const char *key) {
    const char *dash = strchr(key, '-');
    return dash && strtoll(key, nullptr, 10) == processId &&
           QorTurnToVirtual(handle, strtoll(dash + 1, nullptr, 10));
}

void QorHoldUnmounted(const QorThreadHandle &handle) {
    DropHeldThread(); // a fault may have ended the last view
    if (QorWalkThreadKind(&handle, handle.index) != THREAD_UNMOUNTED || !jobjclass)
        return;
    jobject array = jvmtijni_env->NewObjectArray(1, jobjclass, handle.threads[handle.index]);
    if (QorClearException(jvmtijni_env) || !array)
        return;
    heldThread = gbQorHeldThreads = static_cast<jobjectArray>(QorNewGlobalRef(jvmtijni_env, array));
    QorDeleteLocalRef(jvmtijni_env, array);
}

const char *QorCallTypeText(const QorFrameRecord *frame) {
    return frame->callType ? "user" : "sys";
}

void QorAppendState(QorText *out, int32_t state, const QorDBRequestData *database, QorXtierPositions *at) {
    char strThreadState[STATE_TEXT_SIZE];
    mapQorThreadState2String(state, strThreadState);
    QorTextAppend(out, strThreadState);
    const int32_t start = out->length;
    if (state == STATE_DB_WAIT) {
        if (database)
            QorAppendDatabaseBlock(out, QorDatabaseBlockOf(*database));
        else
            QorTextAppend(out, QorEmptyDatabaseBlock());
        at->dbStart = start;
        at->dbEnd = out->length;
    } else if (state == STATE_RMI_WAIT) {
        QorTextAppend(out, QorEmptyRmiBlock());
        at->rmiStart = start;
        at->rmiEnd = out->length;
    }
}

void closeThreadAndFreeLists() {
    DropHeldThread();
    QorCloseThreadHandle(nullptr);
    QorFreeXtierLists();
}
