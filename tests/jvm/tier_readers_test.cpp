// The readers of other tiers: objects of every product, made field by field, and what a record shows of them.
// Those that threads of CrossTier are in are read there.
#include "ModelObjects.h"
#include "Xtier/tiers/XtierCalls.h"
#include "Xtier/tiers/XtierDb.h"
#include "Xtier/tiers/XtierJSP.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"

#include <algorithm>

namespace {

QorDBRequestData db;
QorJSPRequestData &web = objQorJSPRequestData;
QorRmiCallData rmi;
QorAppServerCallData server;

void Read(int32_t kind, const std::string &klass, jobject object) {
    const ModelEntry entry(kind, "L" + klass + ";", object);
    QorClearDBRequestData(&db);
    QorClearJSPRequestData(&web);
    QorClearRmiCallData(&rmi);
    QorClearAppServerCallData(&server);
    EXPECT_EQ(kind == LOCAL_DATABASE_CALL ? QorGetDBRequestDataFromLocalVariable(&entry, &db)
              : kind == LOCAL_WEB_REQUEST ? QorGetJSPRequestDataFromLocalVariable(&entry, &web)
              : kind == LOCAL_RMI_CALL    ? QorGetRmiCallDataFromLocalVariable(&entry, &rmi)
                                          : QorGetAppServerCallDataFromLocalVariable(&entry, &server),
              0);
}

struct Readers : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorDBQuery = 1;
        gbSqlQueryLength = QOR_MAX_SQL_QUERY_SIZE;
        gbDbUtilClass = static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass("qoragent/DbUtil")));
    }
};

#define TEXT_OF(path) path ",Ljava/lang/String;"
#define TESSAR "tessar/jdbc/driver/"
#define PHYSICAL "connection,L" TESSAR "PhysicalConnection;=" TESSAR "Q5DConnection|"
#define DIRECT "connection,L" TESSAR "TessarConnection;|"
#define SQL_OF                                                                                               \
    "statements,L" TESSAR "TessarStatement;|sqlObject,L" TESSAR "TessarSql;|" TEXT_OF("originalSql")
#define FERRULE "ferrule/servlet/internal/ServletRequestImpl"
#define FIELD(field) field, sizeof field

std::string Accents(size_t size) {
    std::string text;
    while (text.size() < size)
        text += "\xc3\xa9";
    return text;
}

const struct Row {
    int32_t kind;
    const char *klass, *path;
    const char *field;
    size_t size;
} TEXTS[] = {
    {LOCAL_DATABASE_CALL, TESSAR "Q5DCallableStatement",
     TEXT_OF("q5Connection,L" TESSAR "Q5DConnection;|url"), FIELD(db.url)},
    {LOCAL_DATABASE_CALL, TESSAR "Q5DConnection", TEXT_OF("userName"), FIELD(db.user)},
    {LOCAL_WEB_REQUEST, FERRULE, TEXT_OF("servletPath"), FIELD(web.requestUrl)},
    {LOCAL_RMI_CALL, "ferrule/rmi/cluster/ClusterableRemoteRef",
     TEXT_OF("replicaHandler,Lferrule/rmi/cluster/ReplicaHandler;|jndiName"), FIELD(rmi.jndiName)},
    {LOCAL_APP_SERVER_CALL, "ferrule/work/ExecuteThread",
     TEXT_OF("workManager,Lferrule/work/SelfTuningWorkManagerImpl;|wmName"), FIELD(server.wmName)},
};

} // namespace

TEST_F(Readers, ShowTextsCutAtACharacter) {
    for (const Row &row : TEXTS) {
        const QorLocalFrame references(Env(), 64);
        jobject object = MakeObject(row.klass);
        for (jobject empty : {object, MakeObject("java/lang/Object"), jobject{}}) {
            Read(row.kind, row.klass, empty);
            EXPECT_STREQ(row.field, "") << row.path;
        }
        for (const std::string head : {"x", "xy"}) { // either way one is torn
            const std::string accents = head + Accents(9000);
            Plant(object, row.path, accents);
            Read(row.kind, row.klass, object);
            const size_t whole = (row.size - 1 - head.size()) / 2 * 2 + head.size();
            EXPECT_EQ(row.field, accents.substr(0, whole)) << row.path;
        }
    }
}

// ---- Databases

