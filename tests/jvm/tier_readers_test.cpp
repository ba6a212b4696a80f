// The readers of other tiers: objects of every product, made field by field, and what a record shows of them.
// Those that threads of CrossTier are in are read there.
#include "Folder.h"
#include "ModelObjects.h"
#include "Walk.h"
#include "Xtier/ReadAtOnce.h"
#include "Xtier/tiers/XtierCalls.h"
#include "Xtier/tiers/XtierDb.h"
#include "Xtier/tiers/XtierJSP.h"
#include "Xtier/tiers/XtierQRF.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "qorsettings.h"

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/mman.h>
#include <tuple>
#include <unistd.h>

namespace {

QorDBRequestData db;
QorJSPRequestData &web = objQorJSPRequestData;
QorRmiCallData rmi;
QorIOCallData file;
QorNetworkCallData network;
QorAppServerCallData server;

void Read(const ModelEntry &entry) {
    QorClearDBRequestData(&db);
    QorClearJSPRequestData(&web);
    QorClearRmiCallData(&rmi);
    QorClearIOCallData(&file);
    QorClearNetworkCallData(&network);
    QorClearAppServerCallData(&server);
    const int32_t kind = entry.kind;
    const int32_t result =
        kind == LOCAL_DATABASE_CALL     ? QorGetDBRequestDataFromLocalVariable(&entry, &db)
        : kind == LOCAL_WEB_REQUEST     ? QorGetJSPRequestDataFromLocalVariable(&entry, &web)
        : kind == LOCAL_RMI_CALL        ? QorGetRmiCallDataFromLocalVariable(&entry, &rmi)
        : kind == LOCAL_FILE_CALL       ? QorGetIOCallDataFromLocalVariable(&entry, &file)
        : kind == LOCAL_NETWORK_CALL    ? QorGetNetworkCallDataFromLocalVariable(&entry, &network)
        : kind == LOCAL_APP_SERVER_CALL ? QorGetAppServerCallDataFromLocalVariable(&entry, &server)
                                        : 0;
    EXPECT_EQ(result, 0);
    if (kind == LOCAL_GROOVY)
        QorReadFrameworkEntry(&entry, &web);
}

void Read(int32_t kind, const std::string &klass, jobject object, const char *method = "run") {
    Read(ModelEntry(kind, "L" + klass + ";", object, method));
}

struct Readers : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorDBQuery = 1;
        gbSqlQueryLength = QOR_MAX_SQL_QUERY_SIZE;
        useIds("qoragent/DbUtil");
    }
    static void useIds(const char *klass) {
        gbDbUtilClass = static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass(klass)));
    }
};

#define TEXT_OF(path) path ",Ljava/lang/String;"
#define TESSAR "tessar/jdbc/driver/"
#define PHYSICAL "connection,L" TESSAR "PhysicalConnection;=" TESSAR "Q5DConnection|"
#define Q5 "q5Connection,L" TESSAR "Q5DConnection;|"
#define DIRECT "connection,L" TESSAR "TessarConnection;|"
#define SQL_OF                                                                                               \
    "statements,L" TESSAR "TessarStatement;|sqlObject,L" TESSAR "TessarSql;|" TEXT_OF("originalSql")
#define FERRULE "ferrule/servlet/internal/ServletRequestImpl"
#define GROOVY "org/codehaus/groovy/runtime/callsite/"
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
    {LOCAL_DATABASE_CALL, TESSAR "Q5DCallableStatement", TEXT_OF(Q5 "url"), FIELD(db.url)},
    {LOCAL_DATABASE_CALL, TESSAR "Q5DCallableStatement", Q5 SQL_OF, FIELD(db.sqlText)},
    {LOCAL_DATABASE_CALL, TESSAR "Q5DConnection", TEXT_OF("userName"), FIELD(db.user)},
    {LOCAL_DATABASE_CALL, TESSAR "Q5DConnection", SQL_OF, FIELD(db.sqlText)},
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
            EXPECT_EQ(row.field, row.size < 9000 ? accents.substr(0, whole) : accents) << row.path;
        }
    }
    jobject request = MakeObject(FERRULE);
    Plant(request, TEXT_OF("servletPath"), "/a");
    for (const char *method : {"service", "runs", "", "executeAll"}) {
        Read(LOCAL_WEB_REQUEST, FERRULE, request, method);
        EXPECT_STREQ(web.requestUrl, "") << "it isn't served in " << method;
    }
}

