#include "records.h"

#include "Xtier/XtierInsert.h"
#include "qorlog.h"
#include "qorrequest.h"

#include <cstdio>

char console_line_buf[CONSOLE_BUF_SIZE];
char console_frame_buf[CONSOLE_BUF_SIZE];
char console_mon_wait_buf[CONSOLE_BUF_SIZE];
char console_mon_owned_buf[CONSOLE_BUF_SIZE];
char console_thr_buf[CONSOLE_THR_BUF_SIZE];

namespace {

// What a poll's flags must be for a title to apply.
enum PollForm { ANY_FORM, PLAIN_POLL, PLAIN_TRACE, WITH_DETAILS };

struct TitleRow {
    uint32_t bit;
    PollForm form;
    const char *title;
};

// The first row that applies decides.
constexpr TitleRow titleRows[] = {
    {QORREQ_MEMORY_ACTIVITY, ANY_FORM, TITLE_MEMORY_ACTIVITY},
    {QORREQ_THREAD_SUMMARY, ANY_FORM, "Thread Info Summary"},
    {QORREQ_ACTIVE_THREADS, ANY_FORM, TITLE_ACTIVE_THREADS},
    {QORREQ_THREAD_DETAILS, ANY_FORM, TITLE_THREAD_DETAILS},
    {QORREQ_LOCK_HOLDER, ANY_FORM, "Thread Holding Lock"},
    {QORREQ_POLL_DETAILS, PLAIN_POLL, TITLE_ACTIVE_THREADS},
    {QORREQ_POLL_DETAILS, PLAIN_TRACE, TITLE_THREAD_DETAILS},
    {QORREQ_POLL_DETAILS, WITH_DETAILS, TITLE_THREAD_DETAILS},
};

PollForm CurrentPollForm() {
    if (poll_details)
        return WITH_DETAILS;
    return trace_single_thread_details ? PLAIN_TRACE : PLAIN_POLL;
}

// A number as the wire's 32-bit fields show it.
int32_t Wire32(int64_t value) {
    return static_cast<int32_t>(value);
}

char sDummyDBString[64];
char sDummyRMIString[32];

} // namespace

void InitResponseHeader(uint32_t reqid, char *header) {
    header[0] = 0;
    const PollForm form = CurrentPollForm();
    for (const TitleRow &row : titleRows) {
        if (!(reqid & row.bit) || (row.form != ANY_FORM && row.form != form))
            continue;
        snprintf(header, TITLE_SIZE, "%s%c", row.title, RECORD_END);
        if (row.form == PLAIN_TRACE)
            poll_details = FLAG_POLL_DETAILS;
        return;
    }
}

int32_t QorFormatThreadKey(char *key, int32_t processId, int64_t threadId) {
    QorText text;
    QorTextStart(&text, key, THREAD_KEY_SIZE);
    QorTextAppendNumber(&text, processId);
    QorTextAppendChar(&text, '-');
    QorTextAppendNumber(&text, Wire32(threadId));
    return text.length;
}

void QorAppendFrameGroup(QorText *out, const QorFrameRecord *frame, const char *noLine, const char *noFile) {
    QorTextAppend(out, frame->className);
    QorTextAppend(out, "->", 2);
    QorTextAppend(out, frame->method);
    QorTextAppendChar(out, FIELD_SEP);
    if (frame->line < 1) {
        QorTextAppend(out, "Native Method");
        QorTextAppendChar(out, FIELD_SEP);
        QorTextAppend(out, noLine);
        return;
    }
    QorTextAppend(out, frame->fileName[0] ? frame->fileName : noFile);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppendNumber(out, frame->line);
}

void QorAppendField(QorText *out, const char *text) {
    QorTextAppend(out, text);
    QorTextAppendChar(out, FIELD_SEP);
}

const char *QorEmptyDatabaseBlock() {
    if (!sDummyDBString[0]) {
        QORLOG(LOG_NOTE, "Creating sDummyDBString");
        QorText text;
        QorTextStart(&text, sDummyDBString, sizeof sDummyDBString);
        QorAppendDatabaseBlock(&text, {});
    }
    return sDummyDBString;
}

const char *QorEmptyRmiBlock() {
    if (!sDummyRMIString[0]) {
        QORLOG(LOG_NOTE, "Creating sDummyRMIString");
        QorText text;
        QorTextStart(&text, sDummyRMIString, sizeof sDummyRMIString);
        QorAppendRmiBlock(&text, nullptr);
    }
    return sDummyRMIString;
}

void QorAppendStackRowHead(QorText *out, const QorFrameRecord *frame) {
    QorTextAppendChar(out, RECORD_END);
    QorAppendFrameGroup(out, frame, null_str, null_str);
    QorTextAppendChar(out, FIELD_SEP);
}

void QorAppendStackRowTail(QorText *out, int64_t methodId) {
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppendNumber(out, methodId);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppend(out, null_str);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppend(out, null_str);
}

int32_t QorAppendSkipRow(QorText *out, int32_t skipped, int64_t threadId, int32_t frameIndex) {
    char row[LONGEST_SKIP_ROW];
    const int32_t length =
        snprintf(row, sizeof row, "%c%d%s%c%s%c%s%c%d%c%d%c%ld%c%s%c%s", RECORD_END, skipped,
                 " frames are skipped for storage and performance optimization", FIELD_SEP, "NA", FIELD_SEP,
                 null_str, FIELD_SEP, Wire32(threadId), FIELD_SEP, frameIndex, FIELD_SEP, 0L, FIELD_SEP,
                 null_str, FIELD_SEP, null_str);
    return QorTextAppend(out, row, length);
}

void QorAppendLockWaitRecord(QorText *out, const QorMonitorRecord *lock, int32_t processId) {
    char record[NAME_SIZE + 256];
    const int32_t length =
        snprintf(record, sizeof record, "Lock On%c%d%c%d-%d%c%s%cView Thread Holding this Lock", RECORD_END,
                 Wire32(lock->lockId), FIELD_SEP, processId, Wire32(lock->owner), FIELD_SEP,
                 lock->description, FIELD_SEP);
    QorTextAppend(out, record, length);
}

int32_t QorAppendOwnedLockRecord(QorText *out, const QorMonitorRecord *lock) {
    char record[NAME_SIZE + 256];
    const int32_t length =
        snprintf(record, sizeof record, "%d%c%d%c%s%c%d%c", Wire32(lock->lockId), FIELD_SEP, 0, FIELD_SEP,
                 lock->description, FIELD_SEP, lock->stackDepth, RECORD_END);
    return QorTextAppend(out, record, length);
}

void QorAppendParkedRecord(QorText *out, const QorMonitorRecord *blocker) {
    char record[NAME_SIZE + 256];
    const int32_t length = snprintf(record, sizeof record, "%s%c%d%c%s", TITLE_PARKED, RECORD_END,
                                    Wire32(blocker->lockId), FIELD_SEP, blocker->description);
    QorTextAppend(out, record, length);
}
