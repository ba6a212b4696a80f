// Stubs and adapters: frames between Java frames that aren't any themselves.
#include "code.h"

#include <sys/mman.h>

namespace simvm {

namespace {

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

// Server stubs don't know where they save the frame pointer but by their oop map.
BlobParts StubParts(VtableKind kind, int words, int link) {
    BlobParts parts = {kind, {}};
    parts.words = words;
    bool byMap = vm.statics.stackRegisters && randomWords() % 2;
    parts.link = byMap ? -2 : link;
    parts.oopMaps = byMap ? OopMapOf(link) : 0;
    return parts;
}

} // namespace

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
Word EmitStub(VtableKind kind, int words, const Body &body) {
    const int link = vm.statics.server ? words / 3 : words - 2;
    BlobParts parts = StubParts(kind, words, link);
    Assembler a;
    Enter(&a, words, link);
    body(&a);
    Return(&a, words, link);
    return FinishBlob(&parts, &a);
}

Word EmitBareStub(Word target) {
    constexpr int WORDS = 4;
    BlobParts parts = {VT_RUNTIME_STUB, {}};
    parts.words = WORDS;
    Assembler a;
    a.SubRsp(WORDS - 1);
    a.Call(target);
    a.AddRsp(WORDS - 1);
    a.Bytes({0xc3});
    return FinishBlob(&parts, &a);
}

Word EmitLinked() {
    Assembler a;
    a.Bytes({0x55, 0x48, 0x89, 0xe5, 0xb9}), a.Value(1'000'000); // push rbp; mov rbp, rsp; mov ecx, n
    size_t loop = a.Here();
    a.Bytes({0xff, 0xc9}); // dec ecx
    a.JumpBack(JUMP_UNEQUAL, loop);
    a.Bytes({0x5d, 0xc3}); // pop rbp; ret
    Word code = Map(4096, false, PROT_EXEC);
    memcpy(&As<char>(code), a.code.data(), a.code.size());
    return code;
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

} // namespace simvm
