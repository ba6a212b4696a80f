// What a thread does in other tiers, from its frames to the rows of the views.
#include "Enricher.h"
#include "LogCapture.h"
#include "RequestHandler/RequestHandler.h"
#include "TierText.h"
#include "Xtier/LocalSearch.h"
#include "Xtier/LocalWalk.h"
#include "Xtier/LocalWalkTimes.h"
#include "Xtier/thread_e2e_info.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/threads/ThreadSystem.h"

#include <numeric>

namespace {

constexpr char URL[] = "jdbc:tessar:thin:@//127.0.0.1/SHOP";

struct CrossTier : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorDBQuery = 1;
        gbSqlQueryLength = 4096;
        qorGetLocalObjectsQuotaPct = qorHandWalkQuotaPct = 100;
    }
    void TearDown() override {
        SetTiers("");
        SessionTest::TearDown();
    }
};

void UseRules(const std::string &rules) {
    ASSERT_EQ("", SetTiers(rules));
    QorForgetBoringClasses();
}

std::string LocalPort(int customer) {
    return std::to_string(Java<int64_t>("Customers", "localPort", customer));
}

// Some of a customer's record is left out: the view of one stack has no SQL.
void ExpectCustomer(const qorctl::Thread *thread, int customer, bool withSql = true) {
    ASSERT_TRUE(thread && thread->db) << customer;
    const qorctl::DbWait &db = *thread->db;
    EXPECT_EQ(thread->state, "DB Wait");
    EXPECT_EQ(db.url, URL);
    EXPECT_EQ(db.user, "scott");
    EXPECT_EQ(std::to_string(db.local_port), LocalPort(customer));
    EXPECT_EQ(db.remote_port, Java<int64_t>("Customers", "serverPort"));
    EXPECT_EQ(db.remote_host, "127.0.0.1");
    EXPECT_NEAR(static_cast<double>(time(nullptr)), static_cast<double>(db.sample_time), 60);
    EXPECT_NE(db.sql_ref, 0);
    if (withSql) {
        EXPECT_EQ(db.sql.value_or("").rfind("select " + std::to_string(customer) + " from orders", 0), 0u);
        EXPECT_EQ(db.type, "DEEPDIVE_TESSAR_DB");
    }
}

bool IsPark(const qorctl::Thread &thread) {
    return thread.call && thread.call->method == "park" && thread.call->line == 0;
}

// A framework frame and what its row shows.
struct Framework {
    const char *thread, *call, *file;
    int line = 0;
    bool isInStackView = false; // that knows views and entities alone
};
const Framework FRAMEWORKS[] = {
    {"zoo-view", "View_Object->OrdersView", "ViewObjectImpl.java", 0, true},
    {"zoo-view-in-el", "View_Object->InnerView", "ViewObjectImpl.java", 0, true},
    {"zoo-attribute", "View_Object->OrderTotal", "ViewObjectImpl.java", 0, true},
    {"zoo-entity", "Entity_Object->OrderEntity", "EntityObjImpl.java", 0, true},
    {"zoo-value-el", "EL_Exp->#{orders.total}", "EL_Exp"},
    {"zoo-method-el", "EL_Exp->#{orders.save}", "EL_Exp"},
    {"zoo-groovy", "Groovy_Script->check", "Groovy_Script", 2},
};

// The row in front of a framework's frame; null without any.
const qorctl::Frame *FrameworkRow(const qorctl::Thread &thread) {
    for (const qorctl::Frame &frame : thread.stack)
        if (frame.framework)
            return &frame;
    return nullptr;
}

} // namespace

TEST_F(CrossTier, FrameworkFramesShowWhatTheyWorkOn) {
    Java("Tiers", "start");
    const qorctl::ThreadSample rows = AllThreads(false), stacks = AllThreads(true);
    for (const Framework &row : FRAMEWORKS) {
        const qorctl::Thread *thread = Find(rows, row.thread);
        EXPECT_TRUE(CallOf(*thread->call) == row.call && thread->call->file == row.file &&
                    thread->call->line == row.line)
            << row.thread;
        EXPECT_EQ(FrameworkRow(*thread), nullptr);
        const qorctl::Frame *object = FrameworkRow(*Find(stacks, row.thread));
        ASSERT_TRUE(object) << row.thread;
        EXPECT_EQ(CallOf(*object), row.call);
        const qorctl::Thread view = StackOf(thread->key.Text());
        object = FrameworkRow(view);
        ASSERT_EQ(object != nullptr, row.isInStackView) << row.thread;
        EXPECT_EQ(CallOf(object ? *object : *thread->call), row.call);
    }
    // A compiled script's line isn't known: the call as it is.
    EXPECT_TRUE(IsPark(*Find(rows, "zoo-compiled-groovy")));
}

