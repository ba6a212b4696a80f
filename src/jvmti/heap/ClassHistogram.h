// The class histogram: instances and bytes of each loaded class, in one pass over the heap.
//
// Classes are tagged by their place in the list, and the pass only adds up; no object is tagged or kept. The
// JVM is paused for the pass. Dead objects that the collector has not taken yet are counted, as the JVM
// reports them. Where forking is on, a copy of the process makes the pass, and the JVM is paused for the
// fork alone; see ForkedHistogram.h for what is then counted. Worker only.
#pragma once

#include <cstdint>
#include <jvmti.h>

struct QorClassCountEntry {
    int64_t count, size; // instances and their bytes
    const char *name;    // the JVM's signature, at most 1,023 bytes, or "NULL"; "" when not tagged
};

extern int32_t gbiclassCount;      // entries of the pass
extern const char *qorNoHistogram; // why the last pass was refused or failed, for the reply; null for nothing
extern int64_t qorHistogramAge;    // seconds since the heap was as the last pass found; -1: of this request

// Counts and sorts by size, smallest first. 0, or -1 with *count 0 and *entries null. The caller gives the
// entries back by QorFreeClassCounts.
int32_t QorClassInstanceCounts(int64_t *count, QorClassCountEntry **entries);
void QorFreeClassCounts(QorClassCountEntry *entries, int64_t count);

// Lists the loaded classes, tags each by its place from 1, and makes `pass` over the heap with these tags.
// The entries, gbiclassCount of them, or null after a failure; the tags are gone in any case.
using QorHistogramPass = bool (*)(jvmtiEnv *env, QorClassCountEntry *entries);
QorClassCountEntry *QorListClasses(QorHistogramPass pass);

// Adds one object to the entry of its class. Runs inside the JVM's iteration.
jint JNICALL cbObjectCounter(jlong classTag, jlong size, jlong *tagPtr, jint length, void *entries);

// Sorts entries[low] to entries[high] by size, smallest first. The order of equals is not kept.
void QorClassSizeSort(QorClassCountEntry *entries, int64_t low, int64_t high);
