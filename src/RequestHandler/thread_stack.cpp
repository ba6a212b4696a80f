#include "thread_stack.h"

#include "Xtier/Xtier.h"
#include "jvmti/Monitors.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "records.h"
#include "thread_lookup.h"

#include <cstdlib>
#include <unistd.h>

namespace {

constexpr char BLANK[] = " ";

// The rows of this view carry the method's id in 32 bits; the console sends them back to ask for locals.
void AppendFrameRow(QorText *out, const QorFrameRecord *frame, int64_t tid) {
    char head[96];
    snprintf(head, sizeof head, "%s%c%d%c%d%c%d%c2%c3%c", QorCallTypeText(frame), FIELD_SEP,
             static_cast<int32_t>(tid), FIELD_SEP, frame->frameIndex, FIELD_SEP,
             static_cast<int32_t>(frame->methodId), FIELD_SEP, FIELD_SEP, FIELD_SEP);
    char storage[LONGEST_ROW];
    QorText row;
    QorTextStart(&row, storage, sizeof storage);
    QorTextAppend(&row, head);
    QorAppendFrameGroup(&row, frame, BLANK, "");
    QorTextAppendChar(&row, RECORD_END);
    QorTextAppend(out, row.text, row.length);
}

// The call of the view's head shows file and number as they are, also for a native frame.
void NoteCurrentCall(QorText *call, const QorFrameRecord *frame) {
    QorTextCut(call, 0);
    QorTextAppend(call, frame->className);
    QorTextAppend(call, "->");
    QorTextAppend(call, frame->method);
    QorTextAppendChar(call, FIELD_SEP);
    QorAppendField(call, frame->fileName);
    QorTextAppendNumber(call, frame->line);
    QorTextAppendChar(call, FIELD_SEP);
}

// Reads all frames: rows, current call and the state that they refine. The current call is the first user
// call, or the bottom frame when there is none.
void ReadFrames(QorFrameHandle *frames, QorThreadRecord *thread, QorText *rows, QorText *currentCall) {
    bool userCallFound = false;
    QorXtierFlags xtier = {};
    for (frames->index = 0; frames->index < frames->count; ++frames->index) {
        QorFrameRecord frame;
        QorReadFrame(frames, FRAME_WITH_FILE_AND_LINE, &frame); // what can't be read stays empty
        if (!gbQorRELocal)
            QorListXtierFrame(thread, &frame, &xtier);
        GetThreadEnhancedState(&frame, thread);
        if (!userCallFound) {
            NoteCurrentCall(currentCall, &frame);
            userCallFound = frame.callType != 0;
        }
        AppendFrameRow(rows, &frame, thread->tid);
    }
    if (frames->count == 0)
        GetThreadEnhancedState(nullptr, thread);
}

void AppendContendedLock(QorText *reply, QorThreadHandle *handle, const QorThreadRecord &thread,
                         int32_t processId) {
    QorMonitorRecord lock = {};
    if (QorGetContendedMonitorInfo(handle, &thread, MONITORS_OF_ONE_THREAD, &lock, 1) != 1 ||
        lock.waiting != 1)
        return;
    QorAppendLockWaitRecord(reply, &lock, processId);
    QorTextAppendChar(reply, SECTION_END);
}

// The head of the thread in front of its frames' data: title, name and the column behind it.
void AppendHead(QorText *reply, uint32_t reqid, const QorThreadRecord &thread) {
    char title[TITLE_SIZE];
    InitResponseHeader(reqid, title);
    QorTextAppend(reply, title);
    QorAppendField(reply, thread.name);
    QorAppendField(reply, null_str);
}

void AppendIdentity(QorText *reply, const QorThreadRecord &thread, const QorText &currentCall,
                    int32_t processId) {
    QorAppendField(reply, BLANK); // request URL
    QorAppendField(reply, BLANK); // request detail
    char key[THREAD_KEY_SIZE];
    QorFormatThreadKey(key, processId, thread.tid);
    QorAppendField(reply, key);
    if (currentCall.length > 0)
        QorTextAppend(reply, currentCall.text, currentCall.length);
    else
        for (int32_t i = 0; i < 3; ++i)
            QorAppendField(reply, BLANK);
    char state[STATE_TEXT_SIZE];
    mapQorThreadState2String(thread.state, state);
    QorTextAppend(reply, state);
    if (thread.state == STATE_DB_WAIT)
        QorTextAppend(reply, QorEmptyShortDatabaseBlock());
    QorTextAppendChar(reply, SECTION_END);
}

void AppendOwnedLocks(QorText *reply, QorThreadHandle *handle, const QorThreadRecord &thread) {
    QorText rows;
    QorTextStart(&rows, console_thr_buf, CONSOLE_THR_BUF_SIZE);
    QorMonitorRecord *locks = nullptr;
    const int32_t count = QorGetOwnedMonitorInfo(handle, &thread, MONITORS_OF_ONE_THREAD, &locks);
    for (int32_t i = 0; i < count; ++i) {
        locks[i].lockId = locks[i].hash; // this view's number of a lock is its hash
        QorAppendOwnedLockRecord(&rows, &locks[i]);
    }
    free(locks);
    if (rows.length == 0)
        return;
    QorTextAppend(reply, TITLE_LOCKS);
    QorTextAppendChar(reply, RECORD_END);
    QorTextAppend(reply, rows.text, rows.length);
    QorTextAppendChar(reply, SECTION_END);
}

void AppendThread(uint32_t reqid, QorText *reply, QorThreadHandle *handle, QorThreadRecord *thread,
                  int32_t processId) {
    AppendContendedLock(reply, handle, *thread, processId);
    AppendHead(reply, reqid, *thread);
    QorFrameHandle frames;
    if (QorGetFrames(handle, &frames) < 0)
        return;
    QorText rows, currentCall;
    QorTextStart(&rows, console_thr_buf, CONSOLE_THR_BUF_SIZE);
    QorTextStart(&currentCall, console_frame_buf, CONSOLE_BUF_SIZE);
    ReadFrames(&frames, thread, &rows, &currentCall);
    AppendIdentity(reply, *thread, currentCall, processId);
    QorTextAppend(reply, TITLE_CALL_STACK);
    QorTextAppendChar(reply, RECORD_END);
    QorTextAppend(reply, rows.text, rows.length);
    QorTextAppendChar(reply, SECTION_END);
    AppendOwnedLocks(reply, handle, *thread);
}

} // namespace

void QorShowThreadStackRequest(uint32_t reqid, QorText *reply, char **args) {
    const int32_t processId = getpid();
    QorThreadHandle handle;
    QorInitThreadHandle(&handle);
    QorGetJVMThread(&handle, 0);
    if (!qorIsPollOrTrace)
        QORLOG(LOG_NOTE, "Entering QorShowThreadStackRequest for %d threads", handle.count);
    if (!args[1])
        QORLOG(LOG_ERROR, "StackRequest console_args[1] NULL");
    QorThreadRecord thread = {};
    if (QorFindThread(&handle, processId, args[1], &thread))
        AppendThread(reqid, reply, &handle, &thread, processId);
    closeThreadAndFreeLists();
}
