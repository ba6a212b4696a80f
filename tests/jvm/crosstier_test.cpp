// What a thread does in other tiers, from its frames to the rows of the views.
#include "JvmFixture.h"
#include "LogCapture.h"
#include "RequestHandler/RequestHandler.h"
#include "SampleReply.h"
#include "TierText.h"
#include "Xtier/ConnectionCache.h"
#include "Xtier/walk/LocalWalk.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "qorutil.h"
#include "reply/records.h"

#include <algorithm>
#include <set>
#include <unistd.h>
#include <vector>

namespace {

constexpr char CUSTOMERS[] = "qoragent/testing/Customers";
constexpr char TIERS[] = "qoragent/testing/Tiers";
constexpr char ENRICHER[] = "qoragent/testing/Enricher";
constexpr char URL[] = "jdbc:tessar:thin:@//127.0.0.1/SHOP";

struct CrossTier : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorDBQuery = 1;
        gbSqlQueryLength = 4096;
        qorGetLocalObjectsQuotaPct = qorHandWalkQuotaPct = 100;
    }
    void TearDown() override {
        CallVoid(CUSTOMERS, "stop", "()V");
        CallVoid(TIERS, "stop", "()V");
        poll_details = trace_all_threads = trace_single_thread_details = qorIsPollOrTrace = 0;
        qorGetLocalObjectsQuotaPct = 0;
        qorHandWalkQuotaPct = QOR_HAND_WALK_QUOTA;
        qorDBQuery = 0;
        readconditions(nullptr);
        SetTiers("");
        SessionTest::TearDown();
    }
};

// Rules of Driver's frames and objects, and of those that the tables read. A further line makes a parked
// thread's frame one of a remote call.
const std::string DRIVER_RULES = "state rmi qoragent.testing.Driver\n"
                                 "frame web qoragent.testing.Driver serve\n"
                                 "frame db qoragent.testing.Driver serve\n"
                                 "frame db qoragent.testing.Driver call\n"
                                 "object rmi Lqoragent/testing/Driver;\n"
                                 "  url self,Lqoragent/testing/Driver;|text,Ljava/lang/String;\n"
                                 "object db Lqoragent/testing/Driver;\n"
                                 "  user self,Lqoragent/testing/Driver;|text,Ljava/lang/String;\n"
                                 "  sql text,Ljava/lang/String; last\n"
                                 "object db Lqoragent/testing/Driver$Order;\n"
                                 "  url path,Ljava/lang/String;\n"
                                 "  sql path,Ljava/lang/String;\n"
                                 "object web Lqoragent/testing/Driver$Order;\n"
                                 "  url path,Ljava/lang/String;\n"
                                 "state rmi javax.servlet.http.\n"
                                 "frame rmi javax.servlet.http.HttpServlet service\n"
                                 "object rmi Lorg/apache/catalina/connector/RequestFacade;\n"
                                 "  host request,Lorg/apache/catalina/connector/Request;|"
                                 "requestDispatcherPath,Ljava/lang/Object;|strValue,Ljava/lang/String;\n"
                                 "frame db qoragent.models.Execution *\n"
                                 "frame db tessar.jdbc.driver.TessarStatement *\n"
                                 "object db Ltessar/jdbc/driver/TessarStatement;\n"
                                 "  url sql_query,Ljava/lang/String;\n"
                                 "  user sql_query,Ljava/lang/String;\n";
constexpr char REMOTE_FRAME[] = "frame rmi qoragent.testing.Driver call\n";

void UseRules(const std::string &rules) {
    ASSERT_EQ("", SetTiers(rules));
    QorForgetBoringClasses();
}

// A sample with all threads in it; `stacks`: with their frames.
SampleReply Sample(bool stacks) {
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    poll_details = stacks ? FLAG_POLL_DETAILS : 0;
    const SampleReply reply = SampleReply::Parse(Ask(QORREQ_POLL_DETAILS), true, stacks);
    EXPECT_EQ("", reply.error);
    poll_details = 0;
    return reply;
}

SampleReply ActiveThreads() {
    const SampleReply reply = SampleReply::Parse(Ask(QORREQ_ACTIVE_THREADS), false, false);
    EXPECT_EQ("", reply.error);
    return reply;
}

void StartCustomers(int count, int sqlLength) {
    CallVoid(CUSTOMERS, "start", "(II)V", count, sqlLength);
}