TEST_F(CrossTier, RequestsShowTheirUrlAndRemoteCallsTheirPeer) {
    const std::pair<const char *, std::string> URLS[] = {
        {"ferrule-run", "/ferrule"},
        {"tomcat", "/tomcat"},
        {"lumo", "/lumo"},
        {"websphere", "/websphere"},
        {"jersey", "GET-/a/b"},
        {"sun-jersey", "POST-/c"},
        {"page", "/pages/orders.jspx"},
        {"ferrule-service", ""},
        {"server", "/served"},
        {"ferrule-execute", "/original/ferrule"},
        {"filter", "/context/faces/page"},
        {"jserv", gbQorJvmKeepsThreads ? "/jserv" : ""}}; // in a Hashtable
    Java("Tiers", "start");
    const qorctl::ThreadSample sample = AllThreads(false);
    for (const auto &[kind, url] : URLS) {
        const qorctl::Thread *thread = Find(sample, std::string("zoo-") + kind);
        ASSERT_TRUE(thread) << kind;
        EXPECT_EQ(thread->request_url.value_or(""), url) << kind;
        EXPECT_EQ(StackOf(thread->key.Text()).request_url.value_or(""), url) << kind;
    }
    const qorctl::Thread *remote = Find(sample, "zoo-remote");
    ASSERT_TRUE(remote && remote->rmi);
    EXPECT_EQ(remote->state, "RMI Wait");
    EXPECT_TRUE(remote->rmi->call_id == 77 && remote->rmi->remote_port == 7001);
    EXPECT_EQ(remote->rmi->remote_host, "192.168.1.5");
    EXPECT_EQ(remote->rmi->jndi_name, "ejb/Orders");
}

// When no walk is made the rows are those of a sample without cross-tier data.
TEST_F(CrossTier, WithoutObjectsTheCallIsTheThreadsOwn) {
    Java("Tiers", "start");
    Java("Customers", "start", 1, 20);
    qorGetLocalObjectsQuotaPct = 0;
    const qorctl::ThreadSample sample = AllThreads(true);
    for (const Framework &row : FRAMEWORKS)
        EXPECT_TRUE(IsPark(*Find(sample, row.thread))) << row.thread;
    const auto &db = Find(sample, "customer-0")->db;
    EXPECT_TRUE(db && !db->url && !db->user && !db->remote_host && !db->sql &&
                db->local_port + db->remote_port == 0);
    const auto &rmi = Find(sample, "zoo-remote")->rmi;
    EXPECT_TRUE(rmi && rmi->call_id == 0 && !rmi->remote_host && !rmi->jndi_name);
}

// More data than a reply can hold: each thread keeps its row, and the first ones have their data.
TEST_F(CrossTier, LongTextsCostNoRow) {
    gbSqlQueryLength = QOR_MAX_SQL_QUERY_SIZE;
    Java("Customers", "start", 300, 60000);
    for (const bool stacks : {false, true}) {
        const qorctl::ThreadSample sample = AllThreads(stacks);
        int complete = 0;
        for (int i = 0; i < 300; ++i) {
            const qorctl::Thread *thread = Find(sample, "customer-" + std::to_string(i));
            ASSERT_TRUE(thread && thread->db) << i;
            if (!thread->db->sql)
                continue;
            ExpectCustomer(thread, i);
            EXPECT_EQ(thread->db->sql->size(), 60000u);
            complete++;
        }
        EXPECT_GE(complete, stacks ? 8 : 14);
    }
}

// Files and the server's work have no column: the Java side is asked with them.
TEST_F(CrossTier, FilesAndServerWorkGoToTheJavaSide) {
    Java("Tiers", "start");
    ZooVisit zoo("file-read,file-channel-read,file-write");
    UseRules("frame file sun.nio.ch.FileChannelImpl *\nobject file Lsun/nio/ch/FileChannelImpl;\n"
             "path fd,Ljava/io/FileDescriptor;");
    EnricherAsked asked;
    char *args[CONSOLE_ARG_COUNT] = {};
    reqid = QORREQ_POLL_DETAILS;
    poll_details = FLAG_POLL_DETAILS;
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    std::string texts;
    // The writer is in its frame before it has filled its FIFO and waits.
    for (int round = 0; round < 1000 && texts.find("/file-write,") == std::string::npos; round++) {
        asked.page[0] = 0;
        QorHandleShowJVMRequest(reqid, asked.page.data(), PAGEBUF_SIZE, args);
        texts = EnricherAsked::Asked();
    }
    for (const char *kind : {"file-read", "file-channel-read", "file-write"})
        EXPECT_NE(texts.find(std::string("/") + kind + ","), std::string::npos) << kind << texts;
    EXPECT_NE(texts.find(",0,1,,orders,orders.war,default,session of /served,"), std::string::npos) << texts;
}

