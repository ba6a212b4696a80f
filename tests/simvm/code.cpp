// The code cache, a heap of segments with blobs and the interpreter's room in it; and the code that scripts
// run.
#include "code.h"

#include <sys/mman.h>

namespace simvm {

int32_t safepointAsked;
std::mt19937_64 randomWords(20260101);
Word callStub, cacheLow, cacheNext;

void Assembler::EmitWords(const char *text, const std::vector<Word> &values) {
    auto value = values.begin();
    std::istringstream words(text);
    for (std::string word; words >> word;)
        if (word == "q" || word == "d")
            code.append(reinterpret_cast<const char *>(&*value++), word == "q" ? 8 : 4);
        else
            for (size_t i = 0; i < word.size(); i += 2)
                code.push_back(char(std::stoi(word.substr(i, 2), nullptr, 16)));
}

namespace {

constexpr size_t CODE_BYTES = 16 << 20, INTERPRETER_BYTES = 1 << 20;
constexpr int LOG2_SEGMENT = 6, SEGMENT = 1 << LOG2_SEGMENT;
constexpr uint8_t FREE_SEGMENT = 255;

Word cacheMap;        // of the code cache
Word interpreterNext; // room for interpreted frames
Word safepointStub;

void Copy(Word to, const std::string &bytes) {
    memcpy(&As<char>(to), bytes.data(), bytes.size());
}

Word AllocateBlock(size_t bytes) {
    const size_t segments = (sizeof(HeapBlock) + bytes + SEGMENT - 1) / SEGMENT;
    const Word block = cacheNext;
    cacheNext += segments * SEGMENT;
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

// A blob of code.
Word Finish(BlobParts parts, const Assembler &a) {
    parts.code = a.code;
    return EntryOf(NewBlob(parts));
}

Word PlaceInterpreted(const Assembler &a) {
    const Word at = interpreterNext;
    interpreterNext += (a.code.size() + 15) & ~size_t(15);
    Copy(at, a.code);
    return at;
}

// ---- stubs and adapters: frames between Java frames that aren't any themselves

// Calls C with the thread's anchor set to the frame that runs: fp first, as a reader asks for sp. The pc is
// left out, as it is below sp; sp bears a flag in its low bits.
void CallOut(Assembler *a, void (*function)(), Word argument, ThreadState state) {
    a->Emit("4989af d", offsetof(JavaThread, anchorFp));                 // rbp
    a->Emit("4889e0 4883c801 498987 d", offsetof(JavaThread, anchorSp)); // mov rax, rsp; or rax, 1
    a->Emit("41c787 d d", offsetof(JavaThread, state), state);
    a->Emit("4c89ff 48be q", argument); // mov rdi, r15; mov rsi, argument
    a->Emit(CALL, function);
    a->Emit("41c787 d d", offsetof(JavaThread, state), IN_JAVA);
    a->Emit("49c787 d d", offsetof(JavaThread, anchorSp), 0);
}

// A frame of compiled code. The server compiler saves the frame pointer and uses the register for something
// else; the client compiler points it at where the old one is saved, which is right below the return address.
void Enter(Assembler *a, int words, int link) {
    a->Emit(SUB_RSP, 8 * (words - 1));
    a->Emit(STORE_RBP, 8 * link);
    if (!vm.options.isClient)
        a->Emit("48bd q", randomWords());
    else
        a->Emit("488dac24 d", 8 * link); // lea
}
void Return(Assembler *a, int words, int link) {
    a->Emit(LOAD_RBP, 8 * link);
    a->Emit(ADD_RSP, 8 * (words - 1));
    a->Emit("c3");
}

Body Calling(Word target) {
    return [=](Assembler *a) { a->Emit(CALL, target); };
}

// An oop map that says where a stub has spilled the frame pointer, after another register.
Word OopMapOf(int link) {
    constexpr int CALLEE_SAVED = 8, OTHER_REGISTER = 19;
    const int stack0 = int(*vm.statics.stackRegisters);
    std::string data;
    for (int value : {(stack0 + 8) << 5 | CALLEE_SAVED, OTHER_REGISTER, (stack0 + link) << 5 | CALLEE_SAVED,
                      FRAME_POINTER_REGISTER})
        PutCompressed(&data, value);
    auto *set = Make<OopMapSet>();
    auto *map = Make<OopMap>(data.size());
    auto *array = Make<Word>();
    Copy(Word(map + 1), data);
    *map = {0, 2, int32_t(data.size()), 0, Word(map + 1)};
    *array = Word(map);
    *set = {1, 1, Word(array)};
    return Word(set);
}

// Server stubs don't know where they save the frame pointer but by their oop map.
BlobParts StubParts(VtableKind kind, int words, int link) {
    const bool byMap = vm.statics.stackRegisters && randomWords() % 2;
    return {kind, "", words, byMap ? -2 : link, {}, "", 0, byMap ? OopMapOf(link) : 0};
}

// A frame of a stub or adapter around what `body` emits.
Word EmitStub(VtableKind kind, int words, const Body &body) {
    const int link = vm.options.isClient ? words - 2 : words / 3;
    const BlobParts parts = StubParts(kind, words, link);
    Assembler a;
    Enter(&a, words, link);
    body(&a);
    Return(&a, words, link);
    return Finish(parts, a);
}

Word EmitI2C(Word target) {
    constexpr int WORDS = 4, LINK = 1;
    if (vm.options.isClient)
        return EmitStub(VT_I2CAdapter, WORDS, Calling(target));
    Assembler a;
    a.Emit("4889e0 4883e4f0 50"); // mov rax, rsp; and rsp, -16; push rax
    a.Emit(SUB_RSP, 8 * (WORDS - 1));
    a.Emit(STORE_RBP, 8 * LINK);
    a.Emit(CALL, target);
    a.Emit(LOAD_RBP, 8 * LINK);
    a.Emit(ADD_RSP, 8 * (WORDS - 1));
    a.Emit("5c c3"); // pop rsp; ret
    return Finish(StubParts(VT_I2CAdapter, WORDS, LINK), a);
}

// On top of its frame: return pc, the interpreter's fp, the sender's sp.
Word EmitOsrAdapter(Word target) {
    constexpr int WORDS = 6;
    Assembler a;
    if (!vm.options.isClient) {
        a.Emit("488b0c24 488d542408"); // mov rcx, [rsp]; lea rdx, [rsp + 8]
        a.Emit("4883e4f0 51 55 52");   // and rsp, -16; push rcx, rbp, rdx
        a.Emit(SUB_RSP, 8 * (WORDS - 3));
        a.Emit(CALL, target);
        a.Emit(ADD_RSP, 8 * (WORDS - 3));
        a.Emit("5a 5d 59 4889d4 ffe1"); // pop rdx, rbp, rcx; mov rsp, rdx; jmp rcx
    } else                              // below its fp: the sender's sp
        a.Emit("55 4889e5 488d4510 50 4883e4f0 48b8 q ffd0 c9 c3", target);
    return Finish({VT_OSRAdapter, "", WORDS}, a);
}

// How compiled code calls C.
Word EmitRuntimeStub(void (*function)(), Word argument) {
    return EmitStub(VT_RuntimeStub, 4, [&](Assembler *a) { CallOut(a, function, argument, IN_VM); });
}

void EmitCallStub() {
    constexpr char AT_THE_END[] =
        "488b5df8 4c8b65f0 4c8b6de8 4c8b75e0 4c8b7dd8 c9 c3"; // the registers; leave; ret
    Assembler a;
    a.Emit("55 4889e5 4881ec d", 80);                       // push rbp; mov rbp, rsp
    a.Emit("488975d0");                                     // mov [rbp - 48], rsi: the wrapper
    a.Emit("48895df8 4c8965f0 4c896de8 4c8975e0 4c897dd8"); // rbx, r12 to r15
    a.Emit("4989d7 4989ce ffd7");                           // mov r15, rdx; mov r14, rcx; call rdi
    const size_t back = a.code.size();
    a.Emit(AT_THE_END);
    callStub = Finish({VT_BufferBlob, ""}, a);
    *vm.statics.callStubReturn = callStub + back;
}

} // namespace

Word NewBlob(const BlobParts &parts) {
    const size_t code = sizeof(Blob), oops = code + Align8(parts.code.size()),
                 scopes = oops + 8 * parts.oops.size(), pc = scopes + Align8(parts.scopes.size()),
                 end = pc + sizeof(PcDesc);
    const Word blob = AllocateBlock(end);
    auto &made = As<Blob>(blob);
    made.vtable = HeadOf(parts.kind);
    made.size = end;
    made.codeOffset = code;
    made.oopsOffset = oops;
    made.oopCount = parts.oops.size();
    made.frameWords = parts.words;
    made.linkOffset = parts.link;
    made.oopMaps = parts.oopMaps;
    made.scopesOffset = scopes;
    made.pcDescCache = blob + pc;
    As<PcDesc>(blob + pc) = {0, parts.scope};
    Copy(blob + code, parts.code);
    Copy(blob + scopes, parts.scopes);
    std::copy(parts.oops.begin(), parts.oops.end(), &As<Word>(blob + oops));
    return blob;
}

Word EntryOf(Word blob) {
    return blob + As<Blob>(blob).codeOffset;
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
    auto *heap = Make<CodeHeap>();
    heap->low = heap->lowBoundary = cacheLow;
    heap->high = heap->highBoundary = cacheLow + CODE_BYTES;
    heap->mapLow = cacheMap;
    heap->log2SegmentSize = LOG2_SEGMENT;
    *vm.statics.codeHeap = Word(heap);
    EmitCallStub();
    Word interpreter = NewBlob({VT_BufferBlob, std::string(INTERPRETER_BYTES, char(0xcc))});
    interpreterNext = EntryOf(interpreter);
    auto *queue = Make<StubQueue>();
    queue->start = interpreterNext;
    queue->size = INTERPRETER_BYTES;
    *vm.statics.interpreterCode = Word(queue);
    safepointStub = EmitRuntimeStub(reinterpret_cast<void (*)()>(&SimvmSafepoint), 0);
}

// Frames of scripts: interpreted ones and compiled ones, and how each reaches the next.

namespace {

// The frame with its locals above the return address, its fixed part, and its monitors; then what `body`
// emits.
Word EmitInterpreted(const Scope &scope, const Body &body) {
    constexpr char PUSH[] = "48b8 q 50";
    const int fixed = offsetof(InterpretedFrame, fp), monitors = 16 * int(scope.monitors.size());
    Assembler a;
    a.Emit("58 4989e5"); // pop rax; mov r13, rsp
    a.Emit(SUB_RSP, 8 * InterpreterLocals(scope));
    a.Emit("50 55 4889e5 4155"); // push rax; push rbp; mov rbp, rsp; push r13
    FillLocals(&a, scope);
    a.Emit(PUSH, scope.method->oop);
    a.Emit(PUSH, 0);
    a.Emit(PUSH, POISON_WORD); // the pool's cache
    a.Emit("498d45f8 50");     // lea rax, [r13 - 8]; push rax
    a.Emit(PUSH, At(scope.method->oop, &Method::constMethod) + sizeof(ConstMethod) + scope.bci);
    a.Emit("488d85 d 50", -fixed - monitors); // lea rax, [rbp - n]; push rax
    for (Object *object : scope.monitors) {
        a.Emit(LOAD_FROM, &object->address);
        a.Emit("50 6a00"); // push rax; push 0
    }
    a.Emit("4883e4f0"); // and rsp, -16
    body(&a);
    a.Emit("4c8b6df8 c9 59 4c89ec ffe1"); // mov r13, [rbp - 8]; leave; pop rcx; mov rsp, r13; jmp rcx
    return PlaceInterpreted(a);
}

Word EmitCallingOut(const Scope &scope, void (*function)(), Word argument, ThreadState state) {
    return EmitInterpreted(scope, [&](Assembler *a) { CallOut(a, function, argument, state); });
}

// A compiled frame around what `body` emits.
Word EmitCompiled(const std::vector<Scope> &scopes, const Body &body) {
    BlobParts parts = {VT_nmethod, ""};
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
    return Finish(parts, a);
}

// A compiled loop: it counts, stops at safepoints and runs `callee` until it is to leave.
void EmitLoop(Assembler *a, Word callee) {
    const size_t loop = a->code.size();
    a->Emit("49ff4608"); // inc [r14 + laps]
    if (callee)
        a->Emit(CALL, callee);
    a->Emit("48b8 q 833800 740c", &safepointAsked); // cmp [rax], 0; je over the call
    a->Emit(CALL, safepointStub);
    a->Emit("41833e00 74"); // cmp [r14 + leave], 0; je loop
    a->code.push_back(char(loop - a->code.size() - 1));
}

// A compiled leaf. The server's leaves the frame pointer alone, so that no link is known for it.
Word EmitLeaf(const Scope &scope, bool loops) {
    BlobParts parts = {VT_nmethod, "", 2};
    WriteScopes(&parts, {{scope.method, scope.bci}});
    Assembler a;
    vm.options.isClient ? Enter(&a, parts.words, 0) : a.Emit(SUB_RSP, 8);
    if (loops)
        EmitLoop(&a, 0);
    vm.options.isClient ? Return(&a, parts.words, 0) : a.Emit("4881c4 d c3", 8);
    return Finish(parts, a);
}

// The last frame, with what its thread does at the end.
Word EmitResting(Script *script) {
    const Frame &frame = script->frames.back();
    const Scope &scope = frame.scopes.back();
    const auto rest = reinterpret_cast<void (*)()>(&SimvmRest);
    if (!IsCompiled(frame.kind))
        return EmitCallingOut(scope, rest, 0, frame.kind == FrameKind::NATIVE ? IN_NATIVE : IN_VM);
    if (script->rest == Rest::SPIN && frame.scopes.size() == 1 && CompiledSlots(scope) == 0)
        return EmitLeaf(scope, true);
    const Word callee = script->rest == Rest::SPIN    ? 0
                        : script->rest == Rest::CALLS ? EmitCompiled({scope}, Calling(EmitLeaf(scope, false)))
                                                      : EmitRuntimeStub(rest, 0);
    return EmitCompiled(frame.scopes, [&](Assembler *a) {
        Loops(script->rest) ? EmitLoop(a, callee) : a->Emit(CALL, callee);
    });
}

// How `caller` calls the frame at that entry: by an adapter when the two are of different kinds.
Word Reach(FrameKind caller, FrameKind callee, Word entry) {
    if (callee == FrameKind::OSR)
        return EmitOsrAdapter(entry);
    if (IsCompiled(caller) == IsCompiled(callee))
        return entry;
    return IsCompiled(callee) ? EmitI2C(entry) : EmitStub(VT_C2IAdapter, 6, Calling(entry));
}

Word EmitCaller(const Frame &frame, FrameKind callee, Word entry) {
    if (frame.kind == FrameKind::NATIVE)
        return EmitCallingOut(frame.scopes[0], reinterpret_cast<void (*)()>(&SimvmEnter), entry, IN_NATIVE);
    const Word target = Reach(frame.kind, callee, entry);
    return IsCompiled(frame.kind) ? EmitCompiled(frame.scopes, Calling(target))
                                  : EmitInterpreted(frame.scopes[0], Calling(target));
}

} // namespace

void EmitScript(Script *script) {
    const Locked held(vm.lock);
    const std::vector<Frame> &frames = script->frames;
    for (const Frame &frame : frames)
        for (const Scope &scope : frame.scopes)
            NoteLocals(scope, frame.kind);
    script->entry = EmitResting(script);
    for (size_t i = frames.size(); --i > 0;)
        script->entry = EmitCaller(frames[i - 1], frames[i].kind, script->entry);
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

} // namespace simvm
