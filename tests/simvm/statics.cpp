#include "statics.h"

#include <cstdio>
#include <cstdlib>
#include <utility>

using namespace simvm;

#ifdef SIMVM_CLIENT
#define SIMVM_ALL_STATICS(X) SIMVM_STATICS(X) SIMVM_CLIENT_STATICS(X)
#else
#define SIMVM_ALL_STATICS(X) SIMVM_STATICS(X) SIMVM_SERVER_STATICS(X)
#endif

// Initialised, so that they are in the file's data as in the real library, not in memory mapped beside it.
#define DEFINE(member, symbol, words, visible)                                                               \
    extern "C" Word member[words] __asm__(symbol);                                                           \
    __attribute__((visibility(#visible), used)) Word member[words] = {1};
SIMVM_ALL_STATICS(DEFINE)
#undef DEFINE
#define DEFINE(kind, base, symbol, visible, predicate, letter)                                               \
    extern "C" Word kind##_table[VTABLE_WORDS] __asm__("_ZTV" symbol);                                       \
    __attribute__((visibility(#visible), used)) Word kind##_table[VTABLE_WORDS] = {1};
SIMVM_VTABLES(DEFINE)
#undef DEFINE

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

void Unasked() {
    fprintf(stderr, "simvm: a virtual function was called that nobody may call\n");
    abort();
}

template <int... KIND>
void TakeOwn(Word *out, std::integer_sequence<int, KIND...>) {
    ((out[KIND] = reinterpret_cast<Word>(&IsOwn<KIND>)), ...);
}

} // namespace

extern "C" __attribute__((visibility("default"))) void simvm_statics(Statics *out) {
    *out = {};
#define TAKE(member, symbol, words, visible) (out->member = member)[0] = 0;
    SIMVM_ALL_STATICS(TAKE)
#undef TAKE
#define TAKE(kind, ...) out->vtables[VT_##kind] = kind##_table;
    SIMVM_VTABLES(TAKE)
#undef TAKE
#ifndef SIMVM_CLIENT
    out->server = true;
#endif
    out->isOther = reinterpret_cast<Word>(&IsOther);
    TakeOwn(out->isOwn, std::make_integer_sequence<int, VTABLE_COUNT>());
    out->oopSize = reinterpret_cast<Word>(&OopSize);
    out->unasked = reinterpret_cast<Word>(&Unasked);
    out->sizeOf = &sizeOf;
}
