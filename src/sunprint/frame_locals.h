// Where a frame has its local variables: they are read one by one, in the order of their slots.
//
// Worker.
#pragma once

#include "frame_names.h"
#include "local_rows.h"
#include "locals.h"
#include "scopes.h"

// The word at an address of the frame's stack. False when it can't be read, or isn't kept where it has to be.
bool QorStackWord(const QorFramePlace &frame, uint64_t address, uint64_t *out);

// A frame that was found again.
struct QorFrameLocals {
    const QorFramePlace *frame;
    QorVmMethod method;
    uint64_t receiver; // untested; 0 for none
    int32_t count;     // slots
    int32_t slot;      // the next
    // Of a compiled frame.
    QorScopes scopes;
    int32_t at; // position of the next value
    uint64_t stackEnd;
    // Of an interpreted one.
    uint64_t locals;  // address of slot 0
    uint32_t objects; // a bit for each of the first slots that hold one
};

enum QorFrameFound : int32_t { FRAME_FOUND, FRAME_GONE, FRAME_WITHOUT_LOCALS };

// Finds the frame, its method read. `slot` is that of the first argument.
QorFrameFound QorFindCompiledFrame(QorFrameLocals *out);
QorFrameFound QorFindInterpretedFrame(QorFrameLocals *out);

// Reads the next local; one of two slots (`wide`) is a number. False after the last.
bool QorNextLocal(QorFrameLocals *frame, bool wide, QorLocal *out);
