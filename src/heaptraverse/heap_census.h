// What the spaces of the heap hold, counted object by object in a copy of the process.
//
// The process itself goes on: it is paused for the making of the copy alone, and its threads aren't held.
// Nothing is written into the copy's heap, so the copy takes the memory of what the application changes
// meanwhile. A copy that isn't ready when the request must be answered is given up.
//
// Worker only.
#pragma once

#include "heap_scan.h"
#include "heap_usage.h"

#include "platforms/fork_rules.h"

#include <cstdint>

enum : int32_t {
    CENSUS_CLASSES = 302, // those with the most bytes
    CENSUS_NAME_SIZE = 1024,
};

struct QorClassCensus {
    uint64_t objects, bytes;
    char name[CENSUS_NAME_SIZE]; // a class's with slashes, an array's signature; fit for a record
};

// All of one moment.
struct QorHeapCensus {
    HeapSpace spaces[NUM_HEAP_SPACES];
    QorHeapSummary summary;
    QorSpaceCensus content[NUM_HEAP_SPACES];
    int32_t classCount;
    QorClassCensus classes[CENSUS_CLASSES]; // of instances and arrays, most bytes first
};

// Whether the process can bear a copy that shows the spaces as laid out: 0 or the QorForkRefusal, logged.
// Opens descriptors for a moment, and allocates.
int32_t QorCheckDirectFork();

// Logs what of each space couldn't be read as objects. NUM_HEAP_SPACES of both.
void QorLogSkipped(const HeapSpace *spaces, const QorSpaceCensus *content);

// Waits until no collection runs. False when one still does at `until`, on QorForkClock, or the worker is
// asked to leave.
bool QorAwaitNoCollection(int64_t until);

// Waits for the end of a collection, which leaves most time until the next: of the one that runs, or one that
// begins before `until`. False when one still runs then.
bool QorAwaitCollectionEnd(int64_t until);

// Counts, with `classes` by class too. The figures stay until the next call; null, with *refusal a text for
// the reply, when there are none.
const QorHeapCensus *QorCountHeap(bool classes, const char **refusal);
