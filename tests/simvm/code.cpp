// Frames of scripts: interpreted ones and compiled ones, and how each reaches the next.
#include "emit.h"

#include <sys/mman.h>

namespace simvm {

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
