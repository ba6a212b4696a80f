// The spaces of the JVM's heap, and whether an address may be an object's.
//
// The JVM isn't stopped: objects move and spaces change while they are read. The tests below say what could
// be an object by the spaces as they were noted last, and by the klass that memory shows now; they are cheap
// enough to be asked before every use of an address, and none of them is a promise.
//
// Worker, or the initialisation thread. Nothing here allocates or logs.
#pragma once

#include <cstdint>

enum : int32_t { NUM_HEAP_SPACES = 4 };

// Letters of the spaces.
enum : char { SPACE_PERM = 'P', SPACE_CMS = 'C', SPACE_OLD = 'O', SPACE_EDEN = 'E', SPACE_FROM = 'F' };

struct HeapSpace {
    uint64_t space;            // the VM's record of it
    uint64_t bottom, top, end; // as noted last; a bottom of 0: not known
    uint64_t max;              // planned bytes by the JVM's flags, 0 for none
    const char *name;
    char letter;
};

extern HeapSpace heapspace[NUM_HEAP_SPACES]; // by rising bottom

// The JVM's flags, read at start; neither set is the generational heap.
extern int32_t cargs_parallel_gc; // UseParallelGC
extern int32_t conc_mark_sweep;   // UseConcMarkSweepGC

// Set by a sample: the from space is looked up anew whenever the spaces are noted, as it changes place with
// every scavenge. Cleared by QorLayOutSpaces.
extern int32_t refresh_heap;

// Reads the two flags.
void QorReadCollector();

// Finds the four spaces of the running collector and notes them. 0; or -1 when one can't be found: then no
// address counts as in the heap.
int32_t QorLayOutSpaces();

// Whether the space's collector keeps free lists in it: what is used ends nowhere then, its top means
// nothing.
bool QorHasFreeLists(const HeapSpace &space);

// Where what may be an object ends, read afresh: the space's end if it has free lists, else its top. 0 when
// it can't be read.
uint64_t QorSpaceLimit(const HeapSpace &space);

// The VM's records of the two generations, 0 for one that can't be found.
uint64_t QorYoungGeneration();
uint64_t QorOldGeneration();

// Notes bottom, top and end of every space. Call it where QorForgetPages is called; the answers below are by
// what was noted then.
void QorNoteSpaces();

// 1 when `address` lies inside a space, 4 bytes or more below its top; below its end in a space of free
// lists. Else 0.
int32_t is_in_heap(uint64_t address);

// 1 when an object can begin at `address`: aligned, in the heap, and with the klass of a known kind. Else 0.
int32_t valid_oop(uint64_t address);

// 1 when `klass` can be a klass: what valid_oop asks of an object's klass, but aligned to 4 bytes only.
int32_t valid_klass(uint64_t klass);

// 1 when `value` ends a scope chain: at or above `limit`, or -1 where `limit` is 0. Else 0.
int32_t is_top(int64_t value, int64_t limit);

// 1 when `address` lies in the perm space, where klasses, methods and symbols are, and is aligned. Else 0.
int32_t QorIsInPerm(uint64_t address);

// A number that changes when a collection begins, 0 when it can't be read; and whether a collection runs now,
// 1 when that can't be read. Both are read afresh. Compare the number before and after a thread has been
// read; objects may have moved in between.
uint32_t QorCollectionCount();
int32_t QorIsCollecting();
