#include "LogCapture.h"
#include "Xtier/tiers/XtierQRF.h"

#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

using Row = char[GROOVY_LINE_SIZE];

// The line for call site `index` of those named.
int32_t lineOf(const char *script, const std::vector<std::string> &sites, int32_t index) {
    const std::unique_ptr<Row[]> rows(new Row[GROOVY_CALL_SITES]());
    for (size_t i = 0; i < sites.size(); i++)
        snprintf(rows[i], sizeof rows[i], "%s", sites[i].c_str());
    return getGroovyCurrentLineNo(script, rows.get(), static_cast<int32_t>(sites.size()), index, 1000);
}

std::string scriptOf(int lines) {
    std::string script;
    for (int i = 1; i <= lines; i++)
        script += "call" + std::to_string(i) + "()\n";
    return script;
}

std::vector<std::string> sitesOf(int count, int last) {
    std::vector<std::string> sites(static_cast<size_t>(count), "absent");
    sites.back() = "call" + std::to_string(last) + "(";
    return sites;
}

} // namespace

TEST(GroovyLines, AreFoundByTheNamesOfTheCallSites) {
    const char *script = "first()\nsecond(); first()\n\nthird()\nlast()";
    const struct {
        std::vector<std::string> sites;
        int32_t index, line;
    } ROWS[] = {
        {{"first", "second", "first", "third"}, 0, 1},
        {{"first", "second", "first", "third"}, 1, 2},
        {{"first", "second", "first", "third"}, 2, 2},
        {{"first", "second", "first", "third"}, 3, 4},
        // What isn't in the text is passed over.
        {{"first", "absent", "third"}, 2, 4},
        // Each name is looked for behind the one before.
        {{"third", "first"}, 1, 4},
        // Nothing has been found.
        {{"absent"}, 0, 1},
        {{}, 0, 1},
        {{""}, 0, 1},
        {{"first"}, -1, 1},
        // The last line has no end: the number of the call site after this one.
        {{"first", "last"}, 1, 2},
        // More call sites than names are known.
        {{"first", "second"}, 7, 2},
        {{"first", "second"}, 1000, 2},
        {{"first", "second"}, 1001, 1},
    };
    for (const auto &row : ROWS)
        EXPECT_EQ(lineOf(script, row.sites, row.index), row.line) << row.index;
    EXPECT_EQ(lineOf("", {"first"}, 0), 1);
    EXPECT_EQ(lineOf(nullptr, {"first"}, 5), 5);
    EXPECT_EQ(lineOf("only()", {"only"}, 0), 1);
    EXPECT_EQ(lineOf("a\nb\nc\n", {"a", "b"}, 1), 2);
}

TEST(GroovyLines, EndAtAThousand) {
    const std::string script = scriptOf(1500);
    LogCapture log(4);
    EXPECT_EQ(lineOf(script.c_str(), sitesOf(10, 999), 9), 999);
    EXPECT_EQ(log.count("Error: Groovy Script contains more than 1000 lines "), 0);
    EXPECT_EQ(lineOf(script.c_str(), sitesOf(10, 1000), 9), 9);
    EXPECT_EQ(lineOf(script.c_str(), sitesOf(10, 1200), 9), 9);
    EXPECT_EQ(log.count("Error: Groovy Script contains more than 1000 lines "), 2);
    // All rows are in use: the one behind the last is not read.
    EXPECT_EQ(lineOf(script.c_str(), sitesOf(1000, 700), 1000), 700);
}
