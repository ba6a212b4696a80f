// What Java knows of a sample's threads, merged into replies made up to the byte.
#include "AgentNatives.h"
#include "RequestHandler/threads/enrichment.h"
#include "SampleReply.h"
#include "Xtier/thread_e2e_info.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <cstring>
#include <malloc.h>
#include <regex>

namespace {

constexpr char ENRICHER[] = "qoragent/testing/Enricher";

struct Enrichment : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        savedPage = pagebuf;
        pagebuf = page.data();
        e2eclass = Class(ENRICHER);
        jobjclass = Class("java/lang/Object");
        jstringclass = Class("java/lang/String");
        qorIsPollOrTrace = 1;
        offsetind = BUILD_JVMTI_DEFAULT;
    }
    void TearDown() override {
        for (jclass *klass : {&e2eclass, &jobjclass, &jstringclass}) {
            Env()->DeleteGlobalRef(*klass);
            *klass = nullptr;
        }
        pagebuf = savedPage;
        reqid = 0;
        get_system_data = qorIsPollOrTrace = gbiOptimizationLevel = offsetind = 0;
        QorDropE2EPool();
        SessionTest::TearDown();
    }

    static jclass Class(const char *name) {
        jclass local = Env()->FindClass(name);
        auto *global = static_cast<jclass>(Env()->NewGlobalRef(local));
        Env()->DeleteLocalRef(local);
        return global;
    }

    // The threads of a sample: "x" for one that Java gets, "-" for one whose reference is gone.
    static void List(const std::string &threads) {
        static QorThreadRecord record;
        for (char kind : threads) {
            jobject thread = CallObject("java/lang/Thread", "currentThread", "()Ljava/lang/Thread;");
            if (kind == '-') {
                Env()->DeleteLocalRef(thread);
                thread = nullptr;
            }
            QorThreadHandle handle = {};
            handle.threads = &thread;
            record.tid = 7;
            ASSERT_EQ(QorAddE2EBlock(Env(), &handle, &record, 12), 0);
            Env()->DeleteLocalRef(thread);
        }
    }

    // The reply after Java was asked, which answers `answer`; null for null.
    std::string Merge(const std::string &reply, const char *threads, const char *answer) {
        EXPECT_LT(reply.size(), page.size());
        memcpy(page.data(), reply.c_str(), reply.size() + 1);
        List(threads);
        CallVoid(ENRICHER, "answer", "(Ljava/lang/String;)V", answer ? Text(answer) : nullptr);
        checkAndAppendInfo(Env(), nullptr);
        EXPECT_EQ(thread_e2e_info, nullptr);
        EXPECT_EQ(flagcompiled_java_code, 0);
        return page.data();
    }

    static std::string Asked() {
        jobject asked = CallObject(ENRICHER, "asked", "()Ljava/lang/String;");
        return asked ? TextOf(asked) : "not asked";
    }

    std::vector<char> page = std::vector<char>(PAGEBUF_SIZE);
    char *savedPage;
};

