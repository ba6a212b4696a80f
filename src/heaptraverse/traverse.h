// The roots of the heap: what the JVM's own structures hold, found along the type tables.
//
// In the copy of the process that writes the dump. Whatever a structure says is held against what can be: an
// address that can't be read ends its chain, counts are bounded, a ring ends where it began, and only what
// can be an object's address is written.
#pragma once

#include "qorutil/vm_types.h"

#include <cstdint>

// Walks the structure of type `type` at `address` and all that it leads to, and writes its roots to
// `logfile`. Of arrays `count` is the number of elements; of chunks it is where the last one's data ends and
// `extra` the last one's address. 0, or -1 for an address of 0 and one that isn't aligned to 4 bytes.
int32_t traverseObject(uint64_t address, int32_t type, uint64_t count, uint64_t extra);

// Walks one of the roots, an index of startSymbols. As traverseObject; -1 also for a symbol that isn't there.
enum : int32_t { START_JAVA_THREADS = 0, START_VM_THREADS = 1, START_SYSTEM = 2, START_PROFILER = 5 };
int32_t QorTraverseRoot(int32_t index);

// Walks all roots but the threads'. The last one's result. The profiler's table isn't walked: it's there only
// while the JVM profiles, and its length is nowhere to be read.
int32_t traverseSystem();

// What is done with each thread before its structure's roots are written. Set before the walk.
extern void (*qorThreadVisit)(uint64_t thread);
