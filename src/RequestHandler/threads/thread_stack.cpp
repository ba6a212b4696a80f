#include "thread_stack.h"

#include "Xtier/Xtier.h"
#include "jvmti/threads/Monitors.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/records.h"
#include "thread_lookup.h"

#include <cstdlib>
#include <unistd.h>

namespace {

constexpr char BLANK[] = " ";

// The rows of this view carry the method's id in 32 bits; the console sends them back to ask for locals. 1,
// or -1 when there is no room.
int32_t AppendFrameRow(QorText *out, const QorFrameRecord *frame, int64_t tid) {
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
    return QorTextAppend(out, row.text, row.length);
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

// A text in the rows in the place of the row of the framework frame, which can be written only when the
// locals are read; it is longer than that row can be.
constexpr char PLACEHOLDER_WORD[] = "PLACEHOLDERFORQRFDATA";
constexpr int32_t PLACEHOLDER_WORDS = 144;
constexpr int32_t FRAMEWORK_ROW_INDEX = 7; // frame index that the framework's row shows

char qorPlaceholderBuf[3100]; // filled at its first use

// The framework frame of the stack and its place among the rows.
struct FrameworkPlace {
    QorFramework framework;
    int32_t start, end;       // of the placeholder
    char fileName[NAME_SIZE]; // of the frame
};

// What the view gathers while it reads the frames.
struct StackTexts {
    QorText rows, currentCall;
    FrameworkPlace place;
};

void HoldPlace(QorText *rows, FrameworkPlace *place, QorFramework framework, const char *fileName) {
    place->framework = framework;
    QorStrncpy(place->fileName, fileName, NAME_SIZE, NAME_SIZE);
    if (!qorPlaceholderBuf[0]) {
        QorText words;
        QorTextStart(&words, qorPlaceholderBuf, sizeof qorPlaceholderBuf);
        for (int32_t i = 0; i < PLACEHOLDER_WORDS; ++i)
            QorTextAppend(&words, PLACEHOLDER_WORD);
    }
    place->start = rows->length;
    QorTextAppend(rows, qorPlaceholderBuf);
    place->end = rows->length;
}

// Replaces the placeholder by `row`, which is no longer than that. False when there is no place for it.
bool FillPlace(QorText *rows, const FrameworkPlace &place, const char *row, int32_t length) {
    if (length > place.end - place.start)
        return false;
    char *at = rows->text + place.start;
    memcpy(at, row, static_cast<size_t>(length));
    memmove(at + length, rows->text + place.end, static_cast<size_t>(rows->length - place.end));
    QorTextCut(rows, rows->length - (place.end - place.start - length));
    return true;
}

// Shows what the framework frame works on, as current call and as a row above that of the frame; with nothing
// known the placeholder just goes.
void ShowFramework(StackTexts *texts, const char *name, int64_t tid) {
    const FrameworkPlace &place = texts->place;
    if (!name[0]) {
        FillPlace(&texts->rows, place, "", 0);
        return;
    }
    if (place.framework == FRAMEWORK_ENTITY)
        QORLOG(LOG_DETAIL, "QRF Entity Object Name : %s  %s", name, place.fileName);
    char call[2 * NAME_SIZE + 64];
    QorText group;
    QorTextStart(&group, call, sizeof call);
    QorTextAppend(&group, QorFrameworkClass(place.framework));
    QorTextAppend(&group, "->");
    QorAppendField(&group, name);
    QorAppendField(&group, place.fileName);
    QorTextAppendNumber(&group, 0);

    QorTextCut(&texts->currentCall, 0);
    QorTextAppend(&texts->currentCall, group.text, group.length);
    QorTextAppendChar(&texts->currentCall, FIELD_SEP);

    char storage[sizeof qorPlaceholderBuf];
    const int32_t length = snprintf(storage, sizeof storage, "%s%c%d%c%d%c%d%c2%c3%c%s%c", "user", FIELD_SEP,
                                    static_cast<int32_t>(tid), FIELD_SEP, FRAMEWORK_ROW_INDEX, FIELD_SEP, 0,
                                    FIELD_SEP, FIELD_SEP, FIELD_SEP, group.text, RECORD_END);
    if (FillPlace(&texts->rows, place, storage, length))
        return;
    if (place.framework == FRAMEWORK_VIEW)
        QORLOG(LOG_ERROR, "Number of frames exceeds the MAX_STACk_BUF_SIZE");
    else
        QORLOG(LOG_ERROR, "Number of frames exceeds the MAX_STACK_BUF_SIZE");
}

// Reads all frames: rows, current call and the state that they refine. The current call is the first user
// call, or the bottom frame when there is none; a framework frame is none, as its data will be there.
void ReadFrames(QorFrameHandle *frames, QorThreadRecord *thread, StackTexts *texts) {
    bool userCallFound = false, full = false;
    QorXtierFlags xtier = {};
    tessar_thick_driver = 0;
    QorStartThreadFrames();
    for (frames->index = 0; frames->index < frames->count; ++frames->index) {
        QorFrameRecord frame;
        QorReadFrame(frames, FRAME_WITH_FILE_AND_LINE, &frame); // what can't be read stays empty
        QorFramework framework = FRAMEWORK_NONE;
        if (!gbQorRELocal)
            framework = QorListStackFrame(thread, &frame, QorClassifyFrame(&frame), &xtier);
        GetThreadEnhancedState(&frame, thread);
        if (!userCallFound) {
            if (framework == FRAMEWORK_NONE)
                NoteCurrentCall(&texts->currentCall, &frame);
            userCallFound = frame.callType != 0;
        }
        if (framework != FRAMEWORK_NONE)
            HoldPlace(&texts->rows, &texts->place, framework, frame.fileName);
        if (!full) // rows after a hole would pass for the next ones
            full = AppendFrameRow(&texts->rows, &frame, thread->tid) < 0;
    }
    qorReplyIsCut |= full;
    if (frames->count == 0)
        GetThreadEnhancedState(nullptr, thread);
}

// Whether there is one.
bool AppendContendedLock(QorText *reply, QorThreadHandle *handle, const QorThreadRecord &thread,
                         int32_t processId) {
    QorMonitorRecord lock = {};
    if (QorGetContendedMonitorInfo(handle, &thread, MONITORS_OF_ONE_THREAD, &lock, 1) != 1 ||
        lock.waiting != 1)
        return false;
    QorAppendLockWaitRecord(reply, &lock, processId);
    QorTextAppendChar(reply, SECTION_END);
    return true;
}

// The head of the thread before its frames' data: title, name and the column after it.
void AppendHead(QorText *reply, uint32_t reqid, const QorThreadRecord &thread) {
    char title[TITLE_SIZE];
    InitResponseHeader(reqid, title);
    QorTextAppend(reply, title);
    QorAppendField(reply, thread.name);
    QorAppendField(reply, null_str);
}

void AppendRequest(QorText *reply, const QorJSPRequestData *web) {
    const bool known = web && web->requestUrl[0];
    QorAppendField(reply, known ? web->requestUrl : BLANK);
    if (known)
        QorAppendField(reply, web->requestDetail[0] ? web->requestDetail : null_str);
    else
        QorAppendField(reply, BLANK);
}

// Whose call it is, what it does, and for a database call the block with what is known of it.
void AppendIdentity(QorText *reply, const QorThreadRecord &thread, const QorText &currentCall,
                    const QorStackViewData &data, int32_t processId) {
    AppendRequest(reply, data.web);
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
        QorAppendShortDatabaseBlock(reply,
                                    data.database ? QorDatabaseBlockOf(*data.database) : QorDatabaseBlock());
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
    QorHoldUnmounted(*handle);
    const bool waits = AppendContendedLock(reply, handle, *thread, processId);
    AppendHead(reply, reqid, *thread);
    QorFrameHandle frames;
    if (QorGetFrames(handle, &frames) < 0)
        return;
    StackTexts texts;
    QorTextStart(&texts.rows, console_thr_buf, CONSOLE_THR_BUF_SIZE);
    QorTextStart(&texts.currentCall, console_frame_buf, CONSOLE_BUF_SIZE);
    texts.place.framework = FRAMEWORK_NONE;
    texts.place.fileName[0] = 0;
    ReadFrames(&frames, thread, &texts);
    QorStackViewData data = {};
    if (!gbQorRELocal)
        data = QorReadStackViewData();
    if (data.web && texts.place.framework != FRAMEWORK_NONE)
        ShowFramework(&texts, data.web->qrfObjectName, thread->tid);
    AppendIdentity(reply, *thread, texts.currentCall, data, processId);
    QorTextAppend(reply, TITLE_CALL_STACK);
    QorTextAppendChar(reply, RECORD_END);
    QorTextAppend(reply, texts.rows.text, texts.rows.length);
    QorTextAppendChar(reply, SECTION_END);
    AppendOwnedLocks(reply, handle, *thread);
    QorMonitorRecord blocker = {};
    if (waits || QorGetParkedOn(handle, &blocker) != 1)
        return;
    QorAppendParkedRecord(reply, &blocker);
    QorTextAppendChar(reply, SECTION_END);
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