std::string LocalPort(int customer) {
    return std::to_string(CallLong(CUSTOMERS, "localPort", "(I)J", customer));
}

std::string ServerPort() {
    return std::to_string(CallLong(CUSTOMERS, "serverPort", "()J"));
}

std::string SqlHead(int customer) {
    return "select " + std::to_string(customer) + " from orders";
}

// The ten fields of a customer's block.
void ExpectCustomer(const SampleReply &reply, int customer, const std::string &what) {
    const SampleThread *thread = reply.Find("customer-" + std::to_string(customer));
    ASSERT_TRUE(thread) << what;
    ASSERT_EQ("DB Wait", thread->state) << what;
    const std::vector<std::string> &block = thread->detail10;
    ASSERT_EQ(10u, block.size()) << what;
    EXPECT_EQ(URL, block[0]) << what;
    EXPECT_EQ("scott", block[1]) << what;
    EXPECT_EQ(LocalPort(customer), block[2]) << what;
    EXPECT_EQ(ServerPort(), block[3]) << what;
    EXPECT_EQ("127.0.0.1", block[4]) << what;
    EXPECT_NEAR(static_cast<double>(time(nullptr)), atof(block[5].c_str()), 60) << what;
    EXPECT_NE("0", block[6]) << what;
    EXPECT_EQ(SqlHead(customer), block[7].substr(0, SqlHead(customer).size())) << what;
    EXPECT_EQ("DEEPDIVE_TESSAR_DB", block[8]) << what;
}

// What the stack view tells of a thread.
struct StackView {
    std::string text, url, detail, call, file, line, state;
    std::vector<std::string> block; // behind "DB Wait"
    std::vector<std::vector<std::string>> rows;
};

StackView AskStack(const std::string &key) {
    StackView view;
    view.text = Ask(QORREQ_THREAD_DETAILS, "", key);
    const std::vector<std::string> sections = Split(view.text, SECTION_END);
    if (sections.size() < 3) {
        ADD_FAILURE() << view.text;
        return view;
    }
    const std::vector<std::string> head = Split(Split(sections[0], RECORD_END)[1], FIELD_SEP);
    if (head.size() < 9) {
        ADD_FAILURE() << sections[0];
        return view;
    }
    view.url = head[2], view.detail = head[3], view.call = head[5], view.file = head[6], view.line = head[7];
    view.state = head[8].substr(0, head[8].find(WAIT_DETAIL));
    view.block.assign(head.begin() + 8, head.end());
    for (const std::string &row : Split(sections[1], RECORD_END))
        view.rows.push_back(Split(row, FIELD_SEP));
    return view;
}

std::string KeyOf(const SampleReply &reply, const std::string &name) {
    const SampleThread *thread = reply.Find(name);
    return thread ? thread->key : "";
}

bool IsWithoutPlaceholder(const std::string &reply) {
    return reply.find("PLACEHOLDER") == std::string::npos;
}

// A framework frame, what its row shows, and what that shows when nothing is known of it.
struct Framework {
    const char *thread;
    std::string call, file, line, rowFile;
};
const Framework FRAMEWORKS[] = {
    {"zoo-view", "View_Object->OrdersView", "ViewObjectImpl.java", "0", "ViewObjectImpl.java"},
    {"zoo-view-in-el", "View_Object->InnerView", "ViewObjectImpl.java", "0", "ViewObjectImpl.java"},
    {"zoo-attribute", "View_Object->OrderTotal", "ViewObjectImpl.java", "0", "ViewObjectImpl.java"},
    {"zoo-entity", "Entity_Object->OrderEntity", "EntityObjImpl.java", "0", "EntityObjImpl.java"},
    {"zoo-value-el", "EL_Exp->#{orders.total}", "EL_Exp", "0", "El_Exp"},
    {"zoo-method-el", "EL_Exp->#{orders.save}", "EL_Exp", "0", "El_Exp"},
    {"zoo-groovy", "Groovy_Script->check", "Groovy_Script", "2", "Groovy_Script"},
    {"zoo-compiled-groovy", "", "Native Method", "^", ""}, // its line isn't known: the call as it is
};

// JServ's is in a Hashtable, which isn't read before JDK 10.
std::string JServUrl() {
    return gbQorJvmKeepsThreads ? "/jserv" : "^";
}

