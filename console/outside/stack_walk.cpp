#include "stack_walk.h"

#include <algorithm>
#include <cstring>
#include <fmt/format.h>

namespace qorctl::outside {

namespace {

constexpr size_t MOST_STACK = 1 << 20, MOST_FRAMES = 40000, MOST_TRIES = 64;
constexpr int64_t MOST_FRAME_WORDS = 1 << 16;
constexpr Address WORD = sizeof(Address);
constexpr Address BELOW_ANCHOR =
    2 * WORD;                         // where the return address and frame pointer of the anchor's frame are
constexpr int64_t ENTRY_WRAPPER = -6; // in words from the frame pointer

// Slots of an interpreter's frame, in bytes below its frame pointer. They are in no table.
constexpr Address SLOT_SENDER = 8, SLOT_METHOD = 24, SLOT_BYTECODE = 64, SLOT_BYTECODE_8 = 56;

constexpr const char *RETURN_BARRIER = "_ZN12StubRoutines19_cont_returnBarrierE",
                     *ENTRY_RETURN = "_ZN17ContinuationEntry10_return_pcE";
constexpr const char *RUNS_VIRTUAL = "jdk.internal.vm.Continuation.run";
constexpr Address ENTRY_WORDS = 4; // the first words of how it was entered, one of which is its continuation
constexpr size_t MOST_CHUNKS = 1000, MOST_CHUNK = 1 << 20;
constexpr const char *CONTINUATION = "java.lang.VirtualThread$VThreadContinuation",
                     *CHUNK = "jdk.internal.vm.StackChunk";
constexpr const char *IN_HEAP = "frames of its virtual thread that are in the heap";
constexpr Address MOST_ARGUMENTS = 256; // words between a frame and the one that called it

Address Relative(Address from, Address words) {
    return from + WORD * words;
}

bool InStack(const StackCopy &stack, Address at) {
    return at >= stack.start && at < stack.top && at % WORD == 0;
}

bool Ends(Walk *walk, std::string reason) {
    walk->reason = std::move(reason);
    return false;
}

} // namespace

StackWalker::StackWalker(Memory &memory, const VmTable &table, const VmSymbols &symbols, VmObjects &objects,
                         CodeCache &code)
    : memory_(memory), table_(table), objects_(objects), code_(code),
      return_barrier_(memory.Word(symbols.Find(RETURN_BARRIER))),
      entry_return_(memory.Word(symbols.Find(ENTRY_RETURN))) {
    const auto offset = [&](const char *symbol) { return memory.At<int>(symbols.Find(symbol)); };
    chunk_.tail = offset("_ZN28jdk_internal_vm_Continuation12_tail_offsetE");
    chunk_.parent = offset("_ZN26jdk_internal_vm_StackChunk14_parent_offsetE");
    chunk_.sp = offset("_ZN26jdk_internal_vm_StackChunk10_sp_offsetE");
    chunk_.pc = offset("_ZN26jdk_internal_vm_StackChunk10_pc_offsetE");
    chunk_.bottom = offset("_ZN26jdk_internal_vm_StackChunk14_bottom_offsetE");
    chunk_.stack = offset("_ZN23InstanceStackChunkKlass16_offset_of_stackE");
}

Address StackWalker::Word(const StackCopy &stack, Address at) {
    Address value = 0;
    if (at < stack.start || at - stack.start + WORD > stack.bytes.size())
        return memory_.FreshWord(at);
    memcpy(&value, &stack.bytes[at - stack.start], WORD);
    return value;
}

bool StackWalker::Copy(const ThreadFacts &thread, Address sp, StackCopy *stack) {
    stack->start = sp & ~(WORD - 1);
    stack->top = thread.stack_base;
    if (sp >= thread.stack_base || thread.stack_base - sp > thread.stack_size)
        return false;
    stack->bytes.resize(std::min<size_t>(stack->top - stack->start, MOST_STACK));
    return memory_.ReadFresh(stack->start, stack->bytes.data(), stack->bytes.size());
}

Walk StackWalker::From(const StackCopy &stack, Registers at, bool running) {
    Walk walk;
    for (size_t steps = 0; Step(stack, &at, running, &walk); ++steps, running = false)
        if (steps == MOST_FRAMES || walk.frames.size() >= MOST_FRAMES) {
            walk.reason = "deeper than this reader goes";
            break;
        }
    return walk;
}

bool StackWalker::Step(const StackCopy &stack, Registers *at, bool running, Walk *walk) {
    if (code_.IsCallReturn(at->pc))
        return StepEntry(stack, at, walk);
    if (return_barrier_ != 0 && at->pc == return_barrier_)
        return StepToCarrier(stack, at, walk);
    return StepFrame(stack, at, running, walk);
}

bool StackWalker::StepFrame(const StackCopy &stack, Registers *at, bool running, Walk *walk) {
    const Address before = at->sp;
    const std::optional<CodeBlob> blob = code_.Find(at->pc);
    if (!blob)
        return Ends(walk, "its code isn't Java's");
    const bool left = blob->interpreter ? StepInterpreter(stack, at, running, walk)
                                        : StepCode(stack, *blob, at, running, walk);
    return left && (at->sp > before || Ends(walk, "a frame leads back"));
}

// A call from native code keeps the anchor of the frames before it; the thread's first has none.
bool StackWalker::StepEntry(const StackCopy &stack, Registers *at, Walk *walk) {
    const int64_t slot = table_.Has({Vm::CALL_WRAPPER}) ? table_.Get(Vm::CALL_WRAPPER) : ENTRY_WRAPPER;
    const Address wrapper =
        InStack(stack, at->fp) ? Word(stack, at->fp + WORD * static_cast<Address>(slot)) : 0;
    if (!InStack(stack, wrapper) ||
        !table_.Has({Vm::WRAPPER_ANCHOR, Vm::ANCHOR_SP, Vm::ANCHOR_PC, Vm::ANCHOR_FP}))
        return Ends(walk, "an entry from native code is broken");
    const Address anchor = table_.In(wrapper, Vm::WRAPPER_ANCHOR);
    const Address sp = Word(stack, table_.In(anchor, Vm::ANCHOR_SP));
    walk->whole = sp == 0;
    if (sp == 0)
        return false;
    if (!InStack(stack, sp) || sp <= at->sp)
        return Ends(walk, "an entry from native code is broken");
    const Address pc = Word(stack, table_.In(anchor, Vm::ANCHOR_PC));
    *at = {pc != 0 ? pc : Word(stack, sp - WORD), sp, Word(stack, table_.In(anchor, Vm::ANCHOR_FP)), 0};
    return true;
}

bool StackWalker::StepInterpreter(const StackCopy &stack, Registers *at, bool running, Walk *walk) {
    if (!InStack(stack, at->fp))
        return Ends(walk, "an interpreted frame is broken");
    const Address slot = objects_.Jdk() == 8 ? SLOT_BYTECODE_8 : SLOT_BYTECODE;
    const Address method = Word(stack, at->fp - SLOT_METHOD);
    int bci = running && at->bytecode != 0 ? objects_.BytecodeIndex(method, at->bytecode) : -1;
    if (bci < 0)
        bci = objects_.BytecodeIndex(method, Word(stack, at->fp - slot));
    Frame frame;
    if (!objects_.Describe(method, bci, &frame))
        return Ends(walk, "an interpreted frame has no method");
    walk->frames.push_back(std::move(frame));
    Address sender = Word(stack, at->fp - SLOT_SENDER), link = Word(stack, at->fp);
    if (stack.in_heap) {
        sender = Relative(at->fp, sender);
        link = Relative(at->fp, link);
    }
    if (!InStack(stack, sender))
        return Ends(walk, "an interpreted frame is broken");
    *at = {Word(stack, at->fp + WORD), sender, link, 0};
    return true;
}

bool StackWalker::StepCode(const StackCopy &stack, const CodeBlob &blob, Registers *at, bool running,
                           Walk *walk) {
    if (blob.compiled)
        code_.AppendFrames(blob, at->pc, &walk->frames);
    if (blob.frame_words <= 0 || blob.frame_words > MOST_FRAME_WORDS)
        return Ends(walk, "in the JVM's code " + blob.name);
    if (running && blob.compiled && StepHalfFrame(stack, blob, at))
        return true;
    const Address sender = at->sp + WORD * static_cast<Address>(blob.frame_words);
    if (!InStack(stack, sender - WORD))
        return Ends(walk, "a frame leads out of the stack");
    const Address link = Word(stack, sender - 2 * WORD);
    *at = {Word(stack, sender - WORD), sender, stack.in_heap ? Relative(sender - 2 * WORD, link) : link, 0};
    return true;
}

// The frames in one chunk. False when they can't be walked to its end.
bool StackWalker::AppendChunk(Address chunk, Walk *walk) {
    const auto number = [&](int field) {
        return Address(memory_.FreshAt<uint32_t>(chunk + static_cast<Address>(field)));
    };
    StackCopy stack;
    stack.in_heap = true;
    const Address bottom = number(chunk_.bottom), sp = number(chunk_.sp);
    if (sp >= bottom || bottom > MOST_CHUNK / WORD)
        return sp == bottom;
    const Address low = chunk + static_cast<Address>(chunk_.stack);
    const Address end = Relative(low, bottom);
    // Below its frames is the link of the last; the first one's caller is at their end.
    stack.start = Relative(low, sp) - BELOW_ANCHOR;
    stack.top = end + WORD;
    stack.bytes.resize(end - stack.start);
    if (!memory_.ReadFresh(stack.start, stack.bytes.data(), stack.bytes.size()))
        return false;
    Registers at{memory_.FreshWord(chunk + static_cast<Address>(chunk_.pc)), stack.start + BELOW_ANCHOR,
                 Relative(stack.start, Word(stack, stack.start)), 0};
    while (at.sp < end && walk->frames.size() < MOST_FRAMES)
        if (!StepFrame(stack, &at, false, walk))
            return false;
    return at.sp >= end;
}

// What a virtual thread has left in the heap. A collection may move it meanwhile: then there is nothing.
bool StackWalker::AppendHeapFrames(Address entry, Walk *walk) {
    if (chunk_.tail == 0 || chunk_.parent == 0 || chunk_.sp == 0 || chunk_.pc == 0 || chunk_.bottom == 0 ||
        chunk_.stack == 0)
        return false;
    const auto first = [&] {
        for (Address at = entry; at < entry + ENTRY_WORDS * WORD; at += WORD)
            if (const Address object = memory_.FreshWord(at); objects_.ClassName(object) == CONTINUATION)
                return objects_.Reference(object + static_cast<Address>(chunk_.tail));
        return Address(0);
    };
    const Address tail = first();
    Walk found;
    Address chunk = tail;
    for (size_t n = 0; n < MOST_CHUNKS && chunk != 0; ++n) {
        if (objects_.ClassName(chunk) != CHUNK || !AppendChunk(chunk, &found))
            return false;
        chunk = objects_.Reference(chunk + static_cast<Address>(chunk_.parent));
    }
    if (first() != tail || found.frames.empty() || chunk != 0)
        return false;
    walk->frames.insert(walk->frames.end(), found.frames.begin(), found.frames.end());
    return true;
}

// A virtual thread that goes on has only its last frames copied back to the stack; the rest follows from the
// heap when they return. What called the copied ones is left: the frame that entered the virtual thread,
// which has arguments and padding at most between it and them, and Continuation.run, by which it is known.
bool StackWalker::StepToCarrier(const StackCopy &stack, Registers *at, Walk *walk) {
    for (Address gap = 0; entry_return_ != 0 && gap < MOST_ARGUMENTS; ++gap) {
        Registers next{entry_return_, at->sp + gap * WORD, 0, 0};
        Walk entry;
        if (!StepFrame(stack, &next, false, &entry) || !StepFrame(stack, &next, false, &entry) ||
            entry.frames.size() < 2 || entry.frames[1].method != RUNS_VIRTUAL)
            continue;
        if (!AppendHeapFrames(at->sp + gap * WORD, walk))
            walk->reason = IN_HEAP;
        walk->frames.insert(walk->frames.end(), entry.frames.begin(), entry.frames.end());
        *at = next;
        return true;
    }
    return Ends(walk, IN_HEAP);
}

// At a method's start and end its frame isn't there, or not all of it: the return address is then the first
// word of the stack or, under the saved frame pointer, the second.
bool StackWalker::StepHalfFrame(const StackCopy &stack, const CodeBlob &blob, Registers *at) {
    const Address sender = at->sp + WORD * static_cast<Address>(blob.frame_words);
    const bool starts =
        blob.frame_complete > 0 && static_cast<int64_t>(at->pc - blob.code) < blob.frame_complete;
    const Address first = Word(stack, at->sp), second = Word(stack, at->sp + WORD);
    if (!starts && InStack(stack, sender - WORD) && LeadsToCode(Word(stack, sender - WORD)))
        return false;
    if (LeadsToCode(first))
        *at = {first, at->sp + WORD, at->fp, 0};
    else if (LeadsToCode(second))
        *at = {second, at->sp + 2 * WORD, first, 0};
    else
        return false;
    return true;
}

bool StackWalker::LeadsToCode(Address value) {
    return code_.IsCallReturn(value) || code_.Find(value).has_value();
}

Walk StackWalker::FromAnchor(const ThreadFacts &thread) {
    StackCopy stack;
    Walk walk;
    if (thread.anchor_sp < BELOW_ANCHOR || !Copy(thread, thread.anchor_sp - BELOW_ANCHOR, &stack)) {
        walk.reason = "its stack can't be read";
        return walk;
    }
    const Address pc = thread.anchor_pc != 0 ? thread.anchor_pc : Word(stack, thread.anchor_sp - WORD);
    return From(stack, {pc, thread.anchor_sp, thread.anchor_fp, 0}, false);
}

Walk StackWalker::Scan(const StackCopy &stack) {
    size_t tries = 0;
    for (size_t at = WORD; at + WORD <= stack.bytes.size() && tries < MOST_TRIES; at += WORD) {
        const Address place = stack.start + at, value = Word(stack, place);
        if (!code_.Find(value))
            continue;
        ++tries;
        Walk walk = From(stack, {value, place + WORD, Word(stack, place - WORD), 0}, false);
        if (walk.whole && !walk.frames.empty())
            return walk;
    }
    Walk none;
    none.reason = "no Java frames are found in its stack";
    return none;
}

} // namespace qorctl::outside
