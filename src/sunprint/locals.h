// The local variables of one frame, as records of the console or as roots of a dump.
//
// A frame is shown some time after it was listed, so it is looked for first: its stack may be another's by
// then. Which locals of an interpreted frame are objects is known from the JVM's own cache of maps; those of
// a compiled frame are where the compiler has noted them. Worker.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

struct QorDumpFile;

// A frame, as its row has it: kind is a QorWalkedKind.
struct QorFramePlace {
    int32_t kind;
    uint64_t fp, pc, sp, method;
    bool keptOnly = false; // its thread runs on: of the stack only what its walk has read may be used
};

// Appends the frame's records to `reply`: its call, the object or class that it runs in, its arguments and
// its other locals; one sentence for a frame that isn't there any more. Or, where `reply` is null, writes
// each object that the frame holds to `dump` as a root. Nothing for a frame of no known kind.
void PrintLocals(const QorFramePlace &frame, QorText *reply, QorDumpFile *dump);

// Answers a request for a frame's locals: kind, fp, pc, sp and method as a stack row has them, each null or a
// text. Without the last there is no method to be found.
void QorAnswerLocals(char *const *args, QorText *reply);

// The object of a class (name with dots) among the "Method Locals" of records written by PrintLocals; 0, with
// a line in the log, for none.
uint64_t parseMethodLocals(const char *text, const char *className);
