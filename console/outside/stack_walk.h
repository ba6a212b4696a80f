// Java frames of a thread: from its anchor, from registers of one moment, or from the words of its stack.
//
// A frame is left by what made it: the interpreter's by slots around the frame pointer, generated code by the
// size of its frame, an entry from native code by the anchor that it keeps. Each step must lead up the stack,
// so a walk ends whatever the memory holds; why it ended is part of the result.
#pragma once

#include "code_cache.h"
#include "vm_threads.h"

namespace qorctl::outside {

struct Registers {
    Address pc = 0, sp = 0, fp = 0;
    Address bytecode = 0; // what the interpreter keeps its place in; 0 when not known
};

// A part of a thread's stack, copied at once; words outside of it are read from the process.
struct StackCopy {
    Address start = 0, top = 0; // the copy's first byte, the end of the thread's stack
    std::vector<char> bytes;
    bool in_heap = false; // of a virtual thread: what leads from a frame to the next counts words from there
};

struct Walk {
    std::vector<Frame> frames; // innermost first
    bool whole = false;        // up to the thread's first frame
    std::string reason;        // why it isn't, or what is left out of a whole one
};

class StackWalker {
public:
    StackWalker(Memory &memory, const VmTable &table, const VmSymbols &symbols, VmObjects &objects,
                CodeCache &code);

    // Copies a thread's stack from `sp` on. False when that isn't in its stack or can't be read.
    bool Copy(const ThreadFacts &thread, Address sp, StackCopy *stack);

    // The frames from registers on. `running` says that they are those of a moment in the code itself, where
    // a frame may be half made.
    Walk From(const StackCopy &stack, Registers registers, bool running);

    // The frames of a thread that left Java: from where its anchor says.
    Walk FromAnchor(const ThreadFacts &thread);

    // The frames above native code whose own frames can't be walked: from the first word of the copy that a
    // whole walk begins at.
    Walk Scan(const StackCopy &stack);

private:
    Address Word(const StackCopy &stack, Address at);
    bool Step(const StackCopy &stack, Registers *at, bool running, Walk *walk);
    bool StepFrame(const StackCopy &stack, Registers *at, bool running, Walk *walk);
    bool StepEntry(const StackCopy &stack, Registers *at, Walk *walk);
    bool StepInterpreter(const StackCopy &stack, Registers *at, bool running, Walk *walk);
    bool StepCode(const StackCopy &stack, const CodeBlob &blob, Registers *at, bool running, Walk *walk);
    bool AppendChunk(Address chunk, Walk *walk);
    bool AppendHeapFrames(Address entry, Walk *walk);
    bool StepToCarrier(const StackCopy &stack, Registers *at, Walk *walk);
    bool StepHalfFrame(const StackCopy &stack, const CodeBlob &blob, Registers *at);
    bool LeadsToCode(Address value);

    Memory &memory_;
    const VmTable &table_;
    VmObjects &objects_;
    CodeCache &code_;
    Address return_barrier_ = 0, entry_return_ = 0; // of virtual threads; 0 when not known
    struct ChunkFields {
        int tail = 0, parent = 0, sp = 0, pc = 0, bottom = 0, stack = 0; // 0 when not known
    } chunk_;
};

} // namespace qorctl::outside