struct Request {
    const char *thread, *url;
};
const Request REQUESTS[] = {
    {"zoo-ferrule-run", "/ferrule"},
    {"zoo-tomcat", "/tomcat"},
    {"zoo-lumo", "/lumo"},
    {"zoo-websphere", "/websphere"},
    {"zoo-jersey", "GET-/a/b"},
    {"zoo-sun-jersey", "POST-/c"},
    {"zoo-page", "/pages/orders.jspx"},
    {"zoo-ferrule-service", "^"},
    {"zoo-server", "/served"},
    {"zoo-ferrule-execute", "/original/ferrule"},
    {"zoo-filter", "/context/faces/page"},
};

} // namespace

TEST_F(CrossTier, DatabaseThreadsShowTheirCallInEveryView) {
    StartCustomers(3, 200);
    for (int i = 0; i < 3; ++i) {
        ExpectCustomer(ActiveThreads(), i, "active");
        ExpectCustomer(Sample(false), i, "poll");
    }
    const SampleReply details = Sample(true);
    ExpectCustomer(details, 1, "details");

    const StackView view = AskStack(KeyOf(details, "customer-1"));
    EXPECT_EQ("DB Wait", view.state);
    const std::vector<std::string> block = {std::string("DB Wait") + WAIT_DETAIL + URL, "scott", LocalPort(1),
                                            ServerPort(), "127.0.0.1"};
    ASSERT_EQ(7u, view.block.size());
    EXPECT_TRUE(std::equal(block.begin(), block.end(), view.block.begin())) << view.text;
    EXPECT_EQ(" ", view.url);
}

TEST_F(CrossTier, AThreadIsFoundByTheLocalPortOfItsConnection) {
    StartCustomers(2, 20);
    const SampleReply reply = ActiveThreads();
    EXPECT_EQ("customer-1|" + KeyOf(reply, "customer-1"), Ask(QORREQ_DB_XTIER, LocalPort(1)));
    for (const char *port : {"1", "0", "none"})
        EXPECT_EQ("Client Port not found on JVM", Ask(QORREQ_DB_XTIER, port));
    LogCapture log(1);
    EXPECT_EQ("", Ask(QORREQ_DB_XTIER));
    EXPECT_EQ(1, log.count("QorShowDBXtierThreadInfo console_buf is NULL or console_args[0] is NULL"));
}

TEST_F(CrossTier, FrameworkFramesShowWhatTheyWorkOn) {
    CallVoid(TIERS, "start", "()V");
    const SampleReply poll = Sample(false), details = Sample(true);
    for (const Framework &expected : FRAMEWORKS)
        for (const SampleReply *reply : {&poll, &details}) {
            const SampleThread *thread = reply->Find(expected.thread);
            ASSERT_TRUE(thread) << expected.thread;
            if (expected.call.empty())
                EXPECT_NE(std::string::npos, thread->call.find("Unsafe->park")) << thread->call;
            else
                EXPECT_EQ(expected.call, thread->call) << expected.thread;
            EXPECT_EQ(expected.file, thread->file) << expected.thread;
            EXPECT_EQ(expected.line, thread->line) << expected.thread;
            const auto row = std::find_if(thread->frames.begin(), thread->frames.end(),
                                          [](const SampleFrame &frame) { return frame.index < 0; });
            ASSERT_EQ(row != thread->frames.end(), reply == &details && !expected.call.empty())
                << expected.thread;
            if (row == thread->frames.end())
                continue;
            EXPECT_EQ(expected.call, row->call);
            EXPECT_EQ(expected.rowFile, row->file) << expected.thread;
            ASSERT_NE(row + 1, thread->frames.end());
            EXPECT_TRUE((row + 1)->call.rfind("tessar.kvo.", 0) == 0 ||
                        (row + 1)->call.rfind("com.sun.el.", 0) == 0 ||
                        (row + 1)->call.rfind("org.codehaus.groovy.", 0) == 0)
                << (row + 1)->call;
        }

    // The stack view knows views and entities.
    for (const Framework *expected : {&FRAMEWORKS[0], &FRAMEWORKS[1], &FRAMEWORKS[2], &FRAMEWORKS[3]}) {
        const StackView view = AskStack(KeyOf(poll, expected->thread));
        EXPECT_EQ(expected->call, view.call);
        EXPECT_EQ("0", view.line);
        EXPECT_TRUE(IsWithoutPlaceholder(view.text)) << view.text;
        const auto row = std::find_if(view.rows.begin(), view.rows.end(), [&](const auto &fields) {
            return fields.size() == 9 && fields[6] == expected->call;
        });
        ASSERT_NE(row, view.rows.end()) << view.text;
        const std::string tid = std::to_string(poll.Find(expected->thread)->id());
        EXPECT_EQ((std::vector<std::string>{"user", tid, "7", "0", "2", "3", expected->call, view.file, "0"}),
                  *row);
        EXPECT_EQ(view.file, (*(row + 1))[7]) << "the file is that of the framework's frame";
    }
}

