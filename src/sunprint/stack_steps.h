// The walk of one stack, frame by frame, from the registers where it begins.
//
// Interpreted frames are linked by fp, compiled ones have a size; between them are adapters and the JVM's
// stubs, and where the JVM called into Java the anchor of the frame before the call. The stack may
// change meanwhile, so that anything may come from it: each step must lead upwards, and their number has a
// bound.
//
// Nothing here allocates, logs or calls the JVM: the thread may be held. Worker.
#pragma once

#include "scopes.h"
#include "stack_registers.h"

#include <cstdint>

enum QorWalkEnd : int32_t {
    WALK_GOES_ON = -1,
    WALK_DONE = 0,
    WALK_NOTHING = 1,  // there is nothing to show: a link of the chain is missing
    WALK_UNDOABLE = 2, // a frame without what it needs
    WALK_FAULT,        // memory of the stack couldn't be read
    WALK_TO_ASK,       // code of an unknown kind; ask for `blob` and walk again
    WALK_TOO_DEEP,     // too many frames without a record in between
};

struct QorStackWalk {
    // In.
    QorRegisters at; // the present frame
    QorCodeRanges code;
    QorCodeCopy copy;
    bool held;     // the thread doesn't run: an address outside Java's code may be stepped over
    bool monitors; // wanted
    // Out.
    int32_t records; // of frame_info
    uint64_t blob;   // with WALK_TO_ASK
    bool linkLost;   // ended with WALK_NOTHING for want of a saved fp's place
    // The walk's own.
    QorBlob present; // what holds `at.pc`
    QorScopes scopes;
    int32_t visited, hops;
    bool stepped;
};

// Fills frame_info. The fields above "Out" are the caller's; the others are cleared here.
QorWalkEnd QorWalkStack(QorStackWalk *walk);
