#include "statics.h"

#include <utility>

using namespace simvm;

#ifdef SIMVM_CLIENT
#undef SERVER_STATIC
#define SERVER_STATIC(...)
#else
#undef CLIENT_STATIC
#define CLIENT_STATIC(...)
#endif

// Initialised, so that they are in the file's data as in the real library, not in memory mapped beside it.
// Variables are found in .symtab only, tables in .dynsym as well.
#define DEFINE(name, symbol, visible)                                                                        \
    extern "C" Word name[STATIC_WORDS] __asm__(symbol);                                                      \
    __attribute__((visibility(visible), used)) Word name[STATIC_WORDS] = {1};
#define STATIC(member, symbol) DEFINE(member, symbol, "hidden")
#define KIND(name, base, symbol, ...) DEFINE(name##_table, "_ZTV" symbol, "default")
#include "library_names.h"

namespace {

int64_t (*sizeOf)(Word oop);

// As the VM's predicates do, these answer in one byte; the rest of the register is somebody else's.
__attribute__((naked)) void IsOther() {
    __asm__("movabs $0x5b5b5b5b5b5b5b00, %rax; ret");
}
template <int KIND>
__attribute__((naked)) void IsOwn() {
    __asm__("movabs $0x5b5b5b5b5b5b5b01, %%rax; ret; .byte %c0" : : "i"(KIND)); // each at its own address
}

int64_t OopSize(Word, Word oop) {
    return sizeOf(oop);
}

template <int... KIND>
void TakeOwn(Word *out, std::integer_sequence<int, KIND...>) {
    ((out[KIND] = Word(&IsOwn<KIND>)), ...);
}

} // namespace

extern "C" __attribute__((visibility("default"))) void simvm_statics(Statics *out) {
    *out = {};
#define STATIC(member, ...) (out->member = member)[0] = 0;
#define KIND(name, ...) out->vtables[VT_##name] = name##_table;
#include "library_names.h"
    out->isOther = Word(&IsOther);
    TakeOwn(out->isOwn, std::make_integer_sequence<int, VTABLE_COUNT>());
    out->oopSize = Word(&OopSize);
    out->sizeOf = &sizeOf;
}
