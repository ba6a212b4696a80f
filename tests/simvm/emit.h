// What the emitters of code share: blobs, the interpreter's room, calls out of Java.
#pragma once

#include "assembler.h"
#include "code.h"

#include <functional>
#include <random>

namespace simvm {

using Body = std::function<void(Assembler *)>;

extern std::mt19937_64 randomWords;
extern Word callStub, safepointStub;

struct BlobParts {
    VtableKind kind;
    std::string code;
    int32_t words = 0, link = NO_OFFSET; // of the frame
    std::vector<Word> oops = {};
    std::string scopes = {}; // begins with something else, so that no scope is at 0
    int32_t scope = 0;       // the innermost
    Word oopMaps = 0;
};

// code_cache.cpp
Word NewBlob(const BlobParts &parts);
Word EntryOf(Word blob);
// A blob of code in which a place of the code itself was left open.
Word FinishBlob(BlobParts *parts, Assembler *a);
Word PlaceInterpreted(Assembler *a);

// code.cpp
void CallOut(Assembler *a, void (*function)(), Word argument, ThreadState state);
void Enter(Assembler *a, int words, int link);
void Return(Assembler *a, int words, int link);

// stubs.cpp
Word EmitI2C(Word target);
Word EmitC2I(Word target);
Word EmitOsrAdapter(Word target);
Word EmitStub(VtableKind kind, int words, const Body &body);
Word EmitBareStub(Word target); // leaves the frame pointer alone
Word EmitRuntimeStub(void (*function)(), Word argument);
void EmitCallStub();

// locals.cpp
int CompiledSlots(const Scope &scope); // words of the frame that it needs
void FillSlots(Assembler *a, const Scope &scope, int *slot);
void WriteScopes(BlobParts *parts, const std::vector<Scope> &scopes);
int InterpreterLocals(const Scope &scope);
void FillLocals(Assembler *a, const Scope &scope); // at r13 and below
void NoteLocals(const Scope &scope, FrameKind kind);

} // namespace simvm
