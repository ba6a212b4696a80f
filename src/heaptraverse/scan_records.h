// Lines of a dump for the objects of a space: what each is, how large, and what it refers to.
//
//     E81a40|24|5f0            a space's letter, a type's, address, size, its class's name
//     O[10|2c00|104|6a8        an array: its length in front
//     P15f0|32|shop/Basket     a name
//     I1a50|2c00               below an object: a field and what it refers to; L below a klass; R an element
//
// Addresses are relative to the heap. In the copy of the process that writes the dump.
#pragma once

#include "heap_scan.h"

#include "platforms/dump_file.h"

enum : int32_t {
    SCAN_COUNTS = 1, // always
    SCAN_RECORDS = 2,
    SCAN_REFERENCES = 4,
};

// Walks heapspace[space] and writes its objects' lines to `dump`, which may be null. The count of objects;
// `census` has the rest.
int64_t qormemdet(int32_t space, QorDumpFile *dump, int32_t flags, QorSpaceCensus *census);
