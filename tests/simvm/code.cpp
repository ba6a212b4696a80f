// The code cache: a heap of segments with blobs, and the interpreter's room in it.
#include "code.h"

#include <sys/mman.h>

namespace simvm {

int32_t safepointAsked;
std::mt19937_64 randomWords(20260101);
Word callStub, safepointStub;

namespace {

constexpr size_t CODE_BYTES = 16 << 20, INTERPRETER_BYTES = 1 << 20;
constexpr int LOG2_SEGMENT = 6, SEGMENT = 1 << LOG2_SEGMENT;
constexpr uint8_t FREE_SEGMENT = 255;

Word cacheLow, cacheMap, cacheNext;   // the code cache
Word interpreterNext, interpreterEnd; // room for interpreted frames
std::vector<std::pair<Word, Word>> oopTables;

Word AllocateBlock(size_t bytes) {
    size_t segments = (sizeof(HeapBlock) + bytes + SEGMENT - 1) / SEGMENT;
    Word block = cacheNext;
    cacheNext += segments * SEGMENT;
    if (cacheNext > cacheLow + CODE_BYTES)
        Fail("the code cache is full");
    As<HeapBlock>(block).segments = segments;
    As<HeapBlock>(block).used = 1; // the rest of that word is padding
    auto *map = &As<uint8_t>(cacheMap + (block - cacheLow) / SEGMENT);
    for (size_t i = 0, back = 0; i < segments; i++, back = back + 1 == FREE_SEGMENT ? 1 : back + 1)
        map[i] = uint8_t(back); // each leads back to the block's first segment
    return block + sizeof(HeapBlock);
}

size_t Align8(size_t bytes) {
    return (bytes + 7) & ~size_t(7);
}

// The code with the pc that CallOut left open, now that its place is known.
std::string CodeAt(Assembler *a, Word start) {
    Word pc = start + a->pc;
    if (a->pcAt)
        a->code.replace(a->pcAt, 8, reinterpret_cast<char *>(&pc), 8);
    return a->code;
}

} // namespace

Word NewBlob(const BlobParts &parts) {
    size_t code = sizeof(Blob), oops = code + Align8(parts.code.size()),
           scopes = oops + 8 * parts.oops.size(), pc = scopes + Align8(parts.scopes.size()),
           end = pc + sizeof(PcDesc);
    Word blob = AllocateBlock(end);
    As<Blob>(blob).vtable = reinterpret_cast<Word>(vm.statics.vtables[parts.kind]) + VTABLE_HEAD;
    As<Blob>(blob).size = end;
    As<Blob>(blob).codeOffset = code;
    As<Blob>(blob).oopsOffset = oops;
    As<Blob>(blob).oopCount = parts.oops.size();
    As<Blob>(blob).frameWords = parts.words;
    At(blob, &Blob::linkOffset) = parts.link;
    At(blob, &Blob::oopMaps) = parts.oopMaps;
    At(blob, &Blob::scopesOffset) = scopes;
    At(blob, &Blob::pcDescCache) = blob + pc;
    As<PcDesc>(blob + pc) = {0, parts.scope};
    memcpy(&As<char>(blob + code), parts.code.data(), parts.code.size());
    memcpy(&As<char>(blob + scopes), parts.scopes.data(), parts.scopes.size());
    for (size_t i = 0; i < parts.oops.size(); i++)
        As<Word>(blob + oops + 8 * i) = parts.oops[i];
    oopTables.emplace_back(blob + oops, blob + oops + 8 * parts.oops.size());
    return blob;
}

Word EntryOf(Word blob) {
    return blob + As<Blob>(blob).codeOffset;
}

Word FinishBlob(BlobParts *parts, Assembler *a) {
    Word blob = cacheNext + sizeof(HeapBlock); // where NewBlob will put it
    parts->code = CodeAt(a, blob + sizeof(Blob));
    return EntryOf(NewBlob(*parts));
}

Word PlaceInterpreted(Assembler *a) {
    Word at = interpreterNext;
    interpreterNext += (a->code.size() + 15) & ~size_t(15);
    if (interpreterNext > interpreterEnd)
        Fail("the interpreter has no more room");
    memcpy(&As<char>(at), CodeAt(a, at).data(), a->code.size());
    return at;
}

const std::vector<std::pair<Word, Word>> &OopTables() {
    return oopTables;
}

Word BlobOf(Word pc) {
    if (pc < cacheLow || pc >= cacheNext)
        return 0;
    auto *map = &As<uint8_t>(cacheMap);
    size_t segment = (pc - cacheLow) / SEGMENT;
    while (map[segment])
        segment -= map[segment];
    return cacheLow + segment * SEGMENT + sizeof(HeapBlock);
}

void BootCode() {
    cacheLow = cacheNext = Map(CODE_BYTES, true, PROT_EXEC);
    cacheMap = Map(CODE_BYTES / SEGMENT, false);
    memset(&As<char>(cacheMap), FREE_SEGMENT, CODE_BYTES / SEGMENT);
    Word heap = Allocate(sizeof(CodeHeap));
    *vm.statics.codeHeap = heap;
    As<CodeHeap>(heap).low = As<CodeHeap>(heap).lowBoundary = cacheLow;
    As<CodeHeap>(heap).high = As<CodeHeap>(heap).highBoundary = cacheLow + CODE_BYTES;
    At(heap, &CodeHeap::mapLow) = cacheMap;
    At(heap, &CodeHeap::log2SegmentSize) = LOG2_SEGMENT;
    EmitCallStub();
    Word interpreter = NewBlob({VT_BUFFER_BLOB, std::string(INTERPRETER_BYTES, char(0xcc))});
    interpreterNext = EntryOf(interpreter);
    interpreterEnd = interpreterNext + INTERPRETER_BYTES;
    Word queue = Allocate(sizeof(StubQueue));
    As<StubQueue>(queue).start = interpreterNext;
    As<StubQueue>(queue).size = INTERPRETER_BYTES;
    *vm.statics.interpreterCode = queue;
    safepointStub = EmitRuntimeStub(reinterpret_cast<void (*)()>(&SimvmSafepoint), 0);
    constexpr int SPECIAL_BLOB = 31;
    if (vm.statics.runtimeBlobs)
        vm.statics.runtimeBlobs[SPECIAL_BLOB] = NewBlob({VT_BUFFER_BLOB, std::string(64, char(0xcc))});
}

// Frames of scripts: interpreted ones and compiled ones, and how each reaches the next.

// Calls C with the thread's anchor set to the frame that runs: fp and pc first, as a reader asks for sp. The
// pc may be left out, when it is found below sp; sp may bear flags in its low bits.
void CallOut(Assembler *a, void (*function)(), Word argument, ThreadState state) {
    bool withPc = randomWords() % 2;
    a->StoreRbpInThread(Place(&JavaThread::anchorFp));
    a->LoadRax(0);
    size_t pcAt = a->Here() - 8;
    a->StoreRaxInThread(Place(&JavaThread::anchorPc));
    a->Bytes({0x48, 0x89, 0xe0, 0x48, 0x83, 0xc8, int(randomWords() % 3)}); // mov rax, rsp; or rax, flags
    a->StoreRaxInThread(Place(&JavaThread::anchorSp));
    a->StoreIntInThread(Place(&JavaThread::state), state);
    a->Bytes({0x4c, 0x89, 0xff, 0x48, 0xbe}), a->Value(argument); // mov rdi, r15; mov rsi, argument
    a->Call(reinterpret_cast<Word>(function));
    if (withPc)
        a->pcAt = pcAt, a->pc = a->Here();
    a->StoreIntInThread(Place(&JavaThread::state), IN_JAVA);
    a->StoreWordInThread(Place(&JavaThread::anchorSp), 0);
}

namespace {

// The frame with its locals above the return address, its fixed part, and its monitors; then what `body`
// emits.
Word EmitInterpreted(const Scope &scope, const Body &body) {
    Assembler a;
    Word constMethod = At(scope.method->oop, &Method::constMethod);
    a.Bytes({0x58, 0x49, 0x89, 0xe5}); // pop rax; mov r13, rsp
    a.SubRsp(InterpreterLocals(scope));
    a.Bytes({0x50, 0x55, 0x48, 0x89, 0xe5, 0x41, 0x55}); // push rax; push rbp; mov rbp, rsp; push r13
    FillLocals(&a, scope);
    a.PushWord(scope.method->oop);
    a.PushWord(0);
    a.PushWord(POISON_WORD);                 // the pool's cache
    a.Bytes({0x49, 0x8d, 0x45, 0xf8, 0x50}); // lea rax, [r13 - 8]; push rax
    a.PushWord(constMethod + sizeof(ConstMethod) + scope.bci);
    int fixed = offsetof(InterpretedFrame, fp);
    a.Bytes({0x48, 0x8d, 0x85}),
        a.Value(int32_t(-fixed - 16 * int(scope.monitors.size()))); // lea rax, [rbp - n]
    a.Bytes({0x50});
    for (Object *object : scope.monitors) {
        a.LoadRaxFrom(&object->address);
        a.Bytes({0x50, 0x6a, 0x00}); // push rax; push 0
    }
    body(&a);
    a.Bytes({0x4c, 0x8b, 0x6d, 0xf8, 0xc9, 0x59, 0x4c, 0x89, 0xec, 0xff, 0xe1}); // leave to the sender's sp
    return PlaceInterpreted(&a);
}

Word EmitNative(const Scope &scope, void (*function)(), Word argument) {
    return EmitInterpreted(scope, [&](Assembler *a) {
        a->Bytes({0x48, 0x83, 0xe4, 0xf0}); // and rsp, -16
        CallOut(a, function, argument, IN_NATIVE);
    });
}

} // namespace

// A frame of compiled code. The server compiler saves the frame pointer and uses the register for something
// else; the client compiler points it at where the old one is saved, which is right below the return address.
void Enter(Assembler *a, int words, int link) {
    a->SubRsp(words - 1);
    a->StoreRbp(link);
    if (vm.statics.server)
        a->LoadRbpValue(randomWords());
    else
        a->LoadRbpAddress(link);
}
void Return(Assembler *a, int words, int link) {
    a->LoadRbp(link);
    a->AddRsp(words - 1);
    a->Bytes({0xc3});
}

namespace {

// A compiled frame around what `body` emits.
Word EmitCompiled(const std::vector<Scope> &scopes, const Body &body) {
    BlobParts parts = {VT_NMETHOD, {}};
    for (const Scope &scope : scopes)
        parts.words += CompiledSlots(scope);
    parts.words = (parts.words + 3) & ~1;
    parts.link = parts.words - 2;
    WriteScopes(&parts, scopes);
    Assembler a;
    Enter(&a, parts.words, parts.link);
    int slot = 0;
    for (const Scope &scope : scopes)
        FillSlots(&a, scope, &slot);
    body(&a);
    Return(&a, parts.words, parts.link);
    parts.code = a.code;
    return EntryOf(NewBlob(parts));
}

// A compiled loop: it counts, stops at safepoints and runs `body` until it is to leave.
void EmitLoop(Assembler *a, Word callee) {
    size_t loop = a->Here();
    a->Bytes({0x49, 0xff, 0x46, 0x08}); // inc [r14 + laps]
    if (callee)
        a->Call(callee);
    a->LoadRax(reinterpret_cast<Word>(&safepointAsked));
    a->Bytes({0x83, 0x38, 0x00}); // cmp [rax], 0
    size_t on = a->JumpOn(JUMP_EQUAL);
    a->Call(safepointStub);
    a->Land(on);
    a->Bytes({0x41, 0x83, 0x3e, 0x00}); // cmp [r14 + leave], 0
    a->JumpBack(JUMP_EQUAL, loop);
}

// A compiled leaf. The server's leaves the frame pointer alone, so that no link is known for it.
Word EmitLeaf(const Scope &scope, bool loops) {
    BlobParts parts = {VT_NMETHOD, {}};
    parts.words = 2;
    WriteScopes(&parts, {{scope.method,
                          scope.bci,
                          nullptr,
                          {},
                          CompiledSlots(scope) ? std::vector<Variable>() : scope.variables}});
    Assembler a;
    vm.statics.server ? a.SubRsp(1) : Enter(&a, parts.words, 0);
    if (loops)
        EmitLoop(&a, 0);
    vm.statics.server ? (a.AddRsp(1), a.Bytes({0xc3})) : Return(&a, parts.words, 0);
    parts.code = a.code;
    return EntryOf(NewBlob(parts));
}

// The last frame, with what its thread does at the end.
Word EmitResting(Script *script) {
    const Frame &frame = script->frames.back();
    const Scope &scope = frame.scopes.back();
    auto rest = reinterpret_cast<void (*)()>(&SimvmRest);
    auto argument = reinterpret_cast<Word>(script);
    if (frame.kind == FrameKind::NATIVE)
        return EmitNative(scope, rest, argument);
    if (frame.kind == FrameKind::INTERPRETED)
        return EmitInterpreted(scope, [&](Assembler *a) {
            a->Bytes({0x48, 0x83, 0xe4, 0xf0});
            CallOut(a, rest, argument, IN_VM);
        });
    if (script->rest == Rest::SPIN && frame.scopes.size() == 1 && CompiledSlots(scope) == 0 && !frame.callee)
        return EmitLeaf(scope, true);
    Word callee = script->rest == Rest::SPIN ? frame.callee
                  : script->rest == Rest::CALLS
                      ? EmitCompiled({scope}, [&](Assembler *a) { a->Call(EmitLeaf(scope, false)); })
                      : EmitRuntimeStub(rest, argument);
    bool loops = Loops(script->rest);
    return EmitCompiled(frame.scopes, [&](Assembler *a) { loops ? EmitLoop(a, callee) : a->Call(callee); });
}

// Where `caller` goes to reach that frame: by an adapter when the two are of different kinds.
Word Reach(FrameKind caller, FrameKind callee, Word entry) {
    if (callee == FrameKind::OSR)
        return EmitOsrAdapter(entry);
    if (IsCompiled(caller) == IsCompiled(callee))
        return entry;
    return IsCompiled(callee) ? EmitI2C(entry) : EmitC2I(entry);
}

// A second place for the frame's code; its thread's safepoint record tells of it.
Word CopyCode(Script *script, Word entry) {
    Word blob = BlobOf(entry), state = Allocate(sizeof(SafepointState)), record = Allocate(sizeof(CodeCopy));
    int32_t size = As<Blob>(blob).oopsOffset - As<Blob>(blob).codeOffset;
    Word copy = Map(4096, true, PROT_EXEC);
    memcpy(&As<char>(copy), &As<char>(entry), size);
    As<CodeCopy>(record).start = copy;
    At(record, &CodeCopy::size) = size;
    At(record, &CodeCopy::realStart) = entry;
    As<SafepointState>(state).codeCopy = record;
    script->safepointState = state;
    return copy;
}

} // namespace

void EmitScript(Script *script) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    for (const Frame &frame : script->frames)
        for (const Scope &scope : frame.scopes)
            NoteLocals(scope, frame.kind);
    Word entry = EmitResting(script);
    for (size_t i = script->frames.size(); i-- > 0;) {
        if (script->frames[i].inCopy)
            entry = CopyCode(script, entry);
        if (i == 0)
            break;
        const Frame &caller = script->frames[i - 1];
        if (caller.kind == FrameKind::NATIVE) {
            entry = EmitNative(caller.scopes[0], reinterpret_cast<void (*)()>(&SimvmEnter), entry);
            continue;
        }
        Word target = Reach(caller.kind, script->frames[i].kind, entry);
        auto call = [&](Assembler *a) { a->Call(target); };
        entry = caller.kind == FrameKind::STUB
                    ? (vm.statics.server ? EmitBareStub(target) : EmitStub(VT_RUNTIME_STUB, 4, call))
                : IsCompiled(caller.kind) ? EmitCompiled(caller.scopes, call)
                                          : EmitInterpreted(caller.scopes[0], call);
    }
    script->entry = entry;
}

std::vector<Scope> ShadowStack(const Script &script) {
    std::vector<Scope> stack;
    for (const Frame &frame : script.frames)
        stack.insert(stack.begin(), frame.scopes.rbegin(), frame.scopes.rend());
    return stack;
}

int32_t LineOf(const Scope &scope) {
    int32_t line = -1;
    for (const MethodLine &entry : scope.method->lines)
        if (entry.bci <= scope.bci)
            line = entry.line;
    return scope.method->flags & METHOD_NATIVE ? -1 : line;
}

void CallJava(Word entry, Word wrapper, Word thread, Control *control) {
    reinterpret_cast<void (*)(Word, Word, Word, Control *)>(callStub)(entry, wrapper, thread, control);
}

} // namespace simvm
