#include "thread_lookup.h"

#include "Xtier/Xtier.h"

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
    return false;
}

const char *QorCallTypeText(const QorFrameRecord *frame) {
    return frame->callType ? "user" : "sys";
}

void closeThreadAndFreeLists() {
    QorCloseThreadHandle(nullptr);
    QorFreeXtierLists();
}
