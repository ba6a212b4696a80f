// The class histogram's pass over the heap, made in a copy of the process.
//
// It goes along the references, so it counts what is reachable and not, as the pass in the process does, what
// the collector has not taken yet: a pass over all objects can't be ended by its first callback, and would
// keep the JVM standing for half as long as if there were no copy.
//
// A copy that isn't ready when the request must be answered goes on for ten minutes more, and so long its
// figures are kept for the next one who asks. All functions: worker.
#pragma once

#include "ClassHistogram.h"

// The entries with their figures, *count of them, the caller's to free; null with *refusal the text of a
// reply that says why there are none. *age: seconds since the copy of an earlier request was made; -1 when it
// was made for this one.
QorClassCountEntry *QorCountHeapInCopy(int64_t *count, const char **refusal, int64_t *age);

// Drops a copy, or the figures of one, that nobody has asked for in ten minutes.
void QorTendHistogram();

// Drops them at once: kills the copy, and doesn't wait for its end.
void QorDropHistogram();

extern int64_t gbiHistogramLife; // milliseconds that it is kept. Tests make it short.
