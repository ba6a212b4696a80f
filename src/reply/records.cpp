#include "records.h"

#include <cstdio>

char console_line_buf[CONSOLE_BUF_SIZE];
char console_frame_buf[CONSOLE_BUF_SIZE];
char console_mon_wait_buf[CONSOLE_BUF_SIZE];
char console_mon_owned_buf[CONSOLE_BUF_SIZE];
char console_thr_buf[CONSOLE_THR_BUF_SIZE];

int32_t tessar_thick_driver;

namespace {

// A number as the wire's 32-bit fields show it.
int32_t Wire32(int64_t value) {
    return static_cast<int32_t>(value);
}

} // namespace

void QorAppendFrameGroup(QorText *out, const QorFrameRecord *frame, const char *noLine, const char *noFile) {
    QorTextAppend(out, frame->className);
    QorTextAppend(out, "->", 2);
    QorTextAppend(out, frame->method);
    QorTextAppendChar(out, FIELD_SEP);
    if (frame->line < 1) {
        QorTextAppend(out, NO_LINE_FILE);
        QorTextAppendChar(out, FIELD_SEP);
        QorTextAppend(out, noLine);
        return;
    }
    QorTextAppend(out, frame->fileName[0] ? frame->fileName : noFile);
    QorTextAppendChar(out, FIELD_SEP);
    QorTextAppendNumber(out, frame->line);
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
    const int32_t length = snprintf(
        record, sizeof record, "%s%c%d%c%d-%d%c%s%c%s", TITLE_LOCK_WAIT, RECORD_END, Wire32(lock->lockId),
        FIELD_SEP, processId, Wire32(lock->owner), FIELD_SEP, lock->description, FIELD_SEP, VIEW_LOCK_HOLDER);
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

void QorAppendNoVirtualThreads(QorText *out, const char *reason) {
    QorAppendNumberField(out, -1);
    QorTextAppend(out, reason);
    QorTextAppendChar(out, RECORD_END);
    QorTextAppendChar(out, SECTION_END);
}
