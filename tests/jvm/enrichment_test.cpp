// What Java knows of a sample's threads, merged into replies made up to the byte.
#include "AgentNatives.h"
#include "Enricher.h"
#include "Xtier/Enrichment.h"
#include "Xtier/thread_e2e_info.h"
#include "jvmti/threads/ThreadSystem.h"

#include <cstring>

namespace {

// Replies and answers with / for 29, | for 30 and # for 31; at level 3 also { } for 14 and < > for 15, [ for
// 28, ] for 26 and ~ for 27.
std::string Coded(std::string text) {
    constexpr char SHOWN[] = "/|#{}<>[]~", CODES[] = "\x1d\x1e\x1f\x0e\x0e\x0f\x0f\x1c\x1a\x1b";
    for (char &c : text)
        if (const char *at = strchr(SHOWN, c))
            c = CODES[at - SHOWN];
    return text;
}

struct Enrichment : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        java = std::make_unique<EnricherAsked>();
        qorIsPollOrTrace = 1;
        offsetind = BUILD_JVMTI_DEFAULT;
    }
    void TearDown() override {
        offsetind = 0;
        SessionTest::TearDown();
    }

    // The threads of a sample: "x" for one that Java gets, "-" for one whose reference is gone.
    static void List(const std::string &threads) {
        QorThreadRecord record = {};
        for (char kind : threads) {
            jobject thread = kind == '-' ? nullptr : Java<jobject>("Truth", "currentThread");
            QorThreadHandle handle = {};
            handle.threads = &thread;
            record.tid = 7;
            ASSERT_EQ(QorAddE2EBlock(Env(), &handle, &record, 12), 0);
            Env()->DeleteLocalRef(thread);
        }
    }

    // The reply after Java was asked, which answers `answer`.
    std::string Merge(const std::string &reply, const std::string &threads, const std::string &answer) {
        EXPECT_LT(reply.size(), java->page.size());
        strcpy(java->page.data(), Coded(reply).c_str());
        List(threads);
        Java("Enricher", "answer", Coded(answer));
        checkAndAppendInfo(Env(), nullptr);
        EXPECT_TRUE(!thread_e2e_info && flagcompiled_java_code == 0);
        EXPECT_FALSE(Env()->ExceptionCheck());
        return java->page.data();
    }

    std::unique_ptr<EnricherAsked> java;
};

constexpr char ACTIVE[] = "JVM Active Threads|a/one/Runnable|a/two/Lock|a/three/Lock|#";
constexpr char DETAILS[] = "Thread Info Details|one/Runnable#Call Stack|Thread Info Details#JVM Locks|l|#"
                           "Thread Info Details|Thread Info Details/Lock#Call Stack|g#";
// More than JNI lets pile up in one frame.
constexpr char MANY[] = "xxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxxx";
constexpr char MARKED[] = "JVM Active Threads|a/one/{DB Wait[10]u/v|a/two/{RMI Wait[~1/2|a/three/{Lock|#";

struct MergeCase {
    int level;
    const char *reply, *threads, *answer;
    const char *expected = nullptr; // null: as the reply
};
constexpr MergeCase CASES[] = {
    {0, ACTIVE, "xxx", "/A|/B/b|/|", "JVM Active Threads|a/one/Runnable/A|a/two/Lock/B/b|a/three/Lock/|#"},
    // One didn't go, and something is before the start mark.
    {0, ACTIVE, "x-x", "junk/A|{q/r}<s/t>/C|x",
     "JVM Active Threads|a/one/Runnable/A|a/two/Lock|a/three/Lock/C|#"},
    {0, DETAILS, "xx", "/A|/B|",
     "Thread Info Details|one/Runnable/A#Call Stack|Thread Info Details#JVM Locks|l|#"
     "Thread Info Details|Thread Info Details/Lock/B#Call Stack|g#"},
    {0, ACTIVE, "xxx", "null"},
    {0, ACTIVE, MANY, "throw"},
    {0, ACTIVE, "xxx", "/A|B|/C|"},
    {0, ACTIVE, "xxx", "/A|/B#|/C|"},
    {3, MARKED, "xxx", "{Q/q}<D>/A|{Q}/B|/{Q}C|",
     "JVM Active Threads|a/one/Q/qD/A|a/two/QRMI Wait[~1/2/B|a/three/QLockC|#"},
};

} // namespace

