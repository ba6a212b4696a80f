// Where a thread's walk begins: its stack pointer, program counter and frame pointer.
//
// A thread outside Java code has left them in its frame anchor. One in Java code has them in its registers
// only, and has to be held for them to be known. Nothing here allocates, logs or calls the JVM. Worker.
#pragma once

#include "code_blobs.h"
#include "qorthreads/qorthreads.h"

#include <cstdint>

enum QorAnchorLook : int32_t {
    ANCHOR_READ,     // sp is 0 when there is none
    ANCHOR_RESTLESS, // the thread comes and goes: it runs, and there is none
    ANCHOR_GONE,     // memory can't be read
};

// Reads the thread's frame anchor.
QorAnchorLook QorReadAnchor(uint64_t thread, QorRegisters *out);

// A copy of compiled code that a thread runs at a safepoint, and the code that it is a copy of.
struct QorCodeCopy {
    uint64_t start, end; // both 0 for none
    uint64_t origin;
};
void QorReadCodeCopy(uint64_t thread, QorCodeCopy *out);

// An address in the copy as that of the code copied; any other address, and one that would leave the code
// cache, as it is.
uint64_t QorTranslatePc(const QorCodeCopy &copy, const QorCodeRanges &code, uint64_t pc);
