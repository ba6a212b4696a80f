#include "release.h"

#include "findsymLinSolHPIA64.h"
#include "qorsettings.h"

#include <cstring>

const QorRelease release[RELEASE_ROWS] = {
    {"Sun Microsystems Inc.1.5.0_07", 7},
    {"Sun Microsystems Inc.1.5.0_08", 8},
    {"Sun Microsystems Inc.1.5.0_10", 6},
    {"Sun Microsystems Inc.1.5.0_11", 6},
    {"Sun Microsystems Inc.1.5.0_12", 6},
    {"Sun Microsystems Inc.1.5.0_13", 6},
    {"Sun Microsystems Inc.1.5.0_14", 6},
    {"Sun Microsystems Inc.1.5.0_15", 6},
    {"Sun Microsystems Inc.1.5.0_16", 6},
    {"Sun Microsystems Inc.1.5.0_17", 9},
    {"Sun Microsystems Inc.1.5.0_18", 9},
    {"Sun Microsystems Inc.1.5.0_19", 9},
    {"Sun Microsystems Inc.1.5.0_20", 10},
    {"Sun Microsystems Inc.1.5.0_21", 10},
    {"Sun Microsystems Inc.1.5.0_22", 10},
    {"DOV Systems, Inc.1.5.0_17", BUILD_JVMTI_DOV},
    {"DOV Systems, Inc.1.5.0_19", BUILD_JVMTI_DOV},
    {"DOV Systems, Inc.1.6.0_11", BUILD_JVMTI_DOV},
    {DEFAULT_JVM, BUILD_JVMTI_DEFAULT},
    {SYMBOLS_JVM, BUILD_JVMTI_SYMBOLS},
};

namespace {

// Symbols that a direct build can do without, as missing-symbol words. A server VM has no client compiler's
// tables and the other way round; the rest goes by names that only some compilers give.
constexpr uint32_t FORGIVEN_SERVER[SYMBOL_WORDS] = {0x040fbe20, 0x01000461, 0x00000700, 0};
constexpr uint32_t FORGIVEN_CLIENT[SYMBOL_WORDS] = {0x041bbe20, 0x01000461, 0x00000700, 0};

} // namespace

int32_t QorFindRelease(const char *key) {
    for (const QorRelease &row : release)
        if (strcmp(row.key, key) == 0)
            return row.offsetind;
    return BUILD_UNSUPPORTED;
}

void QorForgiveSymbols(uint32_t words[SYMBOL_WORDS]) {
    const uint32_t *forgiven = jat_server_jvm ? FORGIVEN_SERVER : FORGIVEN_CLIENT;
    for (int i = 0; i < SYMBOL_WORDS; i++)
        words[i] &= ~forgiven[i];
}