// The JVMs on which locals are read while the frames are walked.
TEST_F(CrossTier, ReadsAtOnceWhereItMust) {
    Java("Tiers", "start");
    Java("Customers", "start", 2, 100);
    gbQorRELocal = 1;
    const qorctl::ThreadSample sample = AllThreads(true);
    const auto url = [&](const char *name) { return Find(sample, name)->request_url.value_or(""); };
    EXPECT_EQ(url("zoo-ferrule-run"), "/ferrule");
    EXPECT_EQ(url("zoo-ferrule-execute"), "/original/ferrule");
    EXPECT_EQ(url("zoo-tomcat"), "") << "no frame of this way";
    EXPECT_EQ(url("zoo-view"), "") << "the request of another thread";
    EXPECT_TRUE(IsPark(*Find(sample, "zoo-view")));
    // This way knows prepared statements alone, and reads no SQL text.
    ExpectCustomer(Find(sample, "customer-1"), 1, false);
    EXPECT_FALSE(Find(sample, "customer-1")->db->sql);
    EXPECT_FALSE(Find(sample, "customer-0")->db->url);
    EXPECT_EQ(Ask(QORREQ_DB_XTIER, LocalPort(1)), "customer-1|" + Find(sample, "customer-1")->key.Text());
}

int64_t fakeNow = 5000000000, fakeStep; // a clock that goes on by a step at each look

// The budget is looked at each thousandth callback.
TEST_F(CrossTier, WalksEndWithTheirBudget) {
    Java("Customers", "start", 1, 100);
    Java("Zoo", "startMany", 300, 40);
    Java("Customers", "start", 1, 100);
    qorLocalWalkClock = [] { return fakeNow += fakeStep; };
    qorGetLocalObjectsQuotaPct = 10;
    const std::pair<int64_t, int32_t> ROWS[] = {{200001, 1000}, {1, 0}}; // 0: not ended by time
    for (const auto &[step, iterations] : ROWS) {
        fakeStep = step;
        LogCapture log(LOG_NOTE + 1);
        const qorctl::ThreadSample sample = AllThreads(false);
        EXPECT_EQ(gbQorWalkCut, iterations > 0);
        EXPECT_EQ(log.count(" is up after " + std::to_string(iterations) + " iterations"), iterations > 0)
            << log.text();
        const bool isWhole = Find(sample, "customer-0")->db->url && Find(sample, "customer-1")->db->url;
        EXPECT_NE(isWhole, iterations > 0);
    }
}

// While threads start and end and classes of one name are loaded and unloaded. No walk goes on into the heap,
// which would take the time of a pass over it, and none leaves tags.
TEST_F(CrossTier, KeepsNothing) {
    const EnricherAsked asked;
    Java("Churn", "threads");
    Java("Churn", "classes");
    ZooVisit zoo("holder,blocked,reentrant,lock-waiter,lock-holder");
    Java("Tiers", "start");
    Java("Customers", "start", 4, 5000);
    UseRules("frame web qoragent.testing.Churn$Worker *\n"
             "object web Lqoragent/testing/Churn$Worker; read\nurl name,Ljava/lang/String;\n");
    qorLockInfoLevel = 2;
    const std::string key = Find(AllThreads(false), FRAMEWORKS[0].thread)->key.Text();
    int64_t read = 0;
    ::KeepsNothing(60, [&] {
        const qorctl::ThreadSample sample = AllThreads(false);
        const QorLocalWalkEnd end = gbQorLocalWalk.outcome.end;
        EXPECT_TRUE(end != WALK_NOT_ENDED && end != WALK_HEAP_REACHED) << end;
        const qorctl::Thread *churn = Find(sample, "churn-classes");
        read += churn && churn->request_url == "/churn";
        AllThreads(true);
        ActiveThreads();
        StackOf(key);
        StackOf(ZooKey("holder"));
        Ask(QORREQ_DB_XTIER, "1");
        Ask(QORREQ_THREAD_SUMMARY);
        EXPECT_EQ(thread_e2e_info, nullptr);
    });
    ExpectCustomer(Find(AllThreads(true), "customer-3"), 3);
    EXPECT_GT(read * Java<int64_t>("Churn", "count", "ended") * Java<int64_t>("Churn", "count", "collected"),
              0);
    jlong tags[1000];
    jint count = -1;
    std::iota(tags, tags + 1000, 1);
    EXPECT_EQ(gbQorLocalWalk.env->GetObjectsWithTags(1000, tags, &count, nullptr, nullptr), JVMTI_ERROR_NONE);
    EXPECT_EQ(count, 0);
}