TEST_F(CrossTier, RequestsShowTheirUrl) {
    CallVoid(TIERS, "start", "()V");
    const SampleReply poll = Sample(false);
    ASSERT_TRUE(poll.Find("zoo-jserv"));
    EXPECT_EQ(JServUrl(), poll.Find("zoo-jserv")->url);
    for (const Request &expected : REQUESTS) {
        const SampleThread *thread = poll.Find(expected.thread);
        ASSERT_TRUE(thread) << expected.thread;
        EXPECT_EQ(expected.url, thread->url) << expected.thread;
        EXPECT_EQ("^", thread->detail) << expected.thread;
        const StackView view = AskStack(thread->key);
        EXPECT_EQ(thread->url == "^" ? " " : thread->url, view.url) << expected.thread;
        EXPECT_EQ(thread->url == "^" ? " " : "^", view.detail) << expected.thread;
    }
}

TEST_F(CrossTier, RemoteCallsShowTheirPeer) {
    CallVoid(TIERS, "start", "()V");
    const SampleReply reply = Sample(true);
    const SampleThread *thread = reply.Find("zoo-remote");
    ASSERT_TRUE(thread);
    EXPECT_EQ("RMI Wait", thread->state);
    EXPECT_EQ("77", thread->detail4.at(0));
    EXPECT_EQ("7001", thread->detail4.at(1));
    EXPECT_EQ("ejb/Orders", thread->detail4.at(3));
    EXPECT_EQ(0u, thread->detail4.at(2).rfind("-63.", 0)) << thread->detail4.at(2);
}

// When no walk is made the rows are those of a sample without cross-tier data.
TEST_F(CrossTier, WithoutObjectsTheCallIsTheThreadsOwn) {
    CallVoid(TIERS, "start", "()V");
    StartCustomers(1, 20);
    struct Case {
        const char *what;
        int32_t quota, isPoll;
    };
    const Case cases[] = {{"quota 0", 0, 0}, {"too soon", 1, 1}};
    for (const Case &c : cases) {
        qorGetLocalObjectsQuotaPct = c.quota;
        qorIsPollOrTrace = c.isPoll;
        if (c.isPoll)
            Sample(false); // takes the time for many a poll to come
        for (bool stacks : {false, true}) {
            const SampleReply reply = Sample(stacks);
            for (const Framework &row : FRAMEWORKS) {
                const SampleThread *thread = reply.Find(row.thread);
                ASSERT_TRUE(thread) << row.thread;
                EXPECT_NE(std::string::npos, thread->call.find("Unsafe->park")) << c.what << thread->call;
                EXPECT_EQ("Native Method", thread->file) << c.what;
                EXPECT_EQ("^", thread->line) << c.what;
                const StackView view = AskStack(thread->key);
                EXPECT_TRUE(IsWithoutPlaceholder(view.text)) << c.what << view.text;
                EXPECT_NE(std::string::npos, view.call.find("Unsafe->park")) << c.what << view.call;
            }
            const SampleThread *customer = reply.Find("customer-0");
            ASSERT_TRUE(customer);
            EXPECT_EQ((std::vector<std::string>{"^", "^", "0", "0", "^", "0", "0", "^", "^", "^"}),
                      customer->detail10)
                << c.what;
            EXPECT_EQ((std::vector<std::string>{std::string("DB Wait") + WAIT_DETAIL + "^", "^", "0", "0",
                                                "^", "0", "0"}),
                      AskStack(customer->key).block)
                << c.what;
            const SampleThread *remote = reply.Find("zoo-remote");
            ASSERT_TRUE(remote);
            EXPECT_EQ((std::vector<std::string>{"0", "0", "^", "^"}), remote->detail4) << c.what;
        }
    }
}