// Replies and answers with / for 29, | for 30 and # for 31; at level 3 also { } for 14 and < > for 15, [ for
// 28, ] for 26 and ~ for 27.
std::string Coded(std::string text) {
    const std::pair<char, char> codes[] = {{'/', 29}, {'|', 30}, {'#', 31}, {'{', 14}, {'}', 14},
                                           {'<', 15}, {'>', 15}, {'[', 28}, {']', 26}, {'~', 27}};
    for (char &c : text)
        for (const auto &[shown, code] : codes)
            if (c == shown)
                c = code;
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
    {"behind each row", 0x2000, 0, ACTIVE, "xxx", "/A|/B/b|/|",
     "JVM Active Threads|a/one/Runnable/A|a/two/Lock/B/b|a/three/Lock/|#"},
    {"one didn't go", 0x2000, 0, ACTIVE, "x-x", "/A|/C|",
     "JVM Active Threads|a/one/Runnable/A|a/two/Lock|a/three/Lock/C|#"},
    {"what is in front of the start mark", 0x2000, 0, ACTIVE, "xxx", "junk/A|{q/r}<s/t>/B|/C|x",
     "JVM Active Threads|a/one/Runnable/A|a/two/Lock/B|a/three/Lock/C|#"},
    {"sections behind the rows", 0x2000, 0, "JVM Active Threads|a/one|#System Data|1|2#", "x", "/A|",
     "JVM Active Threads|a/one/A|#System Data|1|2#"},
    {"two titles", 0x2080, 0, "JVM Active Threads|JVM Memory Activity|a/one|#", "x", "/A|",
     "JVM Active Threads|JVM Memory Activity|a/one/A|#"},
    {"with stacks", 0x8000, 0, DETAILS, "xx", "/A|/B|",
     "Thread Info Details|one/Runnable/A#Call Stack|Thread Info Details#JVM Locks|l|#"
     "Thread Info Details|Thread Info Details/Lock/B#Call Stack|g#"},
    {"a poll without stacks", 0x8000, 0, ACTIVE, "xxx", "/A|/B|/C|", nullptr},
    {"null", 0x2000, 0, ACTIVE, "xxx", nullptr, nullptr},
    {"empty", 0x2000, 0, ACTIVE, "xxx", "", nullptr},
    {"no start mark", 0x2000, 0, ACTIVE, "xxx", "/A|B|/C|", nullptr},
    {"no record end", 0x2000, 0, ACTIVE, "xxx", "/A|/B|/C", nullptr},
    {"too few", 0x8000, 0, DETAILS, "xx", "/A|", nullptr},
    {"fewer rows than threads", 0x2000, 0, "JVM Active Threads|a/one|#", "xx", "/A|/B|", nullptr},
    {"a section end in a text", 0x2000, 0, ACTIVE, "xxx", "/A|/B#|/C|", nullptr},
    {"another request", 0x200, 0, ACTIVE, "xxx", "/A|/B|/C|", nullptr},
    {"marks: a remote text where there was one", 0x2000, 3, MARKED, "xxx", "<D/d>/A|<R>/B|<L>/C|",
     "JVM Active Threads|a/one/D/d/A|a/two/R/B|a/three/Lock/C|#"},
    {"marks: a framework text", 0x2000, 3, MARKED, "xxx", "{Q/q}<D>/A|{Q}/B|/{Q}C|",
     "JVM Active Threads|a/one/Q/qD/A|a/two/QRMI Wait[~1/2/B|a/three/QLockC|#"},
    {"marks: open ones, and one that didn't go", 0x2000, 3, MARKED, "x-x", "{Q/A|<D/C|",
     "JVM Active Threads|a/one/DB Wait[10]u/v/A|a/two/{RMI Wait[~1/2|a/three/Lock/C|#"},
    {"marks: none in the reply", 0x2000, 3, ACTIVE, "xxx", "/A|/B|/C|", nullptr},
    {"marks: a section end in a text", 0x2000, 3, MARKED, "xxx", "{Q#}/A|/B|/C|", nullptr},
};

} // namespace

TEST_F(Enrichment, AnswersAreMergedWholeOrNotAtAll) {
    for (const MergeCase &c : CASES) {
        reqid = c.request;
        gbiOptimizationLevel = c.level;
        const std::string reply = Coded(c.reply);
        const std::string expected = c.expected ? Coded(c.expected) : reply;
        const std::string answer = c.answer ? Coded(c.answer) : "";
        EXPECT_EQ(Merge(reply, c.threads, c.answer ? answer.c_str() : nullptr), expected) << c.what;
    }
    reqid = QORREQ_ACTIVE_THREADS;
    gbiOptimizationLevel = 0;
    const std::string reply = Coded(ACTIVE);
    CallVoid(ENRICHER, "fail", "()V");
    EXPECT_EQ(Merge(reply, "", "/"), reply) << "no thread, no call";
    EXPECT_EQ(Asked(), "not asked");
    reqid = QORREQ_POLL_DETAILS;
    EXPECT_EQ(Merge(reply, "xxx", "/"), reply) << "no stacks, no place for an answer, no call";
    EXPECT_EQ(Asked(), "not asked");
    reqid = QORREQ_ACTIVE_THREADS;
    jclass asked = e2eclass;
    e2eclass = jobjclass;
    EXPECT_EQ(Merge(reply, "xxx", "/"), reply) << "a class without the method";
    e2eclass = asked;
    EXPECT_FALSE(Env()->ExceptionCheck());
}

