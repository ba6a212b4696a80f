// Memory that betrays: what isn't written is poison, and members may lie in other places than layout.h has
// them.
#pragma once

#include "layout.h"

#include <cstring>
#include <type_traits>

namespace simvm {

constexpr uint8_t POISON = 0x5b;
constexpr Word POISON_WORD = 0x5b5b5b5b5b5b5b5b; // odd, not null and no address

[[noreturn]] void Fail(const char *what);

// Poisoned memory of the VM's own, 16-aligned. The structure chosen by Options::guarded ends at a page that
// can't be read.
Word Allocate(size_t bytes, int32_t structure = STRUCT_COUNT);
// Poisons it; the next allocation of that size gets it.
void Release(Word address, size_t bytes);
// A mapping of its own, poisoned or untouched; with protection bits beyond reading and writing.
Word Map(size_t bytes, bool poison, int protection = 0);

// How far a member lies from where layout.h has it, in this build.
extern int16_t placeShift[STRUCT_COUNT][1024];

template <class S, class = void>
struct StructOf {
    static constexpr int32_t ID = STRUCT_COUNT;
};
template <class S>
struct StructOf<S, std::void_t<decltype(S::ID)>> {
    static constexpr int32_t ID = S::ID;
};

template <class S, class T>
size_t Place(T S::*member) {
    alignas(16) static char any[sizeof(S)];
    size_t place = reinterpret_cast<char *>(&(reinterpret_cast<S *>(any)->*member)) - any;
    if constexpr (StructOf<S>::ID != STRUCT_COUNT)
        place += placeShift[StructOf<S>::ID][place];
    return place;
}

template <class T>
__attribute__((always_inline)) inline T &As(Word address) {
    return *reinterpret_cast<T *>(address);
}

// The member of the structure at that address.
template <class S, class T>
T &At(Word address, T S::*member) {
    return As<T>(address + Place(member));
}

} // namespace simvm
