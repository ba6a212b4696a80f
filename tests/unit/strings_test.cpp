#include "LogCapture.h"
#include "qorStrUtils.h"
#include "reply/qortext.h"

#include <gtest/gtest.h>
#include <memory>

namespace {

// Exactly `size` bytes on the heap, so that the sanitizer sees a step too far.
std::unique_ptr<char[]> Storage(size_t size, char fill = '#') {
    std::unique_ptr<char[]> storage(new char[size]);
    memset(storage.get(), fill, size);
    return storage;
}

void ClearReports() {
    bufferOverflowCount = bufferOverflowDumpCount = 0;
    prevBufferOverFlowDumpTime = {0, 0};
}

} // namespace

TEST(Copy, CutsToTheRoomAndOnACharacter) {
    struct {
        const char *what;
        std::string src;
        int32_t size, len, result;
        std::string copied;
    } cases[] = {
        {"size 1 fails", "abc", 1, 3, -1, ""},
        {"size 2 keeps one byte", "abc", 2, 3, 0, "a"},
        {"length 0 fails", "abc", 8, 0, -1, ""},
        {"negative length fails", "abc", 8, -4, -1, ""},
        {"part of the source", "abcdef", 8, 3, 0, "abc"},
        {"length beyond the source", "abc", 8, 8, 0, "abc"},
        {"empty source", "", 8, 8, 0, ""},
        {"just fits", "abcdefg", 8, 7, 0, "abcdefg"},
        {"cut", "abcdefgh", 8, 8, 0, "abcdefg"},
        {"two-byte character torn", "abcdef\xc3\xa9", 8, 8, 0, "abcdef"},
        {"three-byte character torn after two", "abcde\xe2\x82\xac", 8, 8, 0, "abcde"},
        {"three-byte character torn after one", "abcdef\xe2\x82\xac", 8, 9, 0, "abcdef"},
        {"four-byte character torn after three", "abcd\xf0\x9f\x98\x80", 8, 8, 0, "abcd"},
        {"torn by the caller, who gave the room", "abcdef\xc3\xa9", 8, 7, 0, "abcdef"},
        {"whole character at the end", "abcde\xc3\xa9z", 8, 8, 0, "abcde\xc3\xa9"},
        {"no UTF-8 at all", "\x80\x80\x80\x80\x80\x80\x80\x80\x80", 8, 9, 0, "\x80\x80\x80\x80\x80\x80\x80"},
    };
    for (const auto &c : cases) {
        // the source is unterminated wherever its length is given exactly
        auto src = Storage(c.src.size() + 1);
        memcpy(src.get(), c.src.c_str(), c.src.size() + 1);
        for (auto copy : {QorStrncpy, QorAgentStrncpy}) {
            auto dst = Storage(static_cast<size_t>(c.size));
            ASSERT_EQ(copy(dst.get(), src.get(), c.size, c.len), c.result) << c.what;
            EXPECT_EQ(dst[0], c.result ? '#' : c.copied[0]) << c.what;
            if (c.result == 0) {
                EXPECT_STREQ(dst.get(), c.copied.c_str()) << c.what;
            }
        }
        auto dst = Storage(static_cast<size_t>(c.size));
        int32_t count = c.len;
        EXPECT_EQ(QorStrncpy2(dst.get(), src.get(), c.size, &count), c.result) << c.what;
        EXPECT_EQ(count, static_cast<int32_t>(c.copied.size())) << c.what;
    }
    char dst[8];
    int32_t count = 3;
    EXPECT_EQ(QorStrncpy(nullptr, "abc", 8, 3), -1);
    EXPECT_EQ(QorStrncpy2(dst, nullptr, 8, &count), -1);
    EXPECT_EQ(count, 0);
}

TEST(Copy, ReadsNoByteBehindItsLength) {
    auto src = Storage(5, 'x');
    auto dst = Storage(8);
    EXPECT_EQ(QorStrncpy(dst.get(), src.get(), 8, 5), 0);
    EXPECT_STREQ(dst.get(), "xxxxx");
}

TEST(Append, NeedsRoomForTheTerminator) {
    ClearReports();
    auto dst = Storage(8);
    strncpy(dst.get(), "abcd", 8);
    EXPECT_EQ(QorStrncat2(dst.get(), "efgh", 8), -1);
    EXPECT_STREQ(dst.get(), "abcd");
    EXPECT_EQ(QorStrncat2(dst.get(), "efg", 8), 1);
    EXPECT_STREQ(dst.get(), "abcdefg");
    EXPECT_EQ(QorStrncat2(dst.get(), "", 8), 1);
    QorStrncat(dst.get(), "h", 8);
    EXPECT_STREQ(dst.get(), "abcdefg");
    EXPECT_EQ(bufferOverflowCount, 2);

    auto unterminated = Storage(4);
    EXPECT_EQ(QorStrncat2(unterminated.get(), "a", 4), -1);
    EXPECT_EQ(QorStrncat2(unterminated.get(), "", 4), -1);
    EXPECT_EQ(QorStrncat2(nullptr, "a", 4), -1);
    EXPECT_EQ(QorStrncat2(dst.get(), nullptr, 8), -1);
}

