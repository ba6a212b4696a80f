// Heap sizes by the JVM library's own entry points, and figures of its extended management table.
//
// The three sizes may be asked on any thread, once the session is open. The rest asks with the session's
// environment and so belongs to the worker.
#pragma once

#include <cstdint>

enum : int32_t { HEAP_NAME_SIZE = 128, HEAP_ENTRIES = 2 };

// A pool of the heap; sizes in KiB, cut to 32 bits.
struct QorHeapSummaryEntry {
    int32_t index;             // from 1
    char name[HEAP_NAME_SIZE]; // "Old" or "Nursery"
    uint32_t freeKb, totalKb, maxKb;
};

extern QorHeapSummaryEntry gbHamHeapSummaryObj[HEAP_ENTRIES];

// Bytes; 1 when the JVM has no such entry point. The greatest size is read once and kept. Free and total are
// read one after the other: free can exceed total.
uint64_t QorGetTotalMemory();
uint64_t QorGetFreeMemory();
uint64_t QorGetMaxMemory();

// Bytes in use, at least 0.
uint64_t QorGetUsedMemory();

// They hold nothing; they give the call the shape of the thread views'. Always 0.
int32_t QorInitHeapSummaryHandle();
int32_t QorCloseHeapSummaryHandle();

// Reads the pools and points *entries at them, valid until the next call. 2 rows (the nursery's figures taken
// out of the old pool's) where the JVM has the extended table, else 1 row for the whole heap.
int32_t QorGetMemorySummary(QorHeapSummaryEntry **entries);

// A size by a method of java.lang.Runtime, such as "totalMemory"; 0 when it is unavailable.
int64_t QorGetMemory(const char *methodName); // nothing calls it

// Adds the number of objects in the heap, those that no one refers to any more included, to *counter. The JVM
// is paused meanwhile, some 30 ms per million objects. 0, or -1 when the JVM refuses.
int32_t QorGetHeapObjectCount(int64_t *counter);
