// The names of a frame: class, method, file and line, from the method that the walk has found.
//
// The thread runs on meanwhile and the method may have moved, so each link is tested before it is followed.
// Worker, never while a thread is held.
#pragma once

#include "frame_info.h"

#include "qorutil/vm_text.h"

// A method as it is now; its parts passed the tests of what they have to be.
struct QorVmMethod {
    uint64_t constMethod, pool, holder; // holder: the klass that declares it
    uint64_t code;                      // address of its bytecodes
    int32_t codeSize;
    int32_t locals, parameters; // slots; assumed places, only the number of rows depends on them
    bool native, isStatic;
};

struct QorFrameNames {
    char className[VM_SYMBOL_SIZE]; // with dots
    char method[VM_SYMBOL_SIZE];
    char file[VM_SYMBOL_SIZE]; // "" when unknown
    int32_t line;              // 0 when unknown
    bool native;
};

enum QorNaming : int32_t {
    FRAME_NAMED,
    FRAME_NAMELESS,   // the method isn't one any more: no frame to show
    FRAME_UNREADABLE, // its memory is gone
};

QorNaming QorReadMethod(uint64_t method, QorVmMethod *out);

// Names of a method that was read, each of VM_SYMBOL_SIZE bytes, as they are in the JVM. False when there is
// none.
bool QorHolderName(const QorVmMethod &method, char *out);
bool QorMethodName(const QorVmMethod &method, char *out);
bool QorMethodSignature(const QorVmMethod &method, char *out);

QorNaming QorNameFrame(const QorFrameInfo &frame, QorFrameNames *out);

// A class name as it is shown: slashes as dots, ";" as a blank.
void strip_slash(char *name);

// The name of an object's class, as shown, into VM_SYMBOL_SIZE bytes; false, with "" there, for what isn't a
// object.
bool QorClassNameOf(uint64_t object, char *out);
