#include "qoragent/requests/request_text.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/qorformat.h"

#include <cstring>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace {

// A copy of exactly the text's size, so that the sanitizer sees a read past it.
std::unique_ptr<char[]> Exact(const std::string &text) {
    std::unique_ptr<char[]> copy(new char[text.size() + 1]);
    memcpy(copy.get(), text.c_str(), text.size() + 1);
    return copy;
}

} // namespace

TEST(RequestText, NumbersEndAtABarAndWrap) {
    struct {
        const char *text;
        uint32_t value;
    } rows[] = {
        {"8192|ARG", 8192},  {"0", 0}, {"", 0}, {"|", 0}, {"4294967296|", 0}, {"4294967297", 1},
        {"-1", 4294967267u}, // ('-' - '0') * 10 + 1: nothing is validated
        {"1a", 59},
    };
    for (const auto &row : rows) {
        const auto text = Exact(row.text);
        EXPECT_EQ(QorParseNumber(text.get()), row.value) << row.text;
    }
}

TEST(RequestText, AddressesAreHexadecimalOfEitherCase) {
    struct {
        const char *text;
        uint64_t value;
    } rows[] = {
        {"7fFf00a9", 0x7fff00a9},
        {"", 0},
        {"ffffffffffffffff", ~uint64_t{0}},
        {"1ffffffffffffffff", ~uint64_t{0}},
        {"0x10", ((uint64_t{'x'} - 87) * 16 + 1) * 16},
    };
    for (const auto &row : rows)
        EXPECT_EQ(atoqoraddr(Exact(row.text).get()), row.value) << row.text;
}

TEST(RequestText, ArgumentsGoToTheirSlots) {
    constexpr int NONE = -1;
    struct {
        const char *field;
        int count; // NONE: no equals sign
        std::vector<std::pair<int, std::string>> slots;
    } rows[] = {
        {"ARG=x,0=first,1=second", 2, {{0, "first"}, {1, "second"}}},
        {"ARG=x,8=a,0=,3=b", 3, {{8, "a"}, {0, ""}, {3, "b"}}},
        {"ARG=x,0=a,b,c=d,1=e", 2, {{0, "a,b,c=d"}, {1, "e"}}},
        {"ARG=x,0=a,1=b,2", 2, {{0, "a"}, {1, "b,2"}}},
        {"ARG=x,0=a|b,1=c|d", 2, {{0, "a|b"}, {1, "c|d"}}},
        {"ARG=x,9=a,0=b", 1, {{0, "b"}}},
        {"ARG=x,0=a,9=b", 1, {{0, "a"}}},
        {"ARG=x,y,0=a", 1, {{0, "a"}}},
        {"ARG=x,0=a,0=b", 2, {{0, "b"}}},
        {"ARG=,0=a", 1, {{0, "a"}}},
        {"ARG=", 0, {}},
        {"ARG=0=a", 0, {}},
        {"ARG=x,0", 0, {}},
        {"ARG=x,", 0, {}},
        {"ARG", NONE, {}},
        {"ARG,0", NONE, {}},
    };
    for (const auto &row : rows) {
        SCOPED_TRACE(row.field);
        char kept[] = "kept";
        char *slots[CONSOLE_ARG_COUNT + 1] = {};
        slots[CONSOLE_ARG_COUNT] = kept;
        if (row.count == NONE)
            slots[0] = slots[1] = kept;
        const auto field = Exact(row.field);
        EXPECT_EQ(QorParseArguments(field.get(), slots), row.count == NONE ? 0 : row.count);
        for (int i = 0; i < CONSOLE_ARG_COUNT; i++) {
            std::string expected = row.count == NONE && i == 1 ? "kept" : "none";
            for (const auto &slot : row.slots)
                if (slot.first == i)
                    expected = slot.second;
            EXPECT_EQ(slots[i] ? slots[i] : "none", expected) << "slot " << i;
        }
        EXPECT_EQ(slots[CONSOLE_ARG_COUNT], kept) << "digit 9 was stored behind the slots";
    }
}

TEST(RequestText, FlagsKeepTheirMaskedValue) {
    QorUnpackFlags(4 + 16 + 256);
    EXPECT_EQ(no_gc, 4);
    EXPECT_EQ(poll_details, 16);
    EXPECT_EQ(trace_all_threads, 256);
    EXPECT_EQ(sp_null_enable + trace_single_thread_details + show_jsp_info + get_system_data, 0);
    EXPECT_EQ(qorIsPollOrTrace, 1);

    gbIbmJvm = 1;
    QorUnpackFlags(512 + 128 + 64 + 32 + 8 + 3);
    gbIbmJvm = 0;
    EXPECT_EQ(no_gc + poll_details + trace_all_threads, 0);
    EXPECT_EQ(trace_single_thread_details, 32);
    EXPECT_EQ(show_jsp_info, 64);
    EXPECT_EQ(get_system_data, 128);
    EXPECT_EQ(sp_null_enable, 0) << "never on IBM JVMs";
    EXPECT_EQ(qorIsPollOrTrace, 0);
    QorUnpackFlags(8);
    EXPECT_EQ(sp_null_enable, 8);
}

TEST(RequestText, DumpFieldsGiveAPathAndAnId) {
    const std::string longName(600, 'n');
    struct {
        std::string request, path;
        uint32_t id;
    } rows[] = {
        {"516|showmem|256|a.txt|77", "/d/a.txt", 77},
        {"516|showmem|256|a.txt", "/d/a.txt", 0},
        {"516|showmem|256|a.txt|", "/d/a.txt", 0},
        {"516|showmem|256|a.txt|12|13", "/d/a.txt", 12},
        {"516|showmem|256|", "", 0},
        {"516|showmem|256||9", "", 0},
        {"516|showmem|256", "", 0},
        {"516|showmem", "", 0},
        {"", "", 0},
        {"516|showmem|256|" + longName + "|5", "/d/" + longName.substr(0, DUMPFILE_SIZE - 4), 5},
        {"516|showmem|256|" + longName.substr(0, DUMPFILE_SIZE - 5) + "\xc3\xa9.hprof|5",
         "/d/" + longName.substr(0, DUMPFILE_SIZE - 5), 5}, // not half of a character
    };
    snprintf(qorheapdir, sizeof qorheapdir, "/d/");
    for (const auto &row : rows) {
        snprintf(dumpfile, sizeof dumpfile, "old");
        heap_id = 3;
        const auto request = Exact(row.request);
        QorParseDumpRequest(request.get());
        EXPECT_EQ(std::string(dumpfile), row.path) << row.request;
        EXPECT_EQ(heap_id, row.id) << row.request;
        EXPECT_EQ(std::string(request.get()), row.request) << "the request was cut";
    }
}
