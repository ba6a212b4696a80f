#include "Xtier/tiers/XtierQRF.h"

#include <gtest/gtest.h>
#include <string>
#include <vector>

TEST(GroovyLines, AreFoundByTheNamesOfTheCallSites) {
    std::string lines;
    for (int i = 1; i <= 1500; i++)
        lines += "call" + std::to_string(i) + "()\n";
    const std::string script = "first()\nsecond(); first()\n\nthird()\nlast()";
    const struct {
        std::string script;
        std::vector<const char *> sites;
        int32_t index, line;
    } rows[] = {
        {script, {"first", "second", "first", "third"}, 3, 4},
        {script, {"first", "absent", "third"}, 2, 4}, // what isn't in the text is passed over
        {script, {"third", "first"}, 1, 4},           // each name is looked for after the one before
        {script, {"first", "last"}, 1, 2},   // the last line has no end: the number of the next call site
        {script, {"first", "second"}, 7, 2}, // more call sites than names are known
        {script, {"first", "second"}, 1001, 1},
        {lines, {"call1000("}, 9, 9}, // no more lines than that are counted
    };
    for (const auto &row : rows) {
        static char names[GROOVY_CALL_SITES][GROOVY_LINE_SIZE];
        for (size_t i = 0; i < row.sites.size(); i++)
            snprintf(names[i], sizeof names[i], "%s", row.sites[i]);
        EXPECT_EQ(getGroovyCurrentLineNo(row.script.c_str(), names, static_cast<int32_t>(row.sites.size()),
                                         row.index, 1000),
                  row.line)
            << row.sites[0] << row.index;
    }
    EXPECT_EQ(getGroovyCurrentLineNo(nullptr, nullptr, 0, 5, 1000), 5);
}
