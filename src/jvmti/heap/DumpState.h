// What the parts of a running dump share. One dump runs at a time; only its thread, and the callbacks in its
// walk, touch these.
#pragma once

#include "platforms/dump_file.h"

#include <cstdint>
#include <jvmti.h>

enum : int32_t { DUMP_SIGNATURE_SIZE = 256 };
enum : uint32_t { CLASS_NOT_VISITED = 0xFFFFFFFF };

struct QorTagClassEntry {
    int64_t tag; // 0: the class is left untagged
    char signature[DUMP_SIGNATURE_SIZE];
    jclass klass;     // local reference of the dump's frame
    uint32_t visited; // CLASS_NOT_VISITED, or the entry's index
};

extern QorDumpFile fp;                // the dump's file
extern jvmtiEnv *gbDumpEnv;           // the dump's environment, owner of the tags
extern int32_t igbCurrentRun;         // parity of the run, flipped by each dump; the first runs with 0
extern int64_t iHeapObjectStartNum;   // the next object's number
extern QorTagClassEntry *objTagClass; // the loaded classes, null between dumps
extern int64_t igbTagClassCount;      // its entries
extern int32_t igbfpSet;              // 1 while an array header waits for its count
extern int64_t gbiFpPos;              // where that count is in the file
extern int32_t igbArrayElementlength; // elements counted for it
extern int64_t iQorStrArrSize;        // of no effect

// What a dump does before and after its walk, wherever the walk runs.

// Opens `path` as the dump's file with its header, and prepares what the walk looks up: class numbers, names
// of methods. Needs gbDumpEnv and an open local frame, which is to hold all classes. 0, or -1 (logged) with
// nothing left to end.
int32_t QorBeginDump(const char *path);

// Writes the last line, with the seconds since the dump began.
void QorWriteDumpTrailer();

// Gives back what the walk looked up; the file is the caller's to close.
void QorEndDump();
