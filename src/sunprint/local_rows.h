// The rows of a frame's local variables: those of its arguments first, then the others, each kind under its
// title.
//
// A row of an object leads on: its first two fields, sent back, open what it shows. Worker.
#pragma once

#include "signature.h"

#include <cstdint>

enum QorLocalKind : int32_t { LOCAL_UNKNOWN, LOCAL_OBJECT, LOCAL_NUMBER };

// A local variable: an object that passed valid_oop, or a value.
struct QorLocal {
    QorLocalKind kind;
    uint64_t bits;
};

struct QorLocalRows {
    QorText *reply;
    const char *title; // of the rows so far, null for none
    bool any;          // something has been written
};

// Adds a row; `argument` is null for a variable that isn't one. A row that doesn't fit is left out, and so
// are all after it; false then.
bool QorAppendLocal(QorLocalRows *rows, const QorLocal &local, const QorArgument *argument);

// Closes the last list.
void QorEndLocals(QorLocalRows *rows);
