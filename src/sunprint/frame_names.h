// The names of a frame: class, method, file and line, from the method that the walk has found.
//
// The thread runs on meanwhile and the method may have moved, so each link is tested before it is followed.
// Worker, never while a thread is held.
#pragma once

#include "frame_info.h"

#include "qorutil/vm_text.h"

struct QorFrameNames {
    char className[VM_SYMBOL_SIZE]; // with dots
    char method[VM_SYMBOL_SIZE];
    char file[VM_SYMBOL_SIZE]; // "" when unknown
    int32_t line;              // 0 when unknown
    bool native, isStatic;
};

enum QorNaming : int32_t {
    FRAME_NAMED,
    FRAME_NAMELESS,   // the method isn't one any more: no frame to show
    FRAME_UNREADABLE, // its memory is gone
};

QorNaming QorNameFrame(const QorFrameInfo &frame, QorFrameNames *out);

// A class name as it is shown: slashes as dots, ";" as a blank.
void strip_slash(char *name);

// The name of an object's class, as shown, into VM_SYMBOL_SIZE bytes; false, with "" there, for what is no
// object.
bool QorClassNameOf(uint64_t object, char *out);