namespace {

// A statement over that connection, by the object that holds it or by the connection itself.
jobject StatementOver(jobject stream, bool layered) {
    jobject statement =
        MakeObject(layered ? TESSAR "Q5DPreparedStatement" : TESSAR "TessarPreparedStatement");
    const std::string connection = layered ? PHYSICAL : DIRECT;
    Plant(statement,
          connection + (layered ? "" : "db_access,Ltessar/jdbc/dbaccess/DBAccess;|") +
              "net,Ltessar/net/ns/Communication;",
          stream);
    Plant(statement, connection + (layered ? TEXT_OF("userName") : TEXT_OF("user")), "scott");
    Plant(statement, layered ? PHYSICAL SQL_OF : TEXT_OF("sql_query"), "select 1");
    return statement;
}

void ReadStatement(jobject statement, bool layered) {
    Read(LOCAL_DATABASE_CALL, layered ? TESSAR "Q5DPreparedStatement" : TESSAR "TessarPreparedStatement",
         statement);
}

} // namespace

// Encrypted connections are in the middle of their handshakes.
TEST_F(Readers, EveryStreamLeadsToItsSocketUntilItIsClosed) {
    for (const char *kind :
         {"plain", "metered", "encrypted", "layered", "encrypted-bare", "encrypted-metered"}) {
        const QorLocalFrame references(Env(), 128);
        jobject stream = Java<jobject>("Customers", "connect", kind);
        for (const bool isOpen : {true, false}) {
            for (const bool layered : {false, true}) {
                ReadStatement(StatementOver(stream, layered), layered);
                EXPECT_EQ(db.localPort, isOpen ? Java<int64_t>("Customers", "port", stream, false) : 0)
                    << kind;
                EXPECT_EQ(db.remotePort, isOpen ? Java<int64_t>("Customers", "port", stream, true) : 0)
                    << kind;
                EXPECT_STREQ(db.remoteHost, isOpen ? "127.0.0.1" : "") << kind;
                EXPECT_STREQ(db.user, "scott");
                EXPECT_STREQ(db.sqlText, "select 1") << kind;
            }
            Java("Customers", "close", stream);
        }
    }
}

TEST_F(Readers, SqlIsCutAtACharacterWithTheIdOfTheWhole) {
    jobject statement = MakeObject(TESSAR "TessarStatement");
    const auto read = [&](const std::string &sql) {
        const QorLocalFrame references(Env(), 16);
        Plant(statement, TEXT_OF("sql_query"), sql);
        Read(LOCAL_DATABASE_CALL, TESSAR "TessarStatement", statement);
        return std::string(db.sqlText);
    };
    const std::string accents = Accents(70000);
    for (const int32_t limit : {QOR_MAX_SQL_QUERY_SIZE + 0, 101, 16, 15, -1}) {
        gbSqlQueryLength = limit;
        const std::string id = Java<std::string>("qoragent/DbUtil", "sqlText2sqlId", accents);
        const int32_t room = limit >= 16 ? limit - 16 : std::max(limit - 1, 0);
        EXPECT_EQ(read(accents),
                  accents.substr(0, static_cast<size_t>(room / 2 * 2)) + (limit >= 16 ? "!" + id + "!" : ""))
            << limit;
        const std::string fits = accents.substr(0, static_cast<size_t>(std::max(limit - 1, 0) / 2 * 2));
        EXPECT_EQ(read(fits), fits) << limit;
    }
}

// In a table, which is left alone where JVMTI can't be asked for its lock. Nobody is waited for: neither the
// thread that has the lock, nor the one that initialises the object's class.
TEST_F(Readers, UrlsAreNotWaitedFor) {
    const auto read = [](jobject table) {
        jobject connection = MakeObject("org/apache/jserv/JServConnection");
        Plant(connection, "env_vars,Ljava/util/Hashtable;", table);
        Read(LOCAL_WEB_REQUEST, "org/apache/jserv/JServConnection", connection);
        return std::string(web.requestUrl);
    };
    jobject table = Java<jobject>("Obstacles", "lockedTable");
    EXPECT_EQ(read(nullptr) + read(table), "");
    jobject unborn = Java<jobject>("Obstacles", "inInitializer");
    Read(LOCAL_WEB_REQUEST, FERRULE, unborn);
    EXPECT_STREQ(web.requestUrl, "");
    Java("Obstacles", "release");
    EXPECT_EQ(read(table), gbQorJvmKeepsThreads ? "/locked" : "");
    Read(LOCAL_WEB_REQUEST, FERRULE, unborn);
    EXPECT_STREQ(web.requestUrl, "/born") << "nothing was learnt of the class meanwhile";
}
