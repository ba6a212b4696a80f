// Text dumps built by hand and read back; a dump's file watched while it grows; names of dumps.
#include "Folder.h"
#include "dumps/heap_dump.h"
#include "show/render_dump.h"
#include "wire.h"

#include <memory>
#include <unistd.h>

using namespace qorctl;

namespace {

const std::string HEADER = "heap_id=7|T1700000000|host|id|Vendor|17.0.1|1|System|4096|1024\n";
const std::string ROOTS = "Sf100000||\n"
                          "Sa100001|Thread-1_La.B::run|\n"
                          "Sc100002|Thread-1_La.B::run|\n"
                          "Sc100003|\n"
                          "Ss100001||\n"
                          "SBa100|\nSBa101|\n"
                          "SA100004||\n";
// Two objects of class 101, one of them with a field; one of 102, which refers to nothing; arrays.
const std::string OBJECTS = "SBa102|\n"
                            "SBa101|\nA8100001|18|101\nR100005|102|102a0\n"
                            "SBa101|\n"
                            "SBa103|\nA[000000001b|100006|80|103\nR100001\nR100005\n"
                            "SBa103|\n"
                            "SBa4|\nA[400|100007|410|4\n"
                            "SBa4|\nA[3|100008|18|4\n"
                            "B0a101|70|101\nR100001|101|101a2\n"
                            "SBa100123|\n"
                            "Sa100009|Thread-9_|\n" // of a virtual thread
                            "Sa101|Thread-9_|\n";   // the same, a class
const std::string CLASSES =
    "B0a101|5|101\nB1101|5|La/B;\nB1101a0|4|next\nB0a102|5|102\nB1102|5|La/C;\n"
    "B0a103|6|103\nB1103|6|[La/B;\nB0a4|2|4\nB14|2|[B\nB1104|7|Lodd\nx;\nB0a105|3|105\n";
const std::string TRAILER = " Finished 12 secs", WHOLE = HEADER + ROOTS + OBJECTS + CLASSES + TRAILER;

DumpSummary Read(std::string text, size_t arrays = 10) {
    std::unique_ptr<FILE, int (*)(FILE *)> file(fmemopen(text.data(), text.size(), "r"), fclose);
    return ReadTextDump(file.get(), arrays);
}

// "objects bytes", and a plus when that isn't the size of all.
std::string CountOf(const DumpSummary &dump, const std::string &name) {
    for (const DumpClass &entry : dump.classes)
        if (entry.name == name)
            return std::to_string(entry.objects) + " " + std::to_string(entry.bytes) +
                   (entry.bytes_all ? "" : "+");
    return "none";
}

TEST(ReadTextDump, ObjectsArraysAndRoots) {
    DumpSummary dump = Read(WHOLE, 2);
    EXPECT_TRUE(dump.references == 4 && dump.objects == 8);
    EXPECT_EQ(std::vector<int64_t>(dump.roots, dump.roots + ROOT_KINDS),
              (std::vector<int64_t>{1, 3, 1, 1, 1, 2, 1}));
    ASSERT_EQ(dump.classes.size(), 5u);
    EXPECT_EQ(CountOf(dump, "byte[]"), "2 1064");
    EXPECT_EQ(CountOf(dump, "a.B"), "2 48");     // the size of one is that of all
    EXPECT_EQ(CountOf(dump, "a.C"), "1 0+");     // none of them refers to anything
    EXPECT_EQ(CountOf(dump, "a.B[]"), "2 128+"); // one is empty and has no record
    EXPECT_EQ(CountOf(dump, ""), "1 0+");        // loaded while the dump was made
    ASSERT_EQ(dump.arrays.size(), 2u);           // the largest
    EXPECT_TRUE(dump.arrays[0].elements == 0x400 && dump.arrays[1].bytes == 0x80);
    ExpectParts(DumpText(dump, 3, Style()), {"\n      2  >= 128 B  a.B[]\n", "the largest 3 of 5 classes"});
}

// A dump may end anywhere; only before its trailer's end it isn't whole, and no number is made up.
TEST(ReadTextDump, CutAnywhere) {
    for (size_t length = HEADER.size(); length < WHOLE.size(); ++length) {
        try {
            DumpSummary dump = Read(WHOLE.substr(0, length));
            EXPECT_LE(dump.objects, 8) << length;
            ExpectParts(DumpText(dump, 9, Style()), {"the dump has no end"});
        } catch (const Failure &failure) {
            ExpectParts(failure.what(), {"line "});
        }
    }
    ExpectParts(DumpText(Read(HEADER + ROOTS + OBJECTS + TRAILER), 9, Style()), {"names no class"});
}

TEST(DumpFiles, AreKnownByTheirNumberAndEnd) {
    const Folder folder;
    const DumpTarget target = ChooseDumpTarget(folder.In("d"), false);
    const std::tuple<std::string, bool, bool, const char *> rows[] = {
        {"", false, false, "is empty"},
        {HEADER + "x Finished 1 secs", true, false, "lacks its end"}, // the end of a name
        {HEADER + TRAILER, true, true, ""},
        {"heap_id=8" + HEADER.substr(9) + TRAILER, false, false, "was there before"},
    };
    for (const auto &[text, begun, whole, fault] : rows) {
        folder.Fill("d", text);
        DumpProgress progress = LookAtDump(getpid(), target, 7);
        EXPECT_EQ(progress.begun, begun) << text;
        EXPECT_EQ(progress.whole, whole) << text;
        ExpectParts(ExplainMissingDump(getpid(), target, 7).what, {fault});
    }
}

} // namespace
