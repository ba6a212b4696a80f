#include "thread_lookup.h"

#include "Xtier/Xtier.h"

#include <cstdlib>
#include <cstring>

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

const char *QorCallTypeText(const QorFrameRecord *frame) {
    return frame->callType ? "user" : "sys";
}

void closeThreadAndFreeLists() {
    QorCloseThreadHandle(nullptr);
    QorFreeXtierLists();
}
