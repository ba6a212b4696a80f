// The JVM's garbage collectors: each by the name of its bean, and added up in two rows, major and minor.
//
// A bean whose name ends in "Cycles" or holds the word "Concurrent" reports work beside the application and
// is in neither row. Of the others one whose name holds "MarkSweep", "Old" or "Major" is major, any other
// minor. Where the beans may not be asked, the one total of the management table is all there is.
//
// Worker only. The rows stay valid until the next call.
#pragma once

#include <cstdint>
#include <jvmti.h>

enum : int32_t { GC_NAME_SIZE = 128, GC_ENTRIES = 2, MAX_COLLECTORS = 16 };

struct QorGCSummaryEntry {
    int32_t index; // from 1
    char name[GC_NAME_SIZE];
    uint32_t count; // collections so far, cut to 32 bits; all ones when a collector doesn't report it
    int64_t time;   // milliseconds spent so far, -1 when a collector doesn't report it
};

// A collector bean, with -1 for what it doesn't report.
struct QorCollector {
    char name[GC_NAME_SIZE];
    int64_t count, time; // collections so far, and milliseconds spent in them
};

extern QorGCSummaryEntry gbQorGCSummaryObj[GC_ENTRIES];

constexpr char GC_MAJOR_WORD[] = "Major"; // in the name of the major row, and in no other

// They hold nothing; they give the call the shape of the thread views'. Always 0.
int32_t QorInitGCSummaryHandle();
int32_t QorCloseGCSummaryHandle();

// Reads the beans in the JVM's order: their number, at most MAX_COLLECTORS. The first failure ends the
// reading and is logged.
int32_t QorGetCollectors(QorCollector (&out)[MAX_COLLECTORS]);

// Reads the rows and points *entries at them: 1 row for the total, 2 for major and minor. What could not be
// read stays 0.
int32_t QorGetGCSummary(QorGCSummaryEntry **entries);

// Total collections, and milliseconds spent in them, by the management table; a negative answer is 0. Without
// a table the result stays as it was. Always 0.
int32_t QorGetTotalGCCount(int32_t *result);
int32_t QorGetTotalGCTime(int32_t *result);

// Switches the two collection events on: 1, or 0 when the JVM refuses. The callbacks only log.
int32_t QorSetGCHandlerNotification(jvmtiEnv *env); // nothing calls it
void JNICALL qorcallbackGCStart(jvmtiEnv *env);
void JNICALL qorcallbackGCFinish(jvmtiEnv *env);
