// Which JVM is which: vendor and version to a build index, and with it the road.
#pragma once

#include <cstdint>

enum : int32_t {
    RELEASE_ROWS = 20,
    SYMBOL_WORDS = 4,
};

// Keys of the JVMTI road for a JVM of any vendor: without symbols of the JVM library, and with the few that
// guards and chaining want.
constexpr char DEFAULT_JVM[] = "Vorn Default JVM.1.6.0_00";
constexpr char SYMBOLS_JVM[] = "JVMTI_JVM";

struct QorRelease {
    const char *key; // vendor text, directly followed by version text
    int32_t offsetind;
};

extern const QorRelease release[RELEASE_ROWS];

// Codes in word 0 of the missing-symbol words; a missing symbol's bit is its slot plus 2 and so never
// collides.
enum : uint32_t {
    SYMBOLS_NO_LIST = 7, // the JVM has no row
    SYMBOLS_UNSUPPORTED = 6,
};

// The row's build index, or BUILD_UNSUPPORTED.
int32_t QorFindRelease(const char *key);

// Clears the bits of the symbols that a direct build can do without, by the kind of VM (jat_server_jvm).
void QorForgiveSymbols(uint32_t words[SYMBOL_WORDS]);
