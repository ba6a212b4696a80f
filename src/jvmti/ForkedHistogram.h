// The class histogram's pass over the heap, made in a copy of the process.
//
// It goes along the references, so it counts what is reachable and not, as the pass in the process does, what
// the collector has not taken yet: a pass over all objects can't be ended by its first callback, and would
// keep the JVM standing for half as long as if there were no copy.
#pragma once

#include "ClassHistogram.h"

// Fills `count` and `size` of the entries, whose classes bear their places in the list, from 1, as tags of
// `env`. Null, or the text of a reply that says why there are no figures. Waits for the copy. Worker.
const char *QorCountHeapInCopy(jvmtiEnv *env, QorClassCountEntry *entries);