TEST_F(Enrichment, AnExceptionCountsAsNoAnswer) {
    reqid = QORREQ_ACTIVE_THREADS;
    const std::string reply = Coded(ACTIVE);
    memcpy(page.data(), reply.c_str(), reply.size() + 1);
    List(std::string(100, 'x')); // more than JNI lets pile up in one frame
    CallVoid(ENRICHER, "fail", "()V");
    checkAndAppendInfo(Env(), nullptr);
    EXPECT_EQ(std::string(page.data()), reply);
    EXPECT_EQ(thread_e2e_info, nullptr);
    EXPECT_FALSE(Env()->ExceptionCheck());
    EXPECT_NE(Asked(), "not asked");
}

TEST_F(Enrichment, RepliesAreFilledToTheLastByte) {
    reqid = QORREQ_ACTIVE_THREADS;
    const std::string head = Coded("JVM Active Threads|a/one/");
    for (int spare : {0, 1, -1}) {
        const std::string reply =
            head + std::string(static_cast<size_t>(PAGEBUF_SIZE - 1 - 6 - spare) - head.size() - 2, 'x') +
            Coded("|#");
        const std::string merged = Merge(reply, "x", Coded("/12345|").c_str());
        if (spare < 0)
            EXPECT_EQ(merged, reply) << spare;
        else
            EXPECT_EQ(merged, reply.substr(0, reply.size() - 2) + Coded("/12345|#")) << spare;
    }
    const std::string reply = Coded(ACTIVE);
    EXPECT_EQ(Merge(reply, "xxx", (Coded("/A|/") + std::string(1100000, 'y') + Coded("|/C|")).c_str()),
              reply);
}

TEST_F(Enrichment, SystemDataStaysWhateverBecomesOfTheRest) {
    const std::string reply = Coded(ACTIVE),
                      merged = Coded("JVM Active Threads|a/one/Runnable/A|a/two/Lock/B|a/three/Lock/C|#");
    get_system_data = FLAG_SYSTEM_DATA;
    reqid = QORREQ_ACTIVE_THREADS;
    EXPECT_EQ(Merge(reply, "xxx", Coded("Java|cpu=1#/A|/B|/C|").c_str()), merged + Coded("Java|cpu=1#"));
    EXPECT_NE(Asked().find(" 3 1 1"), std::string::npos) << Asked();
    EXPECT_EQ(Merge(reply, "xxx", Coded("Java#/A|/B|").c_str()), reply + Coded("Java#"));
    EXPECT_EQ(Merge(reply, "xxx", Coded("/A|/B|/C|").c_str()), reply) << "system data is missing";
    const std::string full = reply + std::string(static_cast<size_t>(PAGEBUF_SIZE) - 10 - reply.size(), 'x');
    EXPECT_EQ(Merge(full, "xxx", Coded("12345678#/A|/B|/C|").c_str()), full);
    reqid = QORREQ_MEMORY_ACTIVITY;
    EXPECT_EQ(Merge(reply, "", Coded("Java#").c_str()), reply);
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
    strcpy(last->moduleName, "mod");
    strcpy(last->wmName, "wm");
    strcpy(last->sessionId, "session");
    strcpy(last->networkHost, "10.0.0.1");
    last->networkPort = 1521;
    CallVoid(ENRICHER, "answer", "(Ljava/lang/String;)V", nullptr);
    checkAndAppendInfo(Env(), nullptr);
    EXPECT_EQ(Asked(), "main main - [-1, -1, 0] 12,-1,-1,,,,,,0,,"
                       "12,1,-1,/file,app,mod,wm,session,1521,10.0.0.1,"
                       "null,null,null,null,null,null,null,null,null,null 2 0 0");
    List("x"); // a block that held texts is clean again
    checkAndAppendInfo(Env(), nullptr);
    EXPECT_EQ(Asked(), "main [-1] 12,-1,-1,,,,,,0, 1 0 0");
}

