// The roots on the threads' stacks: for each thread of the JVM its frames, with what their locals hold.
//
// In the copy of the process that writes the dump. A thread that was held has its registers in the hold's
// table; any other is walked from the anchor that it has left, and has no frames without one.
#pragma once

#include <cstdint>

// Writes the roots of all threads to `logfile`, Java's first. 0, or the bits of those whose list isn't there.
enum : int32_t { NO_JAVA_THREADS = 1, NO_VM_THREADS = 2 };
int32_t traverseThread();

// In the process, before any thread is held: learns what kinds of code there are, which the copy can't ask.
void QorPrepareThreadRoots();
