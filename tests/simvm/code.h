// Java code of the simulated VM: machine code emitted for each frame of a script, in a code cache with blobs,
// scopes and oop maps as the VM keeps them. A frame that is laid out otherwise than its description says
// can't return.
#pragma once

#include "simvm.h"

namespace simvm {

// Where compiled code keeps a variable; the interpreter has all on the stack.
enum class Kept { STACK, REGISTER, NOWHERE, CONSTANT };
// An argument or a local; the receiver isn't among them.
struct Variable {
    std::string signature;
    Value value;
    Kept kept = Kept::STACK;
};

// One Java frame as a reader is to see it: the truth that replies are compared with.
struct Scope {
    MethodInfo *method;
    int32_t bci = 0;
    Object *receiver = nullptr;           // null: none
    std::vector<Object *> monitors = {};  // held; of a blocked top frame the last is waited for
    std::vector<Variable> variables = {}; // arguments as the method's signature has them, then locals
};

enum class FrameKind {
    INTERPRETED,
    COMPILED,
    OSR,    // compiled, entered in mid-loop from the interpreter
    NATIVE, // an interpreted native method; the only kind that can enter Java again
};
struct Frame {
    FrameKind kind;
    std::vector<Scope> scopes; // outermost first; one but in compiled frames
};

enum class Rest { PIPE, SLEEP, WAIT, MONITOR, SPIN, CALLS, CALL };
// By Rest: its name in a scene, what is shown, the VM's state.
struct RestRow {
    const char *word, *shown;
    OsState state;
};
constexpr RestRow RESTS[] = {
    {"PIPE", "IO Wait", OS_RUNNABLE},
    {"SLEEP", "Sleeping", OS_SLEEPING},
    {"WAIT", "Object Wait", OS_OBJECT_WAIT},
    {"MONITOR", "Lock", OS_MONITOR_WAIT},
    {"SPIN", "Runnable", OS_RUNNABLE},
    {"CALLS", "Runnable", OS_RUNNABLE},
    {"CALL", "", OS_RUNNABLE},
};
inline bool Loops(Rest rest) {
    return rest == Rest::SPIN || rest == Rest::CALLS;
}
inline bool IsCompiled(FrameKind kind) {
    return kind == FrameKind::COMPILED || kind == FrameKind::OSR;
}

// What a thread does: frames outermost first, each calling the next, the last one resting. Frames after a
// native one are reached through a second call from the VM into Java.
struct Script {
    std::vector<Frame> frames;
    Rest rest = Rest::SLEEP;
    std::string state = {};                        // to be shown
    std::map<std::string, std::string> facts = {}; // what else is to be shown of it
    Word entry = 0;                                // once emitted
};

// Emits the script's code. The script isn't changed afterwards.
void EmitScript(Script *script);
// The frames that a walk from the resting place finds, innermost first.
std::vector<Scope> ShadowStack(const Script &script);
int32_t LineOf(const Scope &scope); // -1: none

// Called by emitted code with the thread's JavaThread: a rest, a second call into Java, a stop at a
// safepoint.
extern "C" void SimvmRest(Word thread);
extern "C" void SimvmEnter(Word thread, Word entry);
extern "C" void SimvmSafepoint(Word thread);

// What emitted code reads and writes of its thread, in r14.
struct Control {
    int32_t leave = 0, unused = 0; // the rest ends
    int64_t laps = 0;              // of its loop
};
extern int32_t safepointAsked;

// The code blob around an address, for tests that spoil it: 0 if there is none.
Word BlobOf(Word pc);

// ---- emitting: code.cpp, locals.cpp

// Machine code, by bytes in hexadecimal: q stands for the next value as a word, d for its lower half. r15:
// JavaThread, r14: Control.
struct Assembler {
    std::string code;

    template <class... T>
    void Emit(const char *text, T... values) {
        EmitWords(text, {Word(values)...});
    }
    void EmitWords(const char *text, const std::vector<Word> &values);
};

constexpr char CALL[] = "48b8 q ffd0", LOAD[] = "48b8 q", // rax
    LOAD_FROM[] = "48b8 q 488b00",                        // rax: the word in that cell when it runs
    SUB_RSP[] = "4881ec d", ADD_RSP[] = "4881c4 d",       // bytes
    STORE_RAX[] = "48898424 d", STORE_RBP[] = "4889ac24 d", LOAD_RBP[] = "488bac24 d"; // [rsp + d]

using Body = std::function<void(Assembler *)>;

extern std::mt19937_64 randomWords;
extern Word callStub, cacheLow, cacheNext; // the code cache, as far as it is used

struct BlobParts {
    VtableKind kind;
    std::string code;
    int32_t words = 0, link = NO_OFFSET; // of the frame
    std::vector<Word> oops = {};
    std::string scopes = {}; // begins with something else, so that no scope is at 0
    int32_t scope = 0;       // the innermost
    Word oopMaps = 0;
};
Word NewBlob(const BlobParts &parts);
Word EntryOf(Word blob);

int CompiledSlots(const Scope &scope); // words of the frame that it needs
void FillSlots(Assembler *a, const Scope &scope, int *slot);
void WriteScopes(BlobParts *parts, const std::vector<Scope> &scopes);
int InterpreterLocals(const Scope &scope);
void FillLocals(Assembler *a, const Scope &scope); // at r13 and below
void NoteLocals(const Scope &scope, FrameKind kind);

} // namespace simvm
