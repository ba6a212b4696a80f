#include "lock_holder.h"

#include "jvmti/threads/Monitors.h"
#include "qorsettings.h"
#include "reply/records.h"
#include "thread_lookup.h"

#include <cstdlib>
#include <unistd.h>

namespace {

enum : int32_t { LOCKS_BY_MANAGEMENT = 2 };
enum : int64_t { MANAGEMENT_HASH = 1 };

// Whether the lock that a thread waits for is the one asked for. Locks read by management carry no hash of
// their own; the console knows them by their lock id. At the management level any lock will do.
bool IsTheLock(const QorMonitorRecord &lock, const char *lockId) {
    const int64_t asked = strtoll(lockId, nullptr, 10);
    if (lock.hash != MANAGEMENT_HASH)
        return lock.hash == asked;
    return qorLockInfoLevel == LOCKS_BY_MANAGEMENT || lock.lockId == asked;
}

// The key of the thread that holds the lock; false when the waiter doesn't wait for it (any more).
bool FindHolder(char **args, int32_t processId, char *holderKey) {
    QorThreadHandle handle;
    QorInitThreadHandle(&handle);
    QorGetJVMThread(&handle, 0);
    QorThreadRecord waiter = {};
    QorMonitorRecord lock = {};
    const bool found = QorFindThread(&handle, processId, args[1], &waiter) &&
                       QorGetContendedMonitorInfo(&handle, &waiter, MONITORS_OF_ONE_THREAD, &lock, 1) == 1 &&
                       IsTheLock(lock, args[0]);
    if (found)
        QorFormatThreadKey(holderKey, processId, lock.owner);
    closeThreadAndFreeLists();
    return found;
}

void AppendHolderRow(QorText *row, const QorFrameRecord *frame, const QorThreadRecord &thread,
                     const char *key) {
    QorTextCut(row, 0);
    const char *const fields[] = {QorCallTypeText(frame), thread.name, key};
    for (const char *field : fields)
        QorAppendField(row, field);
    QorAppendFrameGroup(row, frame, " ", "");
    QorTextAppendChar(row, FIELD_SEP);
}

// Reads the frames into the one row of the view, which shows the first user call, or else the top frame.
void ReadFrames(QorFrameHandle *frames, QorThreadRecord *thread, const char *key, QorText *row) {
    bool userCallFound = false;
    for (frames->index = 0; frames->index < frames->count; ++frames->index) {
        QorFrameRecord frame;
        QorReadFrame(frames, FRAME_WITH_FILE_AND_LINE, &frame); // what can't be read stays empty
        GetThreadEnhancedState(&frame, thread);
        if (userCallFound || (frame.callType == 0 && frames->index != 0))
            continue;
        AppendHolderRow(row, &frame, *thread, key);
        userCallFound = frame.callType != 0;
    }
    if (frames->count == 0)
        GetThreadEnhancedState(nullptr, thread);
}

void AppendHolder(uint32_t reqid, QorText *reply, QorThreadHandle *handle, QorThreadRecord *thread,
                  const char *key) {
    char title[TITLE_SIZE];
    InitResponseHeader(reqid, title);
    QorTextAppend(reply, title);
    QorFrameHandle frames;
    if (QorGetFrames(handle, &frames) < 0)
        frames.count = 0;
    QorText row;
    QorTextStart(&row, console_line_buf, CONSOLE_BUF_SIZE);
    ReadFrames(&frames, thread, key, &row);
    if (row.length == 0)
        return;
    QorTextAppend(reply, row.text, row.length);
    char state[STATE_TEXT_SIZE];
    mapQorThreadState2String(thread->state, state);
    QorTextAppend(reply, state);
}

} // namespace

void QorShowThreadHoldingLockRequest(uint32_t reqid, QorText *reply, const char *key) {
    QorThreadHandle handle;
    QorInitThreadHandle(&handle);
    QorGetJVMThread(&handle, 0);
    QorThreadRecord thread = {};
    if (QorFindThread(&handle, getpid(), key, &thread))
        AppendHolder(reqid, reply, &handle, &thread, key);
    QorTextAppendChar(reply, SECTION_END);
    closeThreadAndFreeLists();
}

void QorShowMonitorThreadRequest(uint32_t reqid, QorText *reply, char **args) {
    char holderKey[THREAD_KEY_SIZE];
    if (args[0] && args[1] && FindHolder(args, getpid(), holderKey))
        QorShowThreadHoldingLockRequest(reqid, reply, holderKey);
}
