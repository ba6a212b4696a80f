// The VM's static variables under the names that its library has for them. The library is built of
// statics.cpp alone, twice: as server/libjvm.so and as client/libjvm.so. A program opens one of the two and
// gets the addresses of its statics through simvm_statics.
#pragma once

#include "layout.h"

namespace simvm {

constexpr int STATIC_WORDS = 192; // of each variable, as many as the largest needs

enum VtableKind {
#define KIND(name, ...) VT_##name,
#include "library_names.h"
    VTABLE_COUNT
};
constexpr char KIND_LETTERS[] = {
#define KIND(name, base, symbol, predicate, letter) letter,
#include "library_names.h"
};

struct Statics {
#define STATIC(member, ...) Word *member;
#include "library_names.h"
    Word *vtables[VTABLE_COUNT];
    // The library's functions, for the tables: a predicate's answers, one that sizes an object.
    Word isOther, isOwn[VTABLE_COUNT], oopSize;
    int64_t (**sizeOf)(Word oop); // who answers oopSize, in words
};

} // namespace simvm
