// The memory requests of the direct road: what is in the spaces, what the collector has done.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Bits of a request that bring figures of the heap beside its threads' rows.
enum : uint32_t { MEMORY_WITH_THREADS = 0xa0c0 };

// Appends what `reqid` asks for: 0x80 the spaces' use and the collections; 0x200 what the spaces hold by
// kinds of objects, counted in a copy of the process, and the collections; 0x40 processor load, microseconds
// spent here and the heap's percentage; a bit of 0xa000 the line of system data. Without any it only measures
// the heap; `reply` may be null then. Worker, or the initialisation thread.
void qormemsum(QorText *reply, uint32_t reqid, bool byClass = false);
