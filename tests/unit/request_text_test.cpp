#include "qoragent/requests/request_text.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/qorformat.h"
#include "reply/qortext.h"

#include <gtest/gtest.h>
#include <string>

TEST(RequestText, ArgumentsGoToTheirSlots) {
    const std::tuple<const char *, int, const char *> rows[] = {
        {"ARG=x,8=a,0=,3=b", 3, "0= 3=b 8=a "},
        {"ARG=x,0=a,b,c=d,1=e", 2, "0=a,b,c=d 1=e "},
        {"ARG=x,9=a,0=b", 1, "0=b "}, // nothing is stored after the slots
        {"ARG=0=a", 0, ""},
    };
    for (const auto &[field, count, expected] : rows) {
        char *slots[CONSOLE_ARG_COUNT + 1] = {};
        std::string text = field;
        EXPECT_EQ(QorParseArguments(text.data(), slots), count) << field;
        std::string filled;
        for (int i = 0; i <= CONSOLE_ARG_COUNT; i++)
            if (slots[i])
                filled += std::to_string(i) + "=" + slots[i] + " ";
        EXPECT_EQ(filled, expected);
    }
}

TEST(RequestText, FlagsKeepTheirMaskedValue) {
    const std::pair<int32_t *, int32_t> flags[] = {{&no_gc, 4},
                                                   {&sp_null_enable, 8},
                                                   {&poll_details, 16},
                                                   {&trace_single_thread_details, 32},
                                                   {&show_jsp_info, 64},
                                                   {&get_system_data, 128},
                                                   {&trace_all_threads, 256},
                                                   {&copy_flags, 2048},
                                                   {&copy_flags, 4096},
                                                   {&no_locals, 8192},
                                                   {&figures_wanted, 16384}};
    for (const auto &[set, bit] : flags) {
        QorUnpackFlags(static_cast<uint32_t>(bit) | 3);
        for (const auto &[flag, own] : flags)
            EXPECT_EQ(*flag, flag == set ? bit : 0) << bit << " " << own;
        EXPECT_TRUE(qorIsPollOrTrace);
    }
    QorUnpackFlags(512);
    EXPECT_FALSE(qorIsPollOrTrace);
}

TEST(RequestText, DumpFieldsHaveAPathAndAnId) {
    snprintf(qorheapdir, sizeof qorheapdir, "/d/");
    QorParseDumpRequest("516|showmem|256|a.txt|77");
    EXPECT_STREQ(dumpfile, "/d/a.txt");
    EXPECT_EQ(heap_id, 77u);
    const std::string longest(DUMPFILE_SIZE - 5, 'n');
    QorParseDumpRequest(("516|showmem|256|" + longest + "\xc3\xa9.hprof|5").c_str());
    EXPECT_EQ(dumpfile, "/d/" + longest) << "half of a character";
    QorParseDumpRequest("516|showmem|256||9");
    EXPECT_STREQ(dumpfile, "");
}

TEST(SystemData, IsInTheDocumentedOrder) {
    char row[1000];
    QorText text;
    QorTextStart(&text, row, sizeof row);
    QorAppendSystemData(&text, {1, 2, 3, 4, 5, 6, 7});
    EXPECT_EQ(std::string(row).rfind("System Data\0361\0352\0353\0354\0355\0356\0357\035", 0), 0U) << row;
}