// More data than a reply can hold: each thread keeps its row, and the first ones have their data.
TEST_F(CrossTier, LongTextsCostNoRow) {
    gbSqlQueryLength = QOR_MAX_SQL_QUERY_SIZE;
    CallVoid(TIERS, "start", "()V");
    StartCustomers(300, 60000);
    for (bool stacks : {false, true}) {
        const SampleReply reply = Sample(stacks);
        int complete = 0;
        std::set<std::string> names;
        for (const SampleThread &thread : reply.threads) {
            names.insert(thread.name);
            if (thread.detail10.empty() || thread.detail10[7] == "^")
                continue;
            EXPECT_EQ(60000u, thread.detail10[7].size());
            ++complete;
        }
        EXPECT_GE(complete, stacks ? 8 : 14);
        for (int i = 0; i < 300; ++i)
            EXPECT_EQ(1u, names.count("customer-" + std::to_string(i))) << i;
    }
}

TEST_F(CrossTier, AThousandThreadsInTheirDatabase) {
    StartCustomers(MAX_WALK_THREADS - 40, 100);
    const SampleReply reply = ActiveThreads();
    int known = 0;
    for (const SampleThread &thread : reply.threads)
        known += !thread.detail10.empty() && thread.detail10[0] == URL;
    EXPECT_EQ(MAX_WALK_THREADS - 40, known);
    ExpectCustomer(reply, 0, "first");
    ExpectCustomer(reply, MAX_WALK_THREADS - 41, "last");
}

// Files and the server's work have no column: the Java side is asked with them.
TEST_F(CrossTier, FilesAndServerWorkGoToTheJavaSide) {
    CallVoid(TIERS, "start", "()V");
    ZooVisit zoo("file-read,file-read-bytes,file-reader,file-channel-read,random-access-read,file-write");
    UseRules("frame file sun.nio.ch.FileChannelImpl *\nobject file Lsun/nio/ch/FileChannelImpl;\n"
             "path fd,Ljava/io/FileDescriptor;");
    static char page[PAGEBUF_SIZE];
    char *const savedPage = pagebuf;
    pagebuf = page;
    page[0] = 0;
    e2eclass = static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass(ENRICHER)));
    jobjclass = static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass("java/lang/Object")));
    jstringclass = static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass("java/lang/String")));
    CallVoid(ENRICHER, "answer", "(Ljava/lang/String;)V", nullptr);
    reqid = QORREQ_POLL_DETAILS;
    poll_details = FLAG_POLL_DETAILS;
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    char *args[CONSOLE_ARG_COUNT] = {};
    std::string asked;
    // The writer's frame stands before it has filled its FIFO and waits.
    for (int round = 0; round < 1000 && asked.find("/file-write,") == std::string::npos; round++) {
        page[0] = 0;
        QorHandleShowJVMRequest(reqid, page, PAGEBUF_SIZE, args);
        asked = TextOf(CallObject(ENRICHER, "asked", "()Ljava/lang/String;"));
    }
    for (const char *file : {"file-read", "file-read-bytes", "file-reader", "file-channel-read",
                             "random-access-read", "file-write"})
        EXPECT_NE(asked.find(std::string("/") + file + ","), std::string::npos) << file << asked;
    EXPECT_NE(asked.find(",0,1,,orders,orders.war,default,session of /served,"), std::string::npos) << asked;

    reqid = 0;
    pagebuf = savedPage;
    for (jclass *klass : {&e2eclass, &jobjclass, &jstringclass}) {
        Env()->DeleteGlobalRef(*klass);
        *klass = nullptr;
    }
}

// Below, and in the same frames as, those of the tables, whose records they leave alone.
TEST_F(CrossTier, RulesReadAllObjectsOfAllTheirFrames) {
    CallVoid(TIERS, "start", "()V");
    StartCustomers(1, 20);
    UseRules(DRIVER_RULES);
    EXPECT_EQ("Object Wait", Sample(false).Find("zoo-driver")->state) << "no frame is that of a remote call";
    UseRules(DRIVER_RULES + REMOTE_FRAME);
    QorDropDbConnections();
    for (const SampleReply &reply : {Sample(false), Sample(true)}) {
        ExpectCustomer(reply, 0, "the tables' record");
        const SampleThread *thread = reply.Find("zoo-driver");
        EXPECT_EQ("RMI Wait", thread->state);
        EXPECT_EQ((std::vector<std::string>{"0", "8443", "api", "https://api:8443/x"}), thread->detail4);
        EXPECT_EQ("/orders/17", thread->url);
        EXPECT_EQ("/tomcat", reply.Find("zoo-tomcat")->url);
        EXPECT_EQ("/tomcat", reply.Find("zoo-tomcat")->detail4.at(2)) << "a frame that both have";
    }
    const auto *seen = std::find_if(gbDB_Info, gbDB_Info + iDBInfoIndex, [](const QorDBRequestData &call) {
        return strcmp(call.threadName, "zoo-driver") == 0;
    });
    ASSERT_NE(gbDB_Info + iDBInfoIndex, seen);
    EXPECT_STREQ("/orders/17", seen->url);
    EXPECT_STREQ("https://api:8443/x", seen->user) << "the upper frame's";
    EXPECT_STREQ("/orders/17", seen->sqlText) << "a way marked last comes after all others";
    gbQorRELocal = 1;
    EXPECT_EQ("/orders/17", Sample(true).Find("zoo-driver")->url);
    gbQorRELocal = 0;
}

