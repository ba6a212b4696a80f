#include "thread_lookup.h"

#include <cstring>

bool QorFindThread(QorThreadHandle *handle, int32_t processId, const char *key, QorThreadRecord *thread) {
    for (; handle->index < handle->count; QorGetJVMThread(handle, 0)) {
        if (!key || QorGetThreadInfo(handle, thread) != 0)
            continue;
        char threadKey[THREAD_KEY_SIZE];
        QorFormatThreadKey(threadKey, processId, thread->tid);
        if (strncmp(threadKey, key, THREAD_KEY_SIZE) == 0)
            return true;
    }
    return false;
}

void QorReadFrameAsItIs(QorFrameHandle *frames, QorFrameRecord *frame) {
    QorReadFrame(frames, FRAME_WITH_FILE_AND_LINE, frame);
    QorGetMethodCallType(frame, &frame->callType);
}

const char *QorCallTypeText(const QorFrameRecord *frame) {
    return frame->callType ? "user" : "sys";
}
