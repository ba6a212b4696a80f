#include "code.h"
#include "assembler.h"

#include <random>
#include <sys/mman.h>

namespace simvm {

int32_t safepointAsked;

namespace {

constexpr size_t CODE_BYTES = 16 << 20, INTERPRETER_BYTES = 1 << 20;
constexpr int LOG2_SEGMENT = 6, SEGMENT = 1 << LOG2_SEGMENT;
constexpr uint8_t FREE_SEGMENT = 255;
constexpr int INTERPRETER_LOCALS = 4;

Word cacheLow, cacheMap, cacheNext;   // the code cache
Word interpreterNext, interpreterEnd; // room for interpreted frames
Word callStub, safepointStub;
std::mt19937_64 randomWords(20260101);

// ---- the code cache
// ----------------------------------------------------------------------------------------

struct BlobParts {
    VtableKind kind;
    std::string code;
    int32_t words = 0, link = NO_OFFSET; // of the frame
    std::vector<Word> oops = {};
    std::string scopes = {}; // begins with the locals and monitors, so that no scope is at 0
    int32_t scope = 0;       // the innermost
    Word oopMaps = 0;
};

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
    return blob;
}

Word EntryOf(Word blob) {
    return blob + As<Blob>(blob).codeOffset;
}

// ---- compressed numbers
// ------------------------------------------------------------------------------------

int32_t Location(LocationType type, int slot) {
    return type << 12 | 2 * slot;
} // counted in half words

// An oop map that says where a stub has spilled the frame pointer, after two values that say something else.
Word OopMapOf(int link) {
    constexpr int VALUE = 2, CALLEE_SAVED = 8, OTHER_REGISTER = 19;
    int stack0 = int(*vm.statics.stackRegisters);
    std::string data;
    PutCompressed(&data, (stack0 + 9) << 5 | VALUE);
    PutCompressed(&data, (stack0 + 8) << 5 | CALLEE_SAVED);
    PutCompressed(&data, OTHER_REGISTER);
    PutCompressed(&data, (stack0 + link) << 5 | CALLEE_SAVED);
    PutCompressed(&data, FRAME_POINTER_REGISTER);
    Word set = Allocate(sizeof(OopMapSet)), array = Allocate(8), map = Allocate(sizeof(OopMap)),
         bytes = Allocate(data.size());
    memcpy(&As<char>(bytes), data.data(), data.size());
    As<OopMap>(map) = {0, 3, int32_t(data.size()), 0, bytes};
    As<Word>(array) = map;
    As<OopMapSet>(set) = {1, 1, array};
    return set;
}

// ---- frames
// ------------------------------------------------------------------------------------------------

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

// The code with the pc that CallOut left open, now that its place is known.
std::string CodeAt(Assembler *a, Word start) {
    Word pc = start + a->pc;
    if (a->pcAt)
        a->code.replace(a->pcAt, 8, reinterpret_cast<char *>(&pc), 8);
    return a->code;
}

Word PlaceInterpreted(Assembler *a) {
    Word at = interpreterNext;
    interpreterNext += (a->code.size() + 15) & ~size_t(15);
    if (interpreterNext > interpreterEnd)
        Fail("the interpreter has no more room");
    memcpy(&As<char>(at), CodeAt(a, at).data(), a->code.size());
    return at;
}

// The frame with its locals above the return address, its fixed part, and its monitors; then what `body`
// emits.
template <class BODY>
Word EmitInterpreted(const Scope &scope, BODY body) {
    Assembler a;
    Word constMethod = At(scope.method->oop, &Method::constMethod);
    a.Bytes({0x58, 0x49, 0x89, 0xe5}); // pop rax; mov r13, rsp
    a.SubRsp(INTERPRETER_LOCALS);
    a.Bytes({0x50, 0x55, 0x48, 0x89, 0xe5, 0x41, 0x55}); // push rax; push rbp; mov rbp, rsp; push r13
    if (scope.receiver) {
        a.LoadRaxFrom(&scope.receiver->address);
        a.Bytes({0x49, 0x89, 0x45, 0xf8}); // mov [r13 - 8], rax
    }
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

// Scopes as the compiler writes them; places of receivers and monitors are the slots that the code fills.
void WriteScopes(BlobParts *parts, const std::vector<Scope> &scopes) {
    int slot = 0, sender = NO_OFFSET;
    PutCompressed(&parts->scopes, 77); // so that nothing is at 0
    for (const Scope &scope : scopes) {
        parts->oops.push_back(scope.method->oop);
        int locals = NO_OFFSET, monitors = NO_OFFSET;
        if (scope.receiver || randomWords() % 2) {
            locals = parts->scopes.size();
            PutCompressed(&parts->scopes, 4);
            PutCompressed(&parts->scopes, scope.receiver ? SCOPE_LOCATION : SCOPE_INT);
            PutCompressed(&parts->scopes, scope.receiver ? Location(LOCATION_OOP, slot++) : 4711);
            for (int32_t value :
                 {int32_t(SCOPE_OOP), 1, int32_t(SCOPE_LONG), -1, 100000, int32_t(SCOPE_DOUBLE), 0, 64})
                PutCompressed(&parts->scopes, value);
        }
        if (!scope.monitors.empty()) {
            monitors = parts->scopes.size();
            PutCompressed(&parts->scopes, scope.monitors.size());
            for (size_t i = 0; i < scope.monitors.size(); i++)
                for (int32_t value :
                     {Location(LOCATION_NORMAL, 0), int32_t(SCOPE_LOCATION), Location(LOCATION_OOP, slot++)})
                    PutCompressed(&parts->scopes, value);
        }
        parts->scope = parts->scopes.size();
        for (int32_t value : {sender, int32_t(parts->oops.size()), scope.bci, locals, NO_OFFSET, monitors})
            PutCompressed(&parts->scopes, value);
        sender = parts->scope;
    }
}

int SlotsOf(const std::vector<Scope> &scopes) {
    int slots = 0;
    for (const Scope &scope : scopes)
        slots += (scope.receiver ? 1 : 0) + scope.monitors.size();
    return slots;
}

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

// A compiled frame around what `body` emits.
template <class BODY>
Word EmitCompiled(const std::vector<Scope> &scopes, BODY body) {
    BlobParts parts = {VT_NMETHOD, {}};
    parts.words = (SlotsOf(scopes) + 3) & ~1;
    parts.link = parts.words - 2;
    WriteScopes(&parts, scopes);
    Assembler a;
    Enter(&a, parts.words, parts.link);
    int slot = 0;
    for (const Scope &scope : scopes) {
        if (scope.receiver)
            a.LoadRaxFrom(&scope.receiver->address), a.StoreRax(slot++);
        for (Object *object : scope.monitors)
            a.LoadRaxFrom(&object->address), a.StoreRax(slot++);
    }
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
    WriteScopes(&parts, {{scope.method, scope.bci, nullptr, {}}});
    Assembler a;
    vm.statics.server ? a.SubRsp(1) : Enter(&a, parts.words, 0);
    if (loops)
        EmitLoop(&a, 0);
    vm.statics.server ? (a.AddRsp(1), a.Bytes({0xc3})) : Return(&a, parts.words, 0);
    parts.code = a.code;
    return EntryOf(NewBlob(parts));
}

// ---- stubs and adapters
// ------------------------------------------------------------------------------------

// Server stubs don't know where they save the frame pointer but by their oop map.
BlobParts StubParts(VtableKind kind, int words, int link) {
    BlobParts parts = {kind, {}};
    parts.words = words;
    bool byMap = vm.statics.stackRegisters && randomWords() % 2;
    parts.link = byMap ? -2 : link;
    parts.oopMaps = byMap ? OopMapOf(link) : 0;
    return parts;
}

Word FinishBlob(BlobParts *parts, Assembler *a) {
    Word blob = cacheNext + sizeof(HeapBlock); // where NewBlob will put it
    parts->code = CodeAt(a, blob + sizeof(Blob));
    return EntryOf(NewBlob(*parts));
}

Word EmitI2C(Word target) {
    constexpr int WORDS = 4, LINK = 1;
    BlobParts parts = StubParts(VT_I2C, WORDS, LINK);
    Assembler a;
    if (!vm.statics.server) {
        a.Bytes({0x55, 0x48, 0x89, 0xe5, 0x48, 0x83, 0xe4, 0xf0}); // push rbp; mov rbp, rsp; and rsp, -16
        a.Call(target);
        a.Bytes({0xc9, 0xc3}); // leave; ret
        return FinishBlob(&parts, &a);
    }
    a.Bytes({0x48, 0x89, 0xe0, 0x48, 0x83, 0xe4, 0xf0, 0x50}); // mov rax, rsp; and rsp, -16; push rax
    a.SubRsp(WORDS - 1);
    a.StoreRbp(LINK);
    a.Call(target);
    a.LoadRbp(LINK);
    a.AddRsp(WORDS - 1);
    a.Bytes({0x5c, 0xc3}); // pop rsp; ret
    return FinishBlob(&parts, &a);
}

// A frame of a stub or adapter around what `body` emits.
template <class BODY>
Word EmitStub(VtableKind kind, int words, BODY body) {
    const int link = vm.statics.server ? words / 3 : words - 2;
    BlobParts parts = StubParts(kind, words, link);
    Assembler a;
    Enter(&a, words, link);
    body(&a);
    Return(&a, words, link);
    return FinishBlob(&parts, &a);
}

Word EmitC2I(Word target) {
    return EmitStub(VT_C2I, 6, [&](Assembler *a) { a->Call(target); });
}

// On top of its frame: return pc, the interpreter's fp, the sender's sp.
Word EmitOsrAdapter(Word target) {
    constexpr int WORDS = 6;
    BlobParts parts = {VT_OSR, {}};
    parts.words = WORDS;
    Assembler a;
    if (!vm.statics.server) { // below its fp: the sender's sp
        a.Bytes({0x55, 0x48, 0x89, 0xe5, 0x48, 0x8d, 0x45, 0x10, 0x50, 0x48, 0x83, 0xe4, 0xf0});
        a.Call(target);
        a.Bytes({0xc9, 0xc3});
        return FinishBlob(&parts, &a);
    }
    a.Bytes({0x48, 0x8b, 0x0c, 0x24, 0x48, 0x8d, 0x54, 0x24, 0x08}); // mov rcx, [rsp]; lea rdx, [rsp + 8]
    a.Bytes({0x48, 0x83, 0xe4, 0xf0, 0x51, 0x55, 0x52});             // and rsp, -16; push rcx, rbp, rdx
    a.SubRsp(WORDS - 3);
    a.Call(target);
    a.AddRsp(WORDS - 3);
    a.Bytes({0x5a, 0x5d, 0x59, 0x48, 0x89, 0xd4, 0xff, 0xe1}); // pop rdx, rbp, rcx; mov rsp, rdx; jmp rcx
    return FinishBlob(&parts, &a);
}

// How compiled code calls C.
Word EmitRuntimeStub(void (*function)(), Word argument) {
    return EmitStub(VT_RUNTIME_STUB, 4, [&](Assembler *a) { CallOut(a, function, argument, IN_VM); });
}

void EmitCallStub() {
    Assembler a;
    a.Bytes({0x55, 0x48, 0x89, 0xe5}); // push rbp; mov rbp, rsp
    a.SubRsp(10);
    a.Bytes({0x48, 0x89, 0x75, 0xd0}); // mov [rbp - 48], rsi: the wrapper
    a.Bytes({0x48, 0x89, 0x5d, 0xf8, 0x4c, 0x89, 0x65, 0xf0, 0x4c, 0x89, 0x6d, 0xe8}); // rbx, r12, r13
    a.Bytes({0x4c, 0x89, 0x75, 0xe0, 0x4c, 0x89, 0x7d, 0xd8});                         // r14, r15
    a.Bytes({0x49, 0x89, 0xd7, 0x49, 0x89, 0xce, 0xff, 0xd7}); // mov r15, rdx; mov r14, rcx; call rdi
    size_t back = a.Here();
    a.Bytes({0x48, 0x8b, 0x5d, 0xf8, 0x4c, 0x8b, 0x65, 0xf0, 0x4c, 0x8b, 0x6d, 0xe8});
    a.Bytes({0x4c, 0x8b, 0x75, 0xe0, 0x4c, 0x8b, 0x7d, 0xd8, 0xc9, 0xc3}); // leave; ret
    BlobParts parts = {VT_BUFFER_BLOB, a.code};
    callStub = EntryOf(NewBlob(parts));
    *vm.statics.callStubReturn = callStub + back;
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
    if (script->rest == Rest::SPIN && frame.scopes.size() == 1 && !scope.receiver && scope.monitors.empty())
        return EmitLeaf(scope, true);
    Word callee = script->rest == Rest::SPIN ? 0
                  : script->rest == Rest::CALLS
                      ? EmitCompiled({scope}, [&](Assembler *a) { a->Call(EmitLeaf(scope, false)); })
                      : EmitRuntimeStub(rest, argument);
    bool loops = script->rest == Rest::SPIN || script->rest == Rest::CALLS;
    return EmitCompiled(frame.scopes, [&](Assembler *a) { loops ? EmitLoop(a, callee) : a->Call(callee); });
}

bool IsCompiled(FrameKind kind) {
    return kind == FrameKind::COMPILED || kind == FrameKind::OSR;
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
        entry = caller.kind == FrameKind::STUB ? EmitStub(VT_RUNTIME_STUB, 4, call)
                : IsCompiled(caller.kind)      ? EmitCompiled(caller.scopes, call)
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

} // namespace simvm
