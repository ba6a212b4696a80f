#include "platforms/findsymLinSolHPIA64.h"
#include "qorsettings.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

struct Words {
    uint32_t word[SYMBOL_WORDS];
};

Words MissingFor(const char *key) {
    Words words = {};
    findsymbols(0, key, words.word);
    return words;
}

} // namespace

// Exact texts decide; what is not listed is not supported, and is told apart from a missing symbol.
TEST(Release, AnExactTextSelectsTheBuild) {
    struct {
        const char *key;
        int32_t build;
        bool jvmtiRoad;
    } rows[] = {
        {"Sun Microsystems Inc.1.5.0_07", 7, false},
        {"Sun Microsystems Inc.1.5.0_16", 6, false},
        {"Sun Microsystems Inc.1.5.0_19", 9, false},
        {"Sun Microsystems Inc.1.5.0_22", 10, false},
        {"Sun Microsystems Inc.1.5.0_09", -100, false},
        {"Sun Microsystems Inc.1.5.0_070", -100, false},
        {"DOV Systems, Inc.1.6.0_11", 65, true},
        {"DOV Systems, Inc.1.6.0_1", -100, false},
        {"Vorn Default JVM.1.6.0_00", 99, true},
        {"JVMTI_JVM", 98, true},
        {"", -100, false},
    };
    for (const auto &row : rows) {
        const Words words = MissingFor(row.key);
        EXPECT_EQ(offsetind, row.build) << row.key;
        EXPECT_EQ(QorOnJvmtiRoad(), row.jvmtiRoad) << row.key;
        EXPECT_EQ(words.word[0] == SYMBOLS_NO_LIST, row.build == BUILD_UNSUPPORTED) << row.key;
    }
}

// In a process without a JVM library the direct road lacks everything it needs, on a server VM as on a client
// VM, and never by the bits that are codes; the JVMTI road needs nothing.
TEST(Release, TheDirectRoadMissesItsSymbols) {
    for (int32_t server : {0, 1}) {
        Words words = MissingFor("Sun Microsystems Inc.1.5.0_07");
        EXPECT_EQ(words.word[0] & 7, 0u);
        jat_server_jvm = server;
        QorForgiveSymbols(words.word);
        EXPECT_EQ(words.word[0] & (1u << 18), server ? 0u : 1u << 18) << "slot 16 is a client VM's";
        EXPECT_EQ(words.word[0] & (1u << 20), server ? 1u << 20 : 0u) << "slot 18 is a server VM's";
        EXPECT_NE(words.word[1], 0u);
        EXPECT_EQ(words.word[2], 0xffu) << "70 to 72 can be done without";
    }
    EXPECT_EQ(MissingFor("JVMTI_JVM").word[0], 0x38u);
    EXPECT_EQ(MissingFor("Vorn Default JVM.1.6.0_00").word[0], 0u);
}