TEST(Append, ReportsOnceAnHourAndInFullAtEveryFourth) {
    ClearReports();
    LogCapture log(3);
    char dst[4] = "abc";
    for (int i = 0; i < 10; i++)
        QorStrncat2(dst, "xyz", 4);
    EXPECT_EQ(bufferOverflowCount, 10);
    EXPECT_EQ(bufferOverflowDumpCount, 1);
    EXPECT_EQ(log.count("iDestLen=3, iSourceLen=3, iMaxDestLen=4. (total count=1)"), 1) << log.text();
    EXPECT_EQ(log.count("strSource (len=3) = xyz>"), 1) << log.text();
    EXPECT_EQ(log.count("strDestination (len=3) = abc>"), 1) << log.text();

    for (int report = 2; report <= 5; report++) {
        prevBufferOverFlowDumpTime.tv_sec -=
            3590; // some seconds short of the hour, whatever the machine's pace
        QorStrncat2(dst, "xyz", 4);
        EXPECT_EQ(bufferOverflowDumpCount, report - 1);
        prevBufferOverFlowDumpTime.tv_sec -= 11;
        QorStrncat2(dst, "xyz", 4);
        EXPECT_EQ(bufferOverflowDumpCount, report);
    }
    EXPECT_EQ(log.count("Abort QorStrncat"), 5);
    EXPECT_EQ(log.count("strSource"), 2); // the first and the fifth
}

TEST(Append, AtAKeptEndRefusesByTheSameRule) {
    ClearReports();
    LogCapture log(3);
    auto storage = Storage(8);
    auto src = Storage(8, 'x'); // unterminated
    QorText text;
    QorTextStart(&text, storage.get(), 8);
    EXPECT_EQ(QorTextAppend(&text, src.get(), 8), -1);
    EXPECT_EQ(log.count("strSource (len=8) = xxxxxxxx>"), 1) << log.text();
    EXPECT_TRUE(text.refused);
    EXPECT_EQ(QorTextAppendNumber(&text, INT64_MIN), -1);
    EXPECT_EQ(QorTextAppendNumber(&text, -12), 1);
    EXPECT_EQ(QorTextAppend(&text, "abcd"), 1);
    EXPECT_STREQ(storage.get(), "-12abcd");
    EXPECT_EQ(QorTextAppend(&text, "e"), -1);
    QorTextCut(&text, 3);
    EXPECT_STREQ(storage.get(), "-12");
    EXPECT_EQ(bufferOverflowCount, 3);
}

TEST(AgentAppend, TrustsNeitherTerminator) {
    struct {
        const char *what;
        std::string dst, src; // each fills its storage up with zeros
        int32_t dstSize, srcSize, result;
        const char *after;
    } cases[] = {
        {"room", "ab", "cd", 8, 8, 0, "abcd"},
        {"just fits", "abcd", "efg", 8, 8, 0, "abcdefg"},
        {"one byte too long", "abcd", "efgh", 8, 8, -1, "abcd"},
        {"full destination, empty source", "abcdefg", "", 8, 4, 0, "abcdefg"},
        {"unterminated destination loses its last byte", "abcdefgh", "", 8, 4, 0, "abcdefg"},
        {"unterminated source loses its last byte", "ab", "cdef", 8, 4, 0, "abcde"},
    };
    LogCapture log(3);
    for (const auto &c : cases) {
        auto dst = Storage(static_cast<size_t>(c.dstSize), 0),
             src = Storage(static_cast<size_t>(c.srcSize), 0);
        memcpy(dst.get(), c.dst.data(), c.dst.size());
        memcpy(src.get(), c.src.data(), c.src.size());
        EXPECT_EQ(QorAgentStrncat(dst.get(), src.get(), c.dstSize, c.srcSize), c.result) << c.what;
        EXPECT_STREQ(dst.get(), c.after) << c.what;
    }
    EXPECT_EQ(log.count("Buffer Destination string size is not sufficient"), 1);
    EXPECT_EQ(log.count("backtrace() returned"), 1);
}

TEST(Times, AreSubtractedAndTraced) {
    EXPECT_EQ(deltaTimeUsec(10, 900000, 12, 100000), 1200000);
    EXPECT_EQ(deltaTimeUsec(12, 0, 10, 0), -2000000);
    EXPECT_EQ(deltaTimeUsec(0, 0, 4000000000, 1), 4000000000000001);
    LogCapture log(5);
    EXPECT_EQ(QorDumpTime(10, 900000, 12, 100000, "walk"), 0);
    EXPECT_EQ(log.count("<walk - process time : 1 sec,200000 usec>"), 1) << log.text();
    EXPECT_EQ(QorDumpTime(0, 0, 1, 0, nullptr), -1);
    qorloglevel = 3;
    EXPECT_EQ(QorDumpTime(0, 0, 1, 0, nullptr), 0);
}