// ---- Databases

namespace {

void ExpectPorts(jobject stream, const std::string &what) {
    EXPECT_EQ(db.localPort, Java<int64_t>("Customers", "port", stream, false)) << what;
    EXPECT_EQ(db.remotePort, Java<int64_t>("Customers", "port", stream, true)) << what;
    EXPECT_STREQ(db.remoteHost, stream ? "127.0.0.1" : "") << what;
}

// A statement over that connection, by the object that holds it or by the connection itself.
jobject StatementOver(jobject stream, bool layered) {
    jobject statement =
        MakeObject(layered ? TESSAR "Q5DPreparedStatement" : TESSAR "TessarPreparedStatement");
    const std::string connection = layered ? PHYSICAL : DIRECT;
    Plant(statement,
          connection + (layered ? "" : "db_access,Ltessar/jdbc/dbaccess/DBAccess;|") +
              "net,Ltessar/net/ns/Communication;",
          stream);
    Plant(statement, connection + TEXT_OF("url"), std::string(100, 'u'));
    Plant(statement, connection + (layered ? TEXT_OF("userName") : TEXT_OF("user")), "scott");
    Plant(statement, layered ? PHYSICAL SQL_OF : TEXT_OF("sql_query"), "select 1");
    return statement;
}

void ReadStatement(jobject statement, bool layered) {
    Read(LOCAL_DATABASE_CALL, layered ? TESSAR "Q5DPreparedStatement" : TESSAR "TessarPreparedStatement",
         statement);
}

// By the frame in which the thread of that name executes a statement.
void ReadFrameOf(const std::string &thread) {
    Walk walk;
    ASSERT_TRUE(walk.find(thread));
    QorFrameRecord frame = {};
    for (; walk.frames.index < walk.frames.count; walk.frames.index++)
        if (QorReadFrame(&walk.frames, FRAME_METHOD_AND_CLASS, &frame) == 0 &&
            strcmp(frame.method, "executeQuery") == 0)
            break;
    QorClearDBRequestData(&db);
    EXPECT_EQ(QorGetDBRequestData(&walk.thread, &frame, &db), 0);
}

} // namespace

