// Heap dumps of the direct road: a copy of the process writes them, made while all threads in Java code are
// held.
#pragma once

#include <cstdint>

// Begins such a dump in `path`, for a copy that writes to the pipe's second end when it ends. A process id,
// or a QorForkRefusal: FORK_REFUSED_MOVED when the heap didn't keep still, and another try may find it so.
// With no thread held before and afterwards. Worker.
int32_t QorForkDirectDump(const char *path, const int32_t pipe[2]);

// Null, or why no copy can be made now, by which alone the heap of this road is walked. Opens descriptors for
// a moment, and allocates. Worker.
const char *QorWhyNoDirectCopy();
