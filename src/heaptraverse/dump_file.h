// A dump of the heap as the direct road writes it: a header line, the roots, every object with what it refers
// to, and a closing line.
//
// The worker opens the file and writes the header; all else is the work of a copy of the process.
#pragma once

#include "heap_scan.h"

#include <cstdint>

// What the copy leaves to its parent.
struct QorDirectDumpResult {
    int32_t missingRoots; // of thread_roots.h
    HeapSpace spaces[NUM_HEAP_SPACES];
    QorSpaceCensus content[NUM_HEAP_SPACES];
};

enum : int32_t { TRAVERSE_NOT_OPENED = -5 };

// Opens `logfile` at `path`. 0, or TRAVERSE_NOT_OPENED with the reason logged. Worker, with no thread held.
int32_t initTraverse(const char *path);

// Writes the header, by the heap as measured last. Worker, before anything else is written.
void QorWriteDirectHeader();

// Writes the rest, by plain reads. 0, or the error number of the first write that failed. In the copy.
int32_t QorWriteDirectDump(QorDirectDumpResult *result);

// Logs what the copy has left. Worker.
void QorLogDirectDump(const QorDirectDumpResult &result);