// Of threads that are really in the driver, with encrypted connections in the middle of their handshakes;
// read by their objects, and by their frames.
TEST_F(Readers, EveryStreamLeadsToItsSocketUntilItIsClosed) {
    qorGetLocalObjectsQuotaPct = 100;
    for (const std::string kind :
         {"plain", "metered", "encrypted", "layered", "encrypted-bare", "encrypted-metered"}) {
        const QorLocalFrame references(Env(), 128);
        jobject stream = Java<jobject>("Customers", "connect", kind);
        for (const bool layered : {false, true}) {
            const std::string name = kind + (layered ? " layered" : "");
            jobject statement = StatementOver(stream, layered);
            if (kind.find("encrypted-") != 0) { // the others can't talk
                Java("Customers", "execute", name, statement);
                ReadFrameOf(name);
                ExpectPorts(stream, name);
                EXPECT_EQ(std::string(db.user) + db.url, "scott" + std::string(layered ? 63 : 100, 'u'));
                EXPECT_TRUE(!*db.sqlText && db.sqlRef);
            }
            ReadStatement(statement, layered);
            ExpectPorts(stream, name);
            EXPECT_TRUE(db.connectionHash && db.sampleTime && db.dbType == DB_TYPE_TESSAR);
        }
        Java("Customers", "close", stream);
        for (const bool layered : {false, true}) {
            ReadStatement(StatementOver(stream, layered), layered);
            EXPECT_EQ(db.localPort + db.remotePort, 0u) << kind;
            EXPECT_STREQ(db.sqlText, "select 1") << kind;
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
    for (const int32_t limit : {QOR_MAX_SQL_QUERY_SIZE + 0, 101, 16, 15, 2, 1, -1}) {
        gbSqlQueryLength = limit;
        const std::string id = Java<std::string>("qoragent/DbUtil", "sqlText2sqlId", accents);
        const int32_t room = limit >= 16 ? limit - 16 : std::max(limit - 1, 0);
        EXPECT_EQ(read(accents),
                  accents.substr(0, static_cast<size_t>(room / 2 * 2)) + (limit >= 16 ? "!" + id + "!" : ""))
            << limit;
        const std::string fits = accents.substr(0, static_cast<size_t>(std::max(limit - 1, 0) / 2 * 2));
        EXPECT_EQ(read(fits), fits) << limit;
    }
    // Ids that are too long, missing or thrown leave the cut text.
    gbSqlQueryLength = 64;
    useIds("qoragent/testing/Driver");
    for (const char first : {'s', 'n', 't'})
        EXPECT_EQ(read(std::string(1000, first)), std::string(63, first));
}

// Drivers differ in the fields that they have. What one has is remembered, and a driver that comes later is
// still read.
TEST_F(Readers, TheUserIsFoundInEitherField) {
    jobject former = MakeObject(TESSAR "Q5DPreparedStatement");
    const std::string connection = "connection,L" TESSAR "PhysicalConnection;=" TESSAR "FormerConnection|";
    Plant(former, connection + TEXT_OF("user"), "scott");
    jobject later = StatementOver(nullptr, true);
    for (jobject statement : {later, former, former, later, later, former, later}) {
        ReadStatement(statement, true);
        EXPECT_STREQ(db.user, "scott");
    }
    // A connection without "statements" was seen: that concerns its own class alone.
    EXPECT_STREQ(db.sqlText, "select 1");
}

// The native driver's memory: a chain of pointers, none of them aligned, and after the last block a page that
// forbids reading.
TEST_F(Readers, TheNativeDriversMemoryHasTheDescriptorOrNothing) {
    constexpr size_t OFFSETS[] = {0, 0x0c, 0x44, 0x120, 0x1a20, 0xd4, 0x8c, 0, 0x9c, 0x104, 0x18, 0x530};
    constexpr size_t STEPS = 11, BLOCK = 0x2000, SIZE = (STEPS + 2) * BLOCK;
    void *mapped = mmap(nullptr, SIZE + BLOCK, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    char *const memory = static_cast<char *>(mapped), *const end = memory + SIZE;
    mprotect(end, BLOCK, PROT_NONE);
    const auto block = [&](size_t i) { return memory + i * BLOCK + 2 * i + 1; };
    const auto put = [&](size_t step, auto value) {
        memcpy(block(step) + OFFSETS[step], &value, sizeof value);
    };
    jobject stream = Java<jobject>("Customers", "connect", "plain");
    ReadStatement(StatementOver(stream, false), false);
    put(STEPS, static_cast<int32_t>(db.fd));
    for (size_t step = 0; step < STEPS; step++)
        put(step, block(step + 1));

    jobject access = MakeObject("tessar/jdbc/zdi8/ZDIDBAccess"), statement = StatementOver(nullptr, false);
    Plant(access, "c_state,J", reinterpret_cast<int64_t>(block(0)));
    Plant(statement, DIRECT "db_access,Ltessar/jdbc/dbaccess/DBAccess;", access);
    tessar_thick_driver = 1;
    ReadStatement(statement, false);
    ExpectPorts(stream, "thick");
    // Memory of another build: at each step nothing, or an address that can't be read, or not to its end.
    int64_t fd = -7;
    for (size_t step = 0; step < STEPS; step++) {
        for (const uintptr_t address : {uintptr_t{0}, uintptr_t{0xdead000000000001}, ~uintptr_t{0},
                                        reinterpret_cast<uintptr_t>(end) - OFFSETS[step + 1] - 3}) {
            put(step, address);
            EXPECT_EQ(QorGetFdFromThickDriver(&fd, access), -1) << step << " " << address;
        }
        put(step, block(step + 1));
    }
    EXPECT_EQ(QorGetFdFromThickDriver(&fd, statement), -1) << "no c_state";
    munmap(mapped, SIZE + BLOCK);
}

// ---- Web requests, peers, files, and the server's marks

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

TEST_F(Readers, UrlsOfLumoAreARangeOfBytes) {
    jobject request = MakeObject("com/halcyon/server/http/HalcyonHttpServletRequest");
    const std::string path = "servletPath,Lcom/halcyon/util/ByteString;|";
    Plant(request, path + "data,[B", Env()->NewByteArray(5));
    for (const auto &[offset, length, url] :
         {std::tuple(1, 3, "???"), std::tuple(0, 6, ""), std::tuple(INT32_MAX, INT32_MAX, "")}) {
        Plant(request, path + "offset,I", offset);
        Plant(request, path + "length,I", length);
        Read(LOCAL_WEB_REQUEST, "com/halcyon/server/http/HalcyonHttpServletRequest", request, "service");
        EXPECT_STREQ(web.requestUrl, url) << offset;
    }
}

// Lines are counted later, so that a script keeps its line ends.
TEST_F(Readers, ScriptsAndCallSitesStayAsTheyAre) {
    std::string script = "a()\r\nb()\n";
    jobject evaluation = MakeObject("tessar/kvo/ExprEval");
    for (; script.size() < 20000; script += script) {
        Plant(evaluation, TEXT_OF("mExprStr"), script);
        Read(LOCAL_GROOVY, "tessar/kvo/ExprEval", evaluation);
        EXPECT_EQ(web.groovyScript, script.substr(0, GROOVY_SCRIPT_SIZE - 1));
    }
    // Names of 1,200 sites, of which one is missing and one has no name; a thousand are looked at.
    jobjectArray sites = Env()->NewObjectArray(1200, Env()->FindClass(GROOVY "CallSite"), nullptr);
    for (int32_t i = 0; i < 1200; i++) {
        const QorLocalFrame references(Env(), 16);
        jobject site = MakeObject(GROOVY "AbstractCallSite");
        if (i != 4)
            Plant(site, TEXT_OF("name"), "site" + std::to_string(i) + (i == 5 ? std::string(600, 'l') : ""));
        Plant(site, "index,I", i);
        Env()->SetObjectArrayElement(sites, i, i == 3 ? nullptr : site);
    }
    jobject site = Env()->GetObjectArrayElement(sites, 7);
    Plant(site, "array,L" GROOVY "CallSiteArray;|array,[L" GROOVY "CallSite;", sites);
    Read(LOCAL_GROOVY, GROOVY "AbstractCallSite", site);
    EXPECT_STREQ(web.groovyCurrentLine, "site7");
    EXPECT_EQ(web.groovyCurrentIndex, 7);
    ASSERT_EQ(web.groovyCallSiteCount, 998);
    EXPECT_EQ(web.groovyCallSites[3], "site5" + std::string(506, 'l'));
    EXPECT_STREQ(web.groovyCallSites[997], "site999");
}

TEST_F(Readers, RemotePeersHaveSignedParts) {
    const std::pair<const char *, const char *> ADDRESSES[] = {
        {"10.1.2.3", "10.1.2.3"}, {"255.255.255.255", "0.0.0.-1"}, {"2001:db8::5", ""}, {"unresolved", ""}};
    const std::string channel = "rjvm,Lferrule/rjvm/RJVM;|remoteChannel,Lferrule/rmi/spi/Channel;|";
    for (const auto &[address, host] : ADDRESSES) {
        jobject response = MakeObject("ferrule/rjvm/ResponseImpl");
        Plant(response, "id,I", 42);
        Read(LOCAL_RMI_CALL, "ferrule/rjvm/ResponseImpl", response);
        EXPECT_EQ(rmi.callId, 0) << "nothing of half a record";
        Plant(response, channel + "port,I", 7001);
        Plant(response, channel + "address,Ljava/net/InetSocketAddress;",
              Java<jobject>("Obstacles", "address", address));
        Read(LOCAL_RMI_CALL, "ferrule/rjvm/ResponseImpl", response);
        EXPECT_EQ(fmt::format("{} {}:{}", rmi.callId, rmi.host, rmi.port), fmt::format("42 {}:7001", host));
    }
}

// Names are any bytes, which are made to fit a record.
TEST_F(Readers, FilesHaveTheirNamesUntilTheyAreClosed) {
    const Folder in;
    const int fd = open(in.In("a\nb\x1d\xe9").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    const std::string descriptor = "fd,Ljava/io/FileDescriptor;|fd,I";
    const std::string stream = "in,Ljava/io/InputStream;=java/io/FileInputStream|" + descriptor;
    const std::pair<const char *, std::string> OBJECTS[] = {
        {"java/io/FileReader", "sd,Lsun/nio/cs/StreamDecoder;|" + stream},
        {"java/io/RandomAccessFile", descriptor},
        {"java/io/BufferedInputStream", stream},
        {"java/io/FileDescriptor", "fd,I"}};
    for (const auto &[klass, path] : OBJECTS) {
        jobject object = MakeObject(klass);
        for (const int of : {fd, -1}) {
            Plant(object, path, of);
            Read(LOCAL_FILE_CALL, klass, object);
            EXPECT_EQ(file.fileName, of < 0 ? "" : in.In("a b ?")) << klass;
        }
        Read(LOCAL_FILE_CALL, klass, MakeObject("java/lang/Object"));
        EXPECT_TRUE(file.fd == -1 && !*file.fileName) << klass;
    }
    close(fd);
}

TEST_F(Readers, SocketsHaveTheirPeer) {
    jobject stream = Java<jobject>("Customers", "connect", "plain");
    ReadStatement(StatementOver(stream, false), false);
    const auto client = static_cast<int>(db.fd);
    const int null = open("/dev/null", O_RDONLY | O_CLOEXEC);
    jobject descriptor = MakeObject("java/io/FileDescriptor");
    for (const int fd : {client, null, -1}) {
        Plant(descriptor, "fd,I", fd);
        Read(LOCAL_NETWORK_CALL, "java/io/FileDescriptor", descriptor);
        EXPECT_EQ(fmt::format("{} {}:{}", network.fd, network.host, network.port),
                  fd == client
                      ? fmt::format("{} 127.0.0.1:{}", fd, Java<int64_t>("Customers", "port", stream, true))
                      : fmt::format("{} :{}", fd, fd < 0 ? -1 : 0));
    }
    close(null);
}

// A server without the field marks a stuck thread by its name.
TEST_F(Readers, StuckThreadsAreMarkedByFieldOrName) {
    const struct {
        const char *name;
        int32_t fields, stuck, hogger;
    } THREADS[] = {{"[STUCK] ExecuteThread: '3'", 0, 1, -1},
                   {"ExecuteThread: [STUCK]", 0, -1, -1},
                   {"[STUCK] but not so", 1, 0, 1},
                   {"ExecuteThread", 2, 1, 0}};
    for (const auto &row : THREADS) {
        jobject thread = MakeObject(row.fields ? "ferrule/work/ExecuteThread" : "java/lang/Object");
        if (row.fields) {
            Plant(thread, "stuckThread,Z", row.fields == 2);
            Plant(thread, "isHogger,Z", row.fields == 1);
        }
        ModelEntry entry(LOCAL_APP_SERVER_CALL, "Lferrule/work/ExecuteThread;", thread);
        snprintf(entry.threadName, sizeof entry.threadName, "%s", row.name);
        Read(entry);
        EXPECT_TRUE(server.stuck == row.stuck && server.hogger == row.hogger) << row.name;
    }
}
