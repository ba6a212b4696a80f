// A space of the heap walked object by object, from its bottom up.
//
// Nothing in the JVM helps: the walk tells objects from free memory by itself. What begins where an object
// may begin, has a klass of a known kind and a size that fits, is an object, and the next one begins where
// it ends. Anything else is stepped over by 8 bytes and counted, until something fits again.
//
// It is made for a copy of the process, where nothing changes. There it may also call the JVM's own function
// for the size of what only the JVM can measure. Where objects move it finds wrong things, but reads no
// memory that isn't there.
//
// Nothing here allocates, logs or takes a lock. One walk at a time, on the thread that reads.
#pragma once

#include "qorutil/vm_heap.h"
#include "qorutil/vm_klass.h"

#include <cstdint>

struct QorHeapObject {
    uint64_t address, klass, size; // bytes
    VmType type;                   // TYPE_INSTANCE and TYPE_ARRAY for all of their kinds
    int32_t length;                // elements of an array
};

// What a space holds.
struct QorSpaceCensus {
    uint64_t objects, bytes;
    uint64_t count[OOP_TABLES], typeBytes[OOP_TABLES]; // by VmType
    uint64_t skippedBytes, skippedRuns;                // what couldn't be read as objects
};

// Takes each object in turn. False ends the walk.
using QorObjectVisit = bool (*)(const QorHeapObject &object, void *context);

// Walks heapspace[space]: to its end where the collector keeps free lists, else to its top. `visit` may be
// null. The count of objects, which `census` has too.
int64_t QorScanSpace(int32_t space, QorSpaceCensus *census, QorObjectVisit visit, void *context);

// Notes what of the laid-out spaces can be read, and where the JVM's functions for sizes are. In the process,
// before the copy is made and before any thread is held: it looks at the mappings, which allocates.
void QorPrepareScan();

// In the copy: from now on what was noted is read by plain loads.
void QorScanPlainly();
