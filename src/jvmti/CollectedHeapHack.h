// An object in the shape of the JVM's heap object, in which every method only puts the true one back.
//
// The JVM reaches methods by their slot in the table that the object's first word leads to, so the names are
// for people: they are those of the JVM's class, in its order.
#pragma once

#include <cstdint>

enum : int32_t { COLLECTED_HEAP_METHODS = 56 };

struct CollectedHeapMethod {
    const char *name;
    int32_t check; // number of its line when it is called, 0 for a method whose call is expected
};

extern const CollectedHeapMethod collectedHeapMethods[COLLECTED_HEAP_METHODS];

struct CollectedHeap {
    void *(*const *methods)(CollectedHeap *heap, void *argument); // by slot; each returns null
};

// The one such object of the process.
CollectedHeap *getCollectedHeapHackObject();
