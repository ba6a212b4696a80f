#include "RequestHandler/records.h"
#include "RequestHandler/stack_rows.h"
#include "Xtier/XtierInsert.h"
#include "qorrequest.h"

#include <gtest/gtest.h>

#include <string>

namespace {

// Control characters as a reader sees them: field |, record ;, section #, others by number.
std::string Visible(const char *text) {
    std::string out;
    for (; *text; ++text) {
        switch (*text) {
        case FIELD_SEP:
            out += '|';
            break;
        case RECORD_END:
            out += ';';
            break;
        case SECTION_END:
            out += '#';
            break;
        default:
            if (*text < 32)
                out += "<" + std::to_string(*text) + ">";
            else
                out += *text;
        }
    }
    return out;
}

struct Built {
    char storage[4096];
    QorText text;
    Built() { QorTextStart(&text, storage, sizeof storage); }
    std::string Seen() const { return Visible(text.text); }
};

QorFrameRecord Frame(const char *file, int32_t line) {
    QorFrameRecord frame = {};
    frame.methodId = 140000000000001;
    frame.className = "a.B";
    frame.method = "run";
    frame.fileName = file;
    frame.line = line;
    return frame;
}

TEST(Records, TitleIsTheFirstRowThatApplies) {
    struct Case {
        uint32_t reqid;
        int32_t details, trace;
        const char *title;
    };
    const Case cases[] = {
        {0x80, 0, 0, "JVM Memory Activity;"},
        {0x2180, 0, 0, "JVM Memory Activity;"},
        {0x2100, 0, 0, "Thread Info Summary;"},
        {0x2000, 0, 0, "JVM Active Threads;"},
        {0xa000, 16, 0, "JVM Active Threads;"},
        {0x200, 0, 0, "Thread Info Details;"},
        {0x800, 0, 0, "Thread Holding Lock;"},
        {0x8000, 0, 0, "JVM Active Threads;"},
        {0x8000, 0, 32, "Thread Info Details;"},
        {0x8000, 16, 0, "Thread Info Details;"},
        {0x8000, 16, 32, "Thread Info Details;"},
        {0x40, 0, 0, ""},
        {0x4000, 0, 0, ""},
        {0, 16, 0, ""},
    };
    for (const Case &c : cases) {
        poll_details = c.details;
        trace_single_thread_details = c.trace;
        char header[TITLE_SIZE];
        InitResponseHeader(c.reqid, header);
        EXPECT_EQ(c.title, Visible(header))
            << std::hex << c.reqid << " details " << c.details << " trace " << c.trace;
        // A traced thread is always shown with its stack.
        EXPECT_EQ(c.reqid == 0x8000 && c.trace ? true : c.details != 0, poll_details != 0)
            << std::hex << c.reqid;
    }
    poll_details = trace_single_thread_details = 0;
}

TEST(Records, FrameGroupHasThreeFieldsWhateverIsKnown) {
    struct Case {
        const char *file;
        int32_t line;
        const char *noLine, *seen;
    };
    const Case cases[] = {
        {"B.java", 7, "^", "a.B->run|B.java|7"},
        {"B.java", 0, "^", "a.B->run|Native Method|^"},
        {"B.java", -1, " ", "a.B->run|Native Method| "},
        {"", 3, "^", "a.B->run|^|3"},
    };
    for (const Case &c : cases) {
        Built built;
        const QorFrameRecord frame = Frame(c.file, c.line);
        QorAppendFrameGroup(&built.text, &frame, c.noLine, "^");
        EXPECT_EQ(c.seen, built.Seen());
    }
}

TEST(Records, EmptyDetailBlocksKeepTheirFieldCount) {
    EXPECT_EQ("<28>10<26>^|^|0|0|^|0|0|^|^|^", Visible(QorEmptyDatabaseBlock()));
    Built shortForm;
    QorAppendShortDatabaseBlock(&shortForm.text, {});
    EXPECT_EQ("<28>^|^|0|0|^|0|0", shortForm.Seen());
    EXPECT_EQ("<28><27>0|0|^|^", Visible(QorEmptyRmiBlock()));
}

TEST(Records, StackRowJoinsFrameThreadAndIndex) {
    Built built;
    QorFrameShape shape = {};
    shape.frame = Frame("B.java", 7);
    Built head;
    QorAppendStackRowHead(&head.text, &shape.frame);
    shape.headLength = head.text.length;
    QorAppendStackRowTail(&head.text, shape.frame.methodId);
    shape.tailLength = head.text.length - shape.headLength;
    shape.rowText = head.storage;
    ASSERT_EQ(1, QorAppendStackRow(&built.text, &shape, "42", 2, 0));
    ASSERT_EQ(1, QorAppendStackRow(&built.text, &shape, "42", 2, 1000));
    EXPECT_EQ(";a.B->run|B.java|7|42|0|140000000000001|^|^;a.B->run|B.java|7|42|1000|140000000000001|^|^",
              built.Seen());

    // A row that lacks one byte of room is refused whole.
    const int32_t rowLength = static_cast<int32_t>(built.Seen().find(';', 1));
    Built small;
    QorTextStart(&small.text, small.storage, rowLength);
    EXPECT_EQ(-1, QorAppendStackRow(&small.text, &shape, "42", 2, 0));
    EXPECT_EQ("", small.Seen());
    EXPECT_TRUE(small.text.refused);
    QorTextStart(&small.text, small.storage, rowLength + 1);
    EXPECT_EQ(1, QorAppendStackRow(&small.text, &shape, "42", 2, 0));
    EXPECT_EQ(rowLength, small.text.length);
}

TEST(Records, SkipRowAndLocksKeepTheirColumns) {
    Built skip;
    QorAppendSkipRow(&skip.text, 697, 42, 153);
    EXPECT_EQ(";697 frames are skipped for storage and performance optimization|NA|^|42|153|0|^|^",
              skip.Seen());

    QorMonitorRecord lock = {};
    snprintf(lock.description, sizeof lock.description, "%s", "java.lang.Object@6699");
    lock.lockId = 6699;
    lock.owner = 17;
    lock.stackDepth = 2;
    Built wait, owned;
    QorAppendLockWaitRecord(&wait.text, &lock, 4711);
    EXPECT_EQ("Lock On;6699|4711-17|java.lang.Object@6699|View Thread Holding this Lock", wait.Seen());
    EXPECT_EQ(1, QorAppendOwnedLockRecord(&owned.text, &lock));
    EXPECT_EQ("6699|0|java.lang.Object@6699|2;", owned.Seen());

    // The longest description that a record holds still goes in whole.
    memset(lock.description, 'x', sizeof lock.description - 1);
    Built longest;
    EXPECT_EQ(1, QorAppendOwnedLockRecord(&longest.text, &lock));
    EXPECT_EQ(RECORD_END, longest.text.text[longest.text.length - 1]);
}

TEST(Records, ThreadKeyIsCutTo32Bits) {
    char key[THREAD_KEY_SIZE];
    QorFormatThreadKey(key, 4711, 42);
    EXPECT_STREQ("4711-42", key);
    QorFormatThreadKey(key, 1, (1LL << 32) + 5);
    EXPECT_STREQ("1-5", key);
}

} // namespace
