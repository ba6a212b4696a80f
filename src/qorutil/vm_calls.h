// The one place that calls functions of the JVM: the tests by which a code blob says what it is, and the
// sizes of objects that only the JVM can measure.
//
// A blob may have been freed, and its first word be anything. So a call is made only through a virtual table
// that libjvm has a symbol for, at an entry within that table and within libjvm's code, and on a copy of the
// blob. What a table's blobs are doesn't change: each table is asked once and its answers are kept.
#pragma once

#include "vm_klass.h"

#include <cstdint>

// What a blob is, by the JVM's answers.
enum BlobTrait : uint32_t {
    BLOB_NMETHOD = 1,
    BLOB_RUNTIME_STUB = 2,
    BLOB_I2C_ADAPTER = 4,
    BLOB_C2I_ADAPTER = 8,
    BLOB_OSR_ADAPTER = 16,
};

enum BlobAnswer : int32_t {
    BLOB_ANSWERED,
    BLOB_NOT_ASKED, // QorAskBlob may be called, once no thread is held
    BLOB_STRANGE,   // no such table, or one that can't be asked
};

// Finds the virtual tables of blobs in libjvm's symbols. How many there are; 0 when its file can't be read,
// then every blob is strange. Initialisation thread.
int32_t QorFindBlobTables();

// The kept answers of the blob's table. Calls nothing. Worker.
BlobAnswer QorBlobTraits(uint64_t blob, uint32_t *traits);

// Asks the blob's table, if it hasn't been. Worker, never while a thread is held: the JVM's function may take
// any lock, and looking at the mappings allocates.
void QorAskBlob(uint64_t blob);

// Notes the JVM's function for the size of an object, of each kind. A kind whose function isn't in the JVM's
// code has none. Initialisation thread, when heap_initialize has filled the tables.
void QorFindSizeFunctions();

// Bytes of an object of kind `type` by that function, 0 when there is none. It takes the object's word for
// everything: an object that isn't whole may end the process by a fault, so this is for a copy of the
// process.
int64_t QorAskObjectSize(VmType type, uint64_t klass, uint64_t object);
