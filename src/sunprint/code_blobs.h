// The JVM's code: where it lies, and which piece of it holds an address.
//
// Nothing here allocates, logs or calls the JVM, but for QorAskAllCode: a thread may be held. Worker.
#pragma once

#include <cstdint>

struct QorCodeRanges {
    uint64_t callStubReturn; // where Java code called by the JVM returns to
    uint64_t interpreterStart, interpreterEnd;
    uint64_t clientEntry; // a return address that is stepped over like the interpreter's; 0 on a server VM
    uint64_t low, high;   // the code cache
    uint64_t segmentMap;
    uint32_t segmentLog2;
};

struct QorBlob {
    uint64_t address; // 0: no code of Java's
    uint32_t traits;  // BlobTrait
    uint64_t frameBytes;
    int32_t link;        // words from sp to the saved fp; below 0 for none
    bool linkFromMap;    // by the stack map, not by the blob's own word
    int32_t mapRegister; // the last one that the map names, -1 for none; NO_STACK_MAP without a map
};

enum : int32_t { NO_STACK_MAP = -2 };

enum QorBlobLook : int32_t { BLOB_FOUND, BLOB_NONE, BLOB_TO_ASK, BLOB_OF_NO_KIND, BLOB_LINK_LOST };

// Reads the ranges. False when the code cache can't be read; then no address is in it.
bool QorReadCodeRanges(QorCodeRanges *out);

bool QorInInterpreter(const QorCodeRanges &code, uint64_t pc);
bool QorInCodeCache(const QorCodeRanges &code, uint64_t address);

// The blob that holds an address, 0 for none. A freed segment, a torn map and an address outside are none.
uint64_t cb(const QorCodeRanges &code, uint64_t pc);

// The same with what a step over it needs. BLOB_TO_ASK: nothing is known of its kind yet; its address is in
// `out`. BLOB_LINK_LOST: the stack map doesn't name the place of the saved fp.
QorBlobLook QorLookAtCode(const QorCodeRanges &code, uint64_t pc, QorBlob *out);

// Asks about every kind of code in the cache that nothing is known of yet. Never while a thread is held; see
// QorAskBlob.
void QorAskAllCode(const QorCodeRanges &code);
