// Objects read by rules, which may be wrong in any way.
#include "JvmFixture.h"
#include "LogCapture.h"
#include "ModelObjects.h"
#include "TierText.h"
#include "Xtier/tiers/XtierRules.h"

namespace {

constexpr char SIGNATURE[] = "Lqoragent/testing/Driver;";

struct Rules : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorDBQuery = 1;
        gbSqlQueryLength = 4096;
        driver = Java<jobject>("Driver", "open");
    }
    void TearDown() override {
        SetTiers("");
        SessionTest::TearDown();
    }
    // The records by these ways of the driver, as an object of this kind.
    void Read(const std::string &ways, const std::string &mark = "") {
        EXPECT_EQ("", SetTiers(std::string("object db ") + SIGNATURE + " " + mark + "\n" + ways));
        Read(driver);
    }
    void Read(jobject object) { Read({{object, QorFindTierObjects(SIGNATURE)}}); }
    void Read(std::initializer_list<QorRuleObject> objects) {
        ModelEntry entry(LOCAL_BY_RULES, SIGNATURE, driver);
        entry.tiers = TIER_OBJECTS;
        for (const QorRuleObject &object : objects)
            entry.ruleObjects[entry.ruleObjectCount++] = object;
        QorClearRuleRecords(&records);
        QorReadThreadByRules(&entry, entry.threadId, &records);
    }

    jobject driver = nullptr;
    QorRuleRecords records;
    QorDBRequestData &record = records.database;
};

} // namespace

TEST_F(Rules, FollowEachWayOfAnEmptyField) {
    Read("url none,Ljava/lang/String;\nurl any,Ljava/lang/Object;\nurl text,Ljava/lang/String;\n"
         "socket channel,Ljava/net/Socket;");
    EXPECT_STREQ("text of any", record.url);
    EXPECT_EQ(Java<int64_t>("Driver", "localPort", driver), record.localPort);
}

TEST_F(Rules, ACallInsideAnotherProductsCallTakesNothingOfIt) {
    jobject const outer = Java<jobject>("Truth", "currentThread");
    for (const bool isProduct : {false, true}) {
        EXPECT_EQ("", SetTiers(std::string("state db qoragent.testing.\n") +
                               (isProduct ? "state db java.lang.\n" : "") +
                               "object db Lqoragent/testing/Driver;\nurl text,Ljava/lang/String;\n"
                               "object db Ljava/lang/Thread;\nuser name,Ljava/lang/String;"));
        Read({{driver, QorFindTierObjects(SIGNATURE)}, {outer, QorFindTierObjects("Ljava/lang/Thread;")}});
        EXPECT_STREQ("text", record.url);
        EXPECT_EQ(isProduct, !record.user[0]);
    }
}

TEST_F(Rules, AWrongWayLeavesItsFieldEmpty) {
    const std::string queue = "queue,[Ljava/lang/Object;@head", bytes = "bytes,[B:from:to";
    const struct {
        int32_t head, from, to;
        std::string way, url;
    } WAYS[] = {
        {1, 4, 16, queue, "first"},
        {0, 4, 16, queue + "|text,Ljava/lang/String;", "text"}, // a cycle has as many steps as its way
        {0, 4, 16, queue, ""},                                  // no text
        {-1, 4, 16, queue, ""},
        {0, 4, 16, "numbers,[[I@head", ""},
        {0, 4, 16, "queue,[Ljava/lang/Object;@text", ""},
        {0, 0, 21, bytes, "GET /shop/orders HTTP"},
        {0, 0, 22, bytes, ""},
        {0, INT32_MIN, INT32_MAX, bytes, ""},
        {0, 4, 16, "bytes,[B:from:text", ""},
        {0, 4, 16, "nothing,La/B;|text,Ljava/lang/String;", ""},
        {0, 4, 16, std::string(3900, 'x') + ",Ljava/lang/String;", ""},
        {0, 4, 16, "\xff\xc3,Ljava/lang/String;", ""},
    };
    for (const auto &row : WAYS) {
        Plant(driver, "head,I", row.head);
        Plant(driver, "from,I", row.from);
        Plant(driver, "to,I", row.to);
        Read("url " + row.way);
        EXPECT_EQ(row.url, record.url) << row.way.substr(0, 80) << row.head << " " << row.from;
    }
    constexpr int32_t LONG = sizeof record.url + 5;
    Plant(driver, "bytes,[B", Env()->NewByteArray(LONG)); // zeros are shown as question marks
    Plant(driver, "from,I", 0);
    Plant(driver, "to,I", LONG);
    Read("url " + bytes);
    EXPECT_EQ(std::string(sizeof record.url - 1, '?'), record.url);
    Read("socket self,Lqoragent/testing/Driver;");
    EXPECT_EQ(-1, record.fd);
}

// One that fits nothing that is loaded goes at its first try; one that was right once stays, and nothing is
// learnt of a class that isn't initialised yet.
TEST_F(Rules, KnownFromSourcesAloneAreLeftAloneWhereTheyDontFit) {
    constexpr char LINE[] = "Tier rules: line 1 is off, as the loaded class has no such field: "
                            "Lqoragent/testing/Driver;";
    const std::string ways =
        "url self,Lqoragent/testing/Driver;|text,Ljava/lang/String;\nuser text,Ljava/lang/String;";
    jobject const other = Java<jobject>("Truth", "currentThread");
    jobject const unborn = Java<jobject>("Obstacles", "inInitializer");
    LogCapture log(1);
    Read(ways, "read");
    for (jobject object : {other, driver})
        Read(object);
    EXPECT_STREQ("text", record.url);

    EXPECT_EQ("", SetTiers(std::string("object db ") + SIGNATURE + " read\n" + ways));
    Read(unborn);
    Java("Obstacles", "release");
    EXPECT_EQ(0, log.count(LINE));
    for (jobject object : {other, other, driver})
        Read(object);
    EXPECT_EQ(1, log.count(LINE));
    EXPECT_STREQ("", record.user);
}
