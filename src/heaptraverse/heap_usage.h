// How full the spaces of the heap are, and how often it has been collected: by the VM's own records.
//
// Worker, the initialisation thread, or a copy of the process. Nothing here allocates or logs.
#pragma once

#include "qorutil/vm_heap.h"

#include <cstdint>

struct QorSpaceUsage {
    uint64_t capacity, used, free; // KiB
    uint32_t percent;              // used, of the capacity
};

struct QorHeapSummary {
    QorSpaceUsage spaces[NUM_HEAP_SPACES]; // in the order of heapspace
    uint64_t used, capacity;               // bytes, of all spaces
    uint32_t percent;
    int32_t collections, minorCount, majorCount;
    uint64_t minorTime, majorTime; // milliseconds
};
extern QorHeapSummary heap; // as measured last

// Lays out the spaces and fills `heap`. 0, or -1 when a space can't be found: the layout is then the one from
// before, and its spaces are measured.
int32_t QorMeasureHeap();