TEST_F(Enrichment, AnswersAreMergedWholeOrNotAtAll) {
    for (const MergeCase &c : CASES) {
        poll_details = c.reply == DETAILS;
        reqid = poll_details ? QORREQ_POLL_DETAILS : QORREQ_ACTIVE_THREADS;
        gbiOptimizationLevel = c.level;
        EXPECT_EQ(Merge(c.reply, c.threads, c.answer), Coded(c.expected ? c.expected : c.reply)) << c.answer;
        EXPECT_NE(EnricherAsked::Asked(), "");
    }
    gbiOptimizationLevel = 0;
    std::swap(e2eclass, jobjclass); // a class without the method
    EXPECT_EQ(Merge(ACTIVE, "xxx", "/A|/B|/C|"), Coded(ACTIVE));
    std::swap(e2eclass, jobjclass);
}

TEST_F(Enrichment, RepliesAreFilledToTheLastByte) {
    reqid = QORREQ_ACTIVE_THREADS;
    for (const size_t spare : {6, 7, 5}) {
        std::string reply = "JVM Active Threads|a/one/";
        reply.resize(PAGEBUF_SIZE - 3 - spare, 'x');
        EXPECT_EQ(Merge(reply + "|#", "x", "/12345|"), Coded(reply + (spare < 6 ? "|#" : "/12345|#")));
    }
    EXPECT_EQ(Merge(ACTIVE, "xxx", "/A|/" + std::string(1100000, 'y') + "|/C|"), Coded(ACTIVE));
    // System data comes whatever becomes of the rest.
    get_system_data = FLAG_SYSTEM_DATA;
    EXPECT_EQ(Merge(ACTIVE, "xxx", "Java|cpu=1#/A|/B|/C|"),
              Coded("JVM Active Threads|a/one/Runnable/A|a/two/Lock/B|a/three/Lock/C|#Java|cpu=1#"));
    EXPECT_EQ(Merge(ACTIVE, "xxx", "Java#/A|/B|"), Coded(ACTIVE + std::string("Java#")));
}

TEST_F(Enrichment, JavaIsToldWhatTheSampleGathered) {
    reqid = QORREQ_ACTIVE_THREADS;
    qorIsPollOrTrace = 0;
    List("-xx");
    QorE2EBlock *last = thread_e2e_info->next->next;
    last->textsWritten = 1;
    last->stuckAndHogger[0] = 1;
    last->stuckAndHogger[1] = 5;
    strcpy(last->ioFile, "/file");
    strcpy(last->applicationName, "app");
    strcpy(last->sessionId, "session");
    last->networkPort = 1521;
    checkAndAppendInfo(Env(), nullptr);
    EXPECT_EQ(EnricherAsked::Asked(), "main main - [-1, -1, 0] 12,-1,-1,,,,,,0,,"
                                      "12,1,-1,/file,app,,,session,1521,,"
                                      "null,null,null,null,null,null,null,null,null,null 2 0 0");
    List("x"); // a block that held texts is clean again
    checkAndAppendInfo(Env(), nullptr);
    EXPECT_EQ(EnricherAsked::Asked(), "main [-1] 12,-1,-1,,,,,,0, 1 0 0");
}

// The agent's own Java side, asked by a worker.
TEST_F(AgentTest, SystemDataComeWhenTheyAreAskedFor) {
    const ZooVisit zoo("socket-read"); // JDK 8 has no active thread otherwise
    ASSERT_EQ(StartAgent({}), 0);
    EXPECT_NE(Ask("644|showstack|8192")
                  .find("\x1fJava System Data\x1e"
                        "cpu="),
              std::string::npos);
    for (const char *request : {"516|showstack|8192", "404|showstack|32768"})
        EXPECT_EQ(Ask(request).find("System Data"), std::string::npos) << "not asked, or a poll: " << request;
}
