// What Java knows of a sample's threads, merged into replies made up to the byte.
#include "AgentNatives.h"
#include "Enricher.h"
#include "RequestHandler/threads/enrichment.h"
#include "Xtier/thread_e2e_info.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorsettings.h"

#include <cstring>
#include <regex>

namespace {

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

    // The reply after Java was asked, which answers `answer`; null for null.
    std::string Merge(const std::string &reply, const std::string &threads, const char *answer) {
        EXPECT_LT(reply.size(), java->page.size());
        memcpy(java->page.data(), reply.c_str(), reply.size() + 1);
        List(threads);
        Java("Enricher", "answer", answer);
        checkAndAppendInfo(Env(), nullptr);
        EXPECT_TRUE(!thread_e2e_info && flagcompiled_java_code == 0);
        EXPECT_FALSE(Env()->ExceptionCheck());
        return java->page.data();
    }

    std::unique_ptr<EnricherAsked> java;
};

// Replies and answers with / for 29, | for 30 and # for 31; at level 3 also { } for 14 and < > for 15, [ for
// 28, ] for 26 and ~ for 27.
std::string Coded(std::string text) {
    constexpr char SHOWN[] = "/|#{}<>[]~", CODES[] = "\x1d\x1e\x1f\x0e\x0e\x0f\x0f\x1c\x1a\x1b";
    for (char &c : text)
        if (const char *at = strchr(SHOWN, c))
            c = CODES[at - SHOWN];
    return text;
}

constexpr char ACTIVE[] = "JVM Active Threads|a/one/Runnable|a/two/Lock|a/three/Lock|#";
constexpr char DETAILS[] = "Thread Info Details|one/Runnable#Call Stack|Thread Info Details#JVM Locks|l|#"
                           "Thread Info Details|Thread Info Details/Lock#Call Stack|g#";
constexpr char MARKED[] = "JVM Active Threads|a/one/{DB Wait[10]u/v|a/two/{RMI Wait[~1/2|a/three/{Lock|#";

struct MergeCase {
    const char *what;
    uint32_t request;
    int level;
    const char *reply, *threads, *answer, *expected; // null: as the reply
};
constexpr MergeCase CASES[] = {
    {"after each row", 0x2000, 0, ACTIVE, "xxx", "/A|/B/b|/|",
     "JVM Active Threads|a/one/Runnable/A|a/two/Lock/B/b|a/three/Lock/|#"},
    {"one didn't go; before the start mark", 0x2000, 0, ACTIVE, "x-x", "junk/A|{q/r}<s/t>/C|x",
     "JVM Active Threads|a/one/Runnable/A|a/two/Lock|a/three/Lock/C|#"},
    {"with stacks", 0x8000, 0, DETAILS, "xx", "/A|/B|",
     "Thread Info Details|one/Runnable/A#Call Stack|Thread Info Details#JVM Locks|l|#"
     "Thread Info Details|Thread Info Details/Lock/B#Call Stack|g#"},
    {"a poll without stacks", 0x8000, 0, ACTIVE, "xxx", "/A|/B|/C|", nullptr},
    {"null", 0x2000, 0, ACTIVE, "xxx", nullptr, nullptr},
    {"no start mark", 0x2000, 0, ACTIVE, "xxx", "/A|B|/C|", nullptr},
    {"too few", 0x8000, 0, DETAILS, "xx", "/A|", nullptr},
    {"a section end in a text", 0x2000, 0, ACTIVE, "xxx", "/A|/B#|/C|", nullptr},
    {"another request", 0x200, 0, ACTIVE, "xxx", "/A|/B|/C|", nullptr},
    {"marks: a remote text where there was one", 0x2000, 3, MARKED, "xxx", "<D/d>/A|<R>/B|<L>/C|",
     "JVM Active Threads|a/one/D/d/A|a/two/R/B|a/three/Lock/C|#"},
    {"marks: a framework text", 0x2000, 3, MARKED, "xxx", "{Q/q}<D>/A|{Q}/B|/{Q}C|",
     "JVM Active Threads|a/one/Q/qD/A|a/two/QRMI Wait[~1/2/B|a/three/QLockC|#"},
};

} // namespace

TEST_F(Enrichment, AnswersAreMergedWholeOrNotAtAll) {
    for (const MergeCase &c : CASES) {
        reqid = c.request;
        poll_details = c.reply == DETAILS;
        gbiOptimizationLevel = c.level;
        const std::string reply = Coded(c.reply), answer = c.answer ? Coded(c.answer) : "";
        EXPECT_EQ(Merge(reply, c.threads, c.answer ? answer.c_str() : nullptr),
                  c.expected ? Coded(c.expected) : reply)
            << c.what;
    }
    const std::string reply = Coded(ACTIVE);
    gbiOptimizationLevel = 0;
    reqid = QORREQ_ACTIVE_THREADS;
    // More threads than JNI lets pile up in one frame.
    EXPECT_EQ(Merge(reply, std::string(100, 'x'), "throw"), reply);
    EXPECT_NE(EnricherAsked::Asked(), "");
}

TEST_F(Enrichment, RepliesAreFilledToTheLastByte) {
    reqid = QORREQ_ACTIVE_THREADS;
    for (const size_t spare : {6, 7, 5}) {
        std::string reply = Coded("JVM Active Threads|a/one/");
        reply.resize(PAGEBUF_SIZE - 3 - spare, 'x');
        EXPECT_EQ(Merge(reply + Coded("|#"), "x", Coded("/12345|").c_str()),
                  reply + Coded(spare < 6 ? "|#" : "/12345|#"));
    }
    const std::string active = Coded(ACTIVE),
                      huge = Coded("/A|/") + std::string(1100000, 'y') + Coded("|/C|");
    EXPECT_EQ(Merge(active, "xxx", huge.c_str()), active);
    // System data comes whatever becomes of the rest.
    get_system_data = FLAG_SYSTEM_DATA;
    EXPECT_EQ(Merge(active, "xxx", Coded("Java|cpu=1#/A|/B|/C|").c_str()),
              Coded("JVM Active Threads|a/one/Runnable/A|a/two/Lock/B|a/three/Lock/C|#Java|cpu=1#"));
    EXPECT_EQ(Merge(active, "xxx", Coded("Java#/A|/B|").c_str()), active + Coded("Java#"));
    std::string full = active;
    full.resize(PAGEBUF_SIZE - 10, 'x');
    EXPECT_EQ(Merge(full, "xxx", Coded("12345678#/A|/B|/C|").c_str()), full);
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
    ASSERT_EQ(StartAgent({}), 0);
    const std::regex line("\\x1fJava System Data\\x1e"
                          "cpu=[0-9]+ load=[-.0-9]+ threads=[0-9]+ peak=[0-9]+ daemons=[0-9]+ "
                          "classes=[0-9]+ uptime=[0-9]+\\x1f");
    EXPECT_TRUE(std::regex_search(Ask("644|showstack|8192"), line));
    for (const char *request : {"516|showstack|8192", "404|showstack|32768"})
        EXPECT_EQ(Ask(request).find("System Data"), std::string::npos) << "not asked, or a poll: " << request;
}
