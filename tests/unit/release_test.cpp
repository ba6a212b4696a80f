#include "platforms/findsymLinSolHPIA64.h"
#include "qorsettings.h"

#include <gtest/gtest.h>

// Exact texts decide; what isn't listed isn't supported, and is told apart from a missing symbol.
TEST(Release, AnExactTextSelectsTheBuild) {
    const struct {
        const char *key;
        int32_t build;
        bool jvmtiRoad;
    } rows[] = {
        {"Sun Microsystems Inc.1.5.0_07", 7, false},    {"Sun Microsystems Inc.1.5.0_22", 10, false},
        {"Sun Microsystems Inc.1.5.0_09", -100, false}, {"Sun Microsystems Inc.1.5.0_070", -100, false},
        {"Vorn Default JVM.1.6.0_00", 99, true},        {"", -100, false},
    };
    for (const auto &row : rows) {
        uint32_t words[SYMBOL_WORDS] = {};
        findsymbols(0, row.key, words);
        EXPECT_EQ(offsetind, row.build) << row.key;
        EXPECT_EQ(QorOnJvmtiRoad(), row.jvmtiRoad) << row.key;
        EXPECT_EQ(words[0] == SYMBOLS_NO_LIST, row.build == BUILD_UNSUPPORTED) << row.key;
    }
}
