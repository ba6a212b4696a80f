// The log: one macro, one line format, one destination.
//
// A line is written only when `qorloglevel` exceeds the threshold fixed at the call site:
//   0 errors, 1 warnings, 2 notes of the agent's life, 3 detail, 4 per-request traces,
//   5 poll failures, 7 raw pipe diagnostics.
// It looks like
//   <month-day-year hh:mm:ss.mmm> <QordAgent|file:line> <message>
// Any thread may log. A line is written whole under the stream's lock, so that lines of two threads never
// mix, and in one piece unless its message is longer than 4,095 bytes. Not for signal handlers and not for
// callbacks of a heap walk.
#pragma once

#include <cstdint>
#include <cstdio>

// The log threshold, 0 (silent) and up. Written at start-up, by the request "qorloglevel" and by the native
// setLogLevel; read at each call site.
extern int32_t qorloglevel;

// Where lines go. Null until start-up has opened the log; the first line written while it is null makes it
// stderr. Written at start-up only.
extern FILE *fpLogFile;

enum QorLogThreshold : int32_t {
    LOG_ERROR = 0,
    LOG_WARNING = 1,
    LOG_NOTE = 2,
    LOG_DETAIL = 3,
    LOG_TRACE = 4,
    LOG_POLL_FAILURE = 5,
    LOG_RAW_PIPE = 7,
};

// Writes one line, whatever the level is: callers go through QORLOG. `file` is a path of which the last
// component is shown. The arguments of a long message are read twice.
void QorWriteLogLine(const char *file, int line, const char *format, ...)
    __attribute__((format(printf, 3, 4)));

// Whether a line may be written again: true at most once a minute for each `*next`, the time of the next
// line, which begins as 0. Any thread.
bool QorLogIsDue(int64_t *next);

#define QORLOG(threshold, ...)                                                                               \
    do {                                                                                                     \
        if (qorloglevel > (threshold))                                                                       \
            QorWriteLogLine(__FILE__, __LINE__, __VA_ARGS__);                                                \
    } while (0)

// The same for what an application's data can cause at every sample: at most one line a minute from each call
// site.
#define QORLOG_RATIONED(threshold, ...)                                                                      \
    do {                                                                                                     \
        static int64_t qorLogNext;                                                                           \
        if (qorloglevel > (threshold) && QorLogIsDue(&qorLogNext))                                           \
            QorWriteLogLine(__FILE__, __LINE__, __VA_ARGS__);                                                \
    } while (0)