TEST_F(Enrichment, ManyCallsKeepNothing) {
    const std::string details = Coded(DETAILS), answer = Coded("/A|/B|"), bad(100000, 'b');
    const auto ask = [&](int times) {
        for (int i = 0; i < times; i++) {
            Env()->PushLocalFrame(16);
            reqid = i % 4 == 3 ? QORREQ_DB_XTIER : QORREQ_POLL_DETAILS;
            Merge(details, i % 4 == 2 ? "x-" : "xx", i % 4 == 1 ? bad.c_str() : answer.c_str());
            Env()->PopLocalFrame(nullptr);
        }
        return CallLong("qoragent/testing/JvmCounts", "globalRefs", "()J");
    };
    const int64_t refs = ask(10000); // the JVM's compilers take some megabytes meanwhile
    const size_t bytes = mallinfo2().uordblks;
    EXPECT_LE(ask(10000), refs + 5);
    EXPECT_LT(mallinfo2().uordblks, bytes + 4000000);
}

// Long SQL texts leave room for Java's answer.
TEST_F(AgentTest, ShowsFiguresBesideManyStatements) {
    StartArguments arguments;
    arguments.localsQuota = 100;
    ASSERT_EQ(StartAgent(arguments), 0);
    qorDBQuery = 1;
    CallVoid("qoragent/testing/Customers", "start", "(II)V", 250, 5000);
    const std::string active = Ask("516|showstack|8192");
    CallVoid("qoragent/testing/Customers", "stop", "()V");
    int rows = 0, figures = 0, texts = 0;
    for (const std::string &row : Split(active, '\x1e')) {
        rows += row.rfind("a\x1d", 0) == 0;
        figures += row.find("\x1d"
                            "cpu=") != std::string::npos;
        texts += row.size() > 4000;
    }
    EXPECT_GE(rows, 250);
    EXPECT_EQ(figures, rows);
    EXPECT_GT(texts, 200) << "and most of the texts";
    EXPECT_LT(texts, 250) << "but the reply is full";
}

// The agent's own Java side, asked by a worker.
TEST_F(AgentTest, ShowsFiguresOfEachThread) {
    ZooVisit zoo("spin,blocked,holder");
    ASSERT_EQ(StartAgent({}), 0);
    const std::string figures = "\\x1dcpu=[0-9]+ alloc=[0-9]+";
    const auto count = [](const std::string &text, const std::string &pattern) {
        const std::regex form(pattern);
        return std::distance(std::sregex_iterator(text.begin(), text.end(), form), std::sregex_iterator());
    };
    const std::string active = Ask("516|showstack|8192");
    const auto rows = count(active, "\\x1ea\\x1d");
    EXPECT_GE(rows, 2) << active;
    EXPECT_EQ(count(active, "(Runnable|Lock|IO Wait)" + figures + "\x1e"), rows) << active;
    EXPECT_EQ(count(active, "Java System Data"), 0) << active;

    const std::string poll = Ask("276|showstack|32768"); // all threads with stacks
    const auto parts = count(poll, "Thread Info Details\x1e");
    EXPECT_GT(parts, rows);
    EXPECT_EQ(count(poll, figures + "\x1f(Call Stack|Thread Info Details|$)"), parts) << poll;

    const std::string system = Ask("644|showstack|8192");
    EXPECT_EQ(count(system, "\\x1fJava System Data\\x1e"
                            "cpu=[0-9]+ load=[-.0-9]+ threads=[0-9]+ peak=[0-9]+ daemons=[0-9]+ "
                            "classes=[0-9]+ uptime=[0-9]+\\x1f"),
              1)
        << system;
    for (const char *request : {"404|showstack|32768", "388|showstack|32768"})
        EXPECT_EQ(count(Ask(request), "System Data"), 0) << "a poll has none, asked or not: " << request;
}