// Classes of one name in a loader each, which are collected while they are read.
TEST_F(CrossTier, RulesReadClassesThatComeAndGo) {
    constexpr char CHURN[] = "qoragent/testing/ClassChurn";
    UseRules("frame web qoragent.testing.ClassChurn$Worker *\n"
             "object web Lqoragent/testing/ClassChurn$Worker; read\nurl name,Ljava/lang/String;\n");
    CallVoid(CHURN, "start", "()V");
    const int64_t before = CallLong(CHURN, "collected", "()J");
    for (int seen = 0; seen < 20 || CallLong(CHURN, "collected", "()J") < before + 100;) {
        const SampleReply reply = Sample(false);
        const SampleThread *thread = reply.Find("churn-classes");
        seen += thread && thread->url == "/churn";
    }
    CallVoid(CHURN, "stop", "()V");
}

// The JVMs on which locals are read while the frames are walked.
TEST_F(CrossTier, ReadsAtOnceWhereItMust) {
    CallVoid(TIERS, "start", "()V");
    StartCustomers(2, 100);
    gbQorRELocal = 1;
    const SampleReply reply = Sample(true);
    const StackView view = AskStack(KeyOf(reply, "zoo-jserv"));
    const std::string found = Ask(QORREQ_DB_XTIER, LocalPort(1));
    gbQorRELocal = 0;
    EXPECT_EQ(JServUrl(), reply.Find("zoo-jserv")->url);
    EXPECT_EQ("/ferrule", reply.Find("zoo-ferrule-run")->url);
    EXPECT_EQ("/original/ferrule", reply.Find("zoo-ferrule-execute")->url);
    EXPECT_EQ("^", reply.Find("zoo-tomcat")->url) << "no frame of this way";
    EXPECT_EQ("^", reply.Find("zoo-view")->url) << "the request of another thread";
    EXPECT_NE(std::string::npos, reply.Find("zoo-view")->call.find("Unsafe->park"));
    EXPECT_EQ(" ", view.url);

    // This way knows prepared statements alone, and reads no SQL text.
    const std::vector<std::string> block = reply.Find("customer-1")->detail10;
    EXPECT_EQ((std::vector<std::string>{URL, "scott", LocalPort(1), ServerPort(), "127.0.0.1"}),
              std::vector<std::string>(block.begin(), block.begin() + 5));
    EXPECT_EQ("^", block[7]);
    EXPECT_EQ("customer-1|" + KeyOf(reply, "customer-1"), found);
    EXPECT_EQ("^", reply.Find("customer-0")->detail10[0]);
}

TEST_F(CrossTier, PollsKeepNoReference) {
    CallVoid(TIERS, "start", "()V");
    StartCustomers(4, 5000);
    UseRules(DRIVER_RULES + REMOTE_FRAME);
    constexpr int POLLS = 10000;
    const auto poll = [](int times) {
        const std::string key = KeyOf(Sample(false), FRAMEWORKS[0].thread);
        for (int i = 0; i < times; i += 4) {
            poll_details = i % 8 == 0 ? FLAG_POLL_DETAILS : 0;
            Ask(QORREQ_POLL_DETAILS);
            Ask(QORREQ_ACTIVE_THREADS);
            Ask(QORREQ_THREAD_DETAILS, "", key);
            Ask(QORREQ_DB_XTIER, "1");
        }
    };
    poll(40);
    const int64_t before = CallLong("qoragent/testing/JvmCounts", "globalRefs", "()J");
    poll(POLLS);
    EXPECT_LE(CallLong("qoragent/testing/JvmCounts", "globalRefs", "()J"), before + 3);
    ExpectCustomer(Sample(true), 3, "after all");
}
