// The record format: separators, placeholders, titles and the field order of each record kind.
//
// A record is appended to a QorText; a field that is
// not known is written as its placeholder, so that every record of a kind has the same number of fields. Any
// thread, but the scratch buffers belong to the worker.
#pragma once

#include "jvmti/Monitors.h"
#include "jvmti/ThreadSystem.h"
#include "qorformat.h"
#include "qortext.h"

#include <cstdint>

// Section titles.
constexpr char TITLE_ACTIVE_THREADS[] = "JVM Active Threads";
constexpr char TITLE_MEMORY_ACTIVITY[] = "JVM Memory Activity";
constexpr char TITLE_THREAD_DETAILS[] = "Thread Info Details";
constexpr char TITLE_CALL_STACK[] = "Call Stack";
constexpr char TITLE_LOCKS[] = "JVM Locks";
constexpr char TITLE_PARKED[] = "Parked On";

enum : int32_t {
    TITLE_SIZE = 128,
    CONSOLE_BUF_SIZE = 10240,
    CONSOLE_THR_BUF_SIZE = 102400,
    THREAD_KEY_SIZE = 64,
    LONGEST_ROW = 3 * NAME_SIZE + 128, // three names and the numbers between them
    LONGEST_SKIP_ROW = 128,
};

// Scratch of the sample views.
extern char console_line_buf[CONSOLE_BUF_SIZE];
extern char console_frame_buf[CONSOLE_BUF_SIZE];
extern char console_mon_wait_buf[CONSOLE_BUF_SIZE];
extern char console_mon_owned_buf[CONSOLE_BUF_SIZE];
extern char console_thr_buf[CONSOLE_THR_BUF_SIZE];

// The title record of a request, its RECORD_END included, into TITLE_SIZE bytes; empty when the request has
// none. A poll that traces a single thread gets `poll_details` set.
void InitResponseHeader(uint32_t reqid, char *header);

// A thread's identity on the wire, "process-thread", into THREAD_KEY_SIZE bytes. Ids are cut to 32 bits, as
// the console expects. Returns the length.
int32_t QorFormatThreadKey(char *key, int32_t processId, int64_t threadId);

// Three fields: call text, file, line. Without a line: call text, "Native Method" and `noLine`; a line
// without a file has `noFile`. No separator at the end.
void QorAppendFrameGroup(QorText *out, const QorFrameRecord *frame, const char *noLine, const char *noFile);

// A text and its separator.
void QorAppendField(QorText *out, const char *text);

// The detail blocks behind "DB Wait" and "RMI Wait" with nothing known.
const char *QorEmptyDatabaseBlock();
const char *QorEmptyRmiBlock();

// The part of a stack row in front of the thread's id and the part behind the frame's index; they depend on
// the method and the line alone. With thread id and index between them they are a whole row:
//   RECORD_END call file line tid index methodId ^ ^
void QorAppendStackRowHead(QorText *out, const QorFrameRecord *frame);
void QorAppendStackRowTail(QorText *out, int64_t methodId);

// The row that stands for frames left out of a long stack. 1, or -1 when it didn't fit.
int32_t QorAppendSkipRow(QorText *out, int32_t skipped, int64_t threadId, int32_t frameIndex);

// The lock that a thread waits for, title included, nothing at the end.
void QorAppendLockWaitRecord(QorText *out, const QorMonitorRecord *lock, int32_t processId);

// A lock that a thread holds, with its RECORD_END. 1, or -1 when it didn't fit: then nothing of it stands.
int32_t QorAppendOwnedLockRecord(QorText *out, const QorMonitorRecord *lock);

// What a thread is parked by that no thread owns, title included, nothing at the end.
void QorAppendParkedRecord(QorText *out, const QorMonitorRecord *blocker);
