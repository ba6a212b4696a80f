// The record format: separators, placeholders, titles and the field order of each record kind.
//
// A record is appended to a QorText; a field that is
// not known is written as its placeholder, so that every record of a kind has the same number of fields. Any
// thread, but the scratch buffers belong to the worker.
#pragma once

#include "qorformat.h"
#include "qortext.h"
#include "record_facts.h"
#include "wait_blocks.h"

#include <cstdint>

enum : int32_t {
    CONSOLE_BUF_SIZE = 10240,
    CONSOLE_THR_BUF_SIZE = 102400,
    LONGEST_ROW = 3 * NAME_SIZE + 128, // three names and the numbers between them
    LONGEST_SKIP_ROW = 128,
};

// Scratch of the sample views.
extern char console_line_buf[CONSOLE_BUF_SIZE];
extern char console_frame_buf[CONSOLE_BUF_SIZE];
extern char console_mon_wait_buf[CONSOLE_BUF_SIZE];
extern char console_mon_owned_buf[CONSOLE_BUF_SIZE];
extern char console_thr_buf[CONSOLE_THR_BUF_SIZE];

// Three fields: call text, file, line. Without a line: call text, "Native Method" and `noLine`; a line
// without a file has `noFile`. No separator at the end.
void QorAppendFrameGroup(QorText *out, const QorFrameRecord *frame, const char *noLine, const char *noFile);

// The part of a stack row before the thread's id and the part after the frame's index; they depend on
// the method and the line alone. With thread id and index between them they are a whole row:
//   RECORD_END call file line tid index methodId ^ ^
void QorAppendStackRowHead(QorText *out, const QorFrameRecord *frame);
void QorAppendStackRowTail(QorText *out, int64_t methodId);

// The row that stands for frames left out of a long stack. 1, or -1 when it didn't fit.
int32_t QorAppendSkipRow(QorText *out, int32_t skipped, int64_t threadId, int32_t frameIndex);

// The lock that a thread waits for, title included, nothing at the end.
void QorAppendLockWaitRecord(QorText *out, const QorMonitorRecord *lock, int32_t processId);

// A lock that a thread holds, with its RECORD_END. 1, or -1 when it didn't fit: then nothing of it is
// written.
int32_t QorAppendOwnedLockRecord(QorText *out, const QorMonitorRecord *lock);

// The record and the section's end of a view of virtual threads that can't show them.
void QorAppendNoVirtualThreads(QorText *out, const char *reason);

// What a thread is parked by that no thread owns, title included, nothing at the end.
void QorAppendParkedRecord(QorText *out, const QorMonitorRecord *blocker);
