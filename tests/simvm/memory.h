// Memory that betrays: what isn't written is poison, and members may lie in other places than layout.h has
// them.
#pragma once

#include "layout.h"

#include <cstring>

namespace simvm {

constexpr uint8_t POISON = 0x5b;
constexpr Word POISON_WORD = 0x5b5b5b5b5b5b5b5b; // odd, not null and no address

[[noreturn]] void Fail(const char *what);

// Structures that may be asked to end at a page that can't be read: all of one kind.
enum class Guarded { NOTHING, THREAD, OS_THREAD, KLASS, METHOD, CONST_METHOD, SYMBOL, POOL };

// Poisoned memory of the VM's own, 16-aligned.
Word Allocate(size_t bytes, Guarded structure = Guarded::NOTHING);
// Poisons it; the next allocation of that size gets it.
void Release(Word address, size_t bytes);
// A mapping of its own, poisoned or untouched; with protection bits beyond reading and writing.
Word Map(size_t bytes, bool poison, int protection = 0);

// How far each member lies from where layout.h has it, in this build, by its place there.
template <class S>
inline int16_t placeShift[1024];

template <class S, class T>
size_t PlaceInLayout(T S::*member) {
    alignas(16) static char any[sizeof(S)];
    return reinterpret_cast<char *>(&(reinterpret_cast<S *>(any)->*member)) - any;
}
template <class S, class T>
size_t Place(T S::*member) {
    const size_t place = PlaceInLayout(member);
    return place + placeShift<S>[place];
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
