// The JVM's list of threads.
//
// Nobody keeps the list still: a thread that ends is taken out, its memory is freed and may be another
// thread's a moment later. So a thread is known by two things, its JavaThread's address and its kernel id,
// and what was read of it counts only if both are still in the list afterwards.
//
// Worker, or the initialisation thread. Nothing here allocates or logs.
#pragma once

#include <cstdint>

enum : int32_t { MAX_VM_THREADS = 8191 };

// Puts the JavaThreads of the list into `threads`, room for MAX_VM_THREADS, in the list's order. Returns
// their number. A walk ends at a null link, at one that can't be read, at a node seen before, or at the
// limit; but for the first, a thread may have ended on the way, and two more walks are made.
int32_t QorListThreads(uint64_t *threads);

// True when `thread` is in the list as it is now, and its OSThread has this kernel id.
bool QorIsListed(uint64_t thread, int32_t kernelId);

// The kernel id of a JavaThread, 0 when it has no OSThread or can't be read.
int32_t QorKernelIdOf(uint64_t thread);
