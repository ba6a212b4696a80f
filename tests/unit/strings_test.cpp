#include "qorStrUtils.h"
#include "reply/qortext.h"

#include <gtest/gtest.h>
#include <memory>

namespace {

// Exactly `size` bytes on the heap, so that the sanitizer sees a step too far.
std::unique_ptr<char[]> Storage(size_t size, const std::string &text, char fill = '#') {
    std::unique_ptr<char[]> storage(new char[size]);
    memset(storage.get(), fill, size);
    memcpy(storage.get(), text.data(), text.size());
    return storage;
}

} // namespace

TEST(Copy, CutsToTheRoomAndOnACharacter) {
    const struct {
        std::string src;
        int32_t size, len, result;
        std::string copied;
    } rows[] = {
        {"abc", 1, 3, -1, ""},
        {"abc", 8, 3, 0, "abc"},               // a part of an unterminated text
        {"abcdef\xc3\xa9", 8, 8, 0, "abcdef"}, // not half of a character
        {"abcde\xc3\xa9z", 8, 8, 0, "abcde\xc3\xa9"},
        {std::string(9, '\x80'), 8, 9, 0, std::string(7, '\x80')}, // no UTF-8 at all
    };
    for (const auto &row : rows) {
        const auto src = Storage(row.src.size(), row.src);
        for (auto copy : {QorStrncpy, QorAgentStrncpy}) {
            auto dst = Storage(static_cast<size_t>(row.size), "");
            ASSERT_EQ(copy(dst.get(), src.get(), row.size, row.len), row.result) << row.src;
            EXPECT_TRUE(row.result ? dst[0] == '#' : row.copied == dst.get()) << row.src;
        }
    }
}

TEST(Append, AtAKeptEndRefusesByTheSameRule) {
    bufferOverflowCount = 0;
    auto storage = Storage(8, "");
    const auto src = Storage(8, ""), full = Storage(8, "abcd", 0); // the first without a terminator
    EXPECT_EQ(QorStrncat2(full.get(), "efgh", 8), -1);
    EXPECT_EQ(QorStrncat2(full.get(), "efg", 8), 1);
    QorText text;
    QorTextStart(&text, storage.get(), 8);
    EXPECT_EQ(QorTextAppend(&text, src.get(), 8), -1);
    EXPECT_TRUE(text.refused);
    EXPECT_EQ(QorTextAppendNumber(&text, INT64_MIN), -1);
    EXPECT_EQ(QorTextAppendNumber(&text, -12), 1);
    EXPECT_EQ(QorTextAppend(&text, "abcd"), 1);
    EXPECT_STREQ(storage.get(), "-12abcd");
    EXPECT_EQ(QorTextAppend(&text, "e"), -1);
    QorTextCut(&text, 3);
    EXPECT_STREQ(storage.get(), "-12");
    EXPECT_EQ(bufferOverflowCount, 4);
}

TEST(AgentAppend, TrustsNeitherTerminator) {
    const struct {
        std::string dst, src; // each fills its storage up with zeros
        int32_t srcSize, result;
        const char *after;
    } rows[] = {
        {"abcd", "efg", 8, 0, "abcdefg"},
        {"abcd", "efgh", 8, -1, "abcd"},
        {"abcdefgh", "", 4, 0, "abcdefg"}, // unterminated, it loses its last byte
        {"ab", "cdef", 4, 0, "abcde"},
    };
    for (const auto &row : rows) {
        const auto dst = Storage(8, row.dst, 0), src = Storage(static_cast<size_t>(row.srcSize), row.src, 0);
        EXPECT_EQ(QorAgentStrncat(dst.get(), src.get(), 8, row.srcSize), row.result) << row.src;
        EXPECT_STREQ(dst.get(), row.after);
    }
}
