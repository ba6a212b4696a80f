#include "Xtier/tiers/XtierQRF.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

// The line of call site `index` of those named.
int32_t LineOf(const std::string &script, const std::vector<std::string> &sites, int32_t index) {
    using Row = char[GROOVY_LINE_SIZE];
    const std::unique_ptr<Row[]> rows(new Row[GROOVY_CALL_SITES]());
    for (size_t i = 0; i < sites.size(); i++)
        snprintf(rows[i], sizeof rows[i], "%s", sites[i].c_str());
    return getGroovyCurrentLineNo(script.c_str(), rows.get(), static_cast<int32_t>(sites.size()), index,
                                  1000);
}

} // namespace

TEST(GroovyLines, AreFoundByTheNamesOfTheCallSites) {
    const struct {
        std::vector<std::string> sites;
        int32_t index, line;
    } rows[] = {
        {{"first", "second", "first", "third"}, 0, 1},
        {{"first", "second", "first", "third"}, 2, 2},
        {{"first", "second", "first", "third"}, 3, 4},
        {{"first", "absent", "third"}, 2, 4}, // what isn't in the text is passed over
        {{"third", "first"}, 1, 4},           // each name is looked for after the one before
        {{"absent"}, 0, 1},
        {{}, 0, 1},
        {{"first"}, -1, 1},
        {{"first", "last"}, 1, 2},   // the last line has no end: the number of the call site after this one
        {{"first", "second"}, 7, 2}, // more call sites than names are known
        {{"first", "second"}, 1001, 1},
    };
    for (const auto &row : rows)
        EXPECT_EQ(LineOf("first()\nsecond(); first()\n\nthird()\nlast()", row.sites, row.index), row.line)
            << row.index;
    EXPECT_EQ(getGroovyCurrentLineNo(nullptr, nullptr, 0, 5, 1000), 5);
}

TEST(GroovyLines, EndAtAThousand) {
    std::string script;
    for (int i = 1; i <= 1500; i++)
        script += "call" + std::to_string(i) + "()\n";
    std::vector<std::string> sites(1000, "absent");
    for (const auto &[last, line] : {std::pair(700, 700), {999, 999}, {1000, 1000}, {1200, 1000}}) {
        sites.back() = "call" + std::to_string(last) + "(";
        EXPECT_EQ(LineOf(script, sites, 1000),
                  line); // all rows are in use: the one after the last isn't read
    }
}
