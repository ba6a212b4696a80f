#include "JvmFixture.h"
#include "LogCapture.h"
#include "ModelObjects.h"
#include "Walk.h"
#include "Xtier/ReadAtOnce.h"
#include "Xtier/tiers/ObjectMap.h"
#include "Xtier/tiers/XtierDb.h"
#include "jvmti/JavaClasses.h"
#include "jvmti/JniFields.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <cstring>
#include <ctime>
#include <memory>
#include <string>
#include <sys/mman.h>
#include <unistd.h>
#include <vector>

namespace {

constexpr char URL[] = "jdbc:tessar:thin:@//database-of-the-shop.example:1521/orders_and_payments";
constexpr char SQL[] = "select * from orders where id = ?";
constexpr char COMMUNICATION[] = "tessar/net/ns/Communication";
constexpr char CONNECT[] = "(Ljava/lang/String;I)Ltessar/net/ns/Communication;";

// An object made by a constructor.
template <typename... Args>
jobject New(const char *klass, const char *signature, Args... args) {
    jclass found = Env()->FindClass(klass);
    jobject made = Env()->NewObject(found, Env()->GetMethodID(found, "<init>", signature), args...);
    EXPECT_TRUE(made) << klass;
    Env()->DeleteLocalRef(found);
    return made;
}

int32_t CallInt(jobject object, const char *method) {
    jclass klass = Env()->GetObjectClass(object);
    const jint result = Env()->CallIntMethod(object, Env()->GetMethodID(klass, method, "()I"));
    EXPECT_FALSE(Env()->ExceptionCheck()) << method;
    Env()->DeleteLocalRef(klass);
    return result;
}

jobject Field(jobject object, const char *name, const char *signature) {
    return Env()->GetObjectField(object, Env()->GetFieldID(Env()->GetObjectClass(object), name, signature));
}

void Close(jobject closeable) {
    jclass klass = Env()->GetObjectClass(closeable);
    Env()->CallVoidMethod(closeable, Env()->GetMethodID(klass, "close", "()V"));
    EXPECT_FALSE(Env()->ExceptionCheck());
    Env()->DeleteLocalRef(klass);
}

// The driver's objects as a statement holds them. What is made of them is to be read by a signature.
struct Driver {
    explicit Driver(jobject theServer, const char *kindOfStream)
        : stream(
              CallObject(COMMUNICATION, "connect", CONNECT, Text(kindOfStream), CallInt(theServer, "port"))),
          socket(Field(stream, "socket", "Ljava/net/Socket;")) {}

    jobject tessarConnection(const char *url = URL) const {
        jobject access = New("tessar/jdbc/dbaccess/DBAccess", "(Ltessar/net/ns/Communication;)V", stream);
        return New("tessar/jdbc/driver/TessarConnection",
                   "(Ljava/lang/String;Ljava/lang/String;Ltessar/jdbc/dbaccess/DBAccess;)V", Text(url),
                   Text("scott"), access);
    }
    jobject physical(const char *klass) const {
        return New(klass, "(Ljava/lang/String;Ljava/lang/String;Ltessar/net/ns/Communication;)V", Text(URL),
                   Text("scott"), stream);
    }

    jobject stream, socket;
};

jobject TessarStatement(const char *klass, jobject connection, jstring sql) {
    return New(klass, "(Ltessar/jdbc/driver/TessarConnection;Ljava/lang/String;)V", connection, sql);
}

// By the field of the general type, or by the one of the special type.
jobject PhysicalStatement(jobject connection, jstring sql) {
    return New("tessar/jdbc/driver/Q5DPreparedStatement",
               "(Ltessar/jdbc/driver/PhysicalConnection;Ljava/lang/String;)V", connection, sql);
}
jobject Q5Statement(const char *klass, jobject connection, jstring sql) {
    return New(klass, "(Ltessar/jdbc/driver/Q5DConnection;Ljava/lang/String;)V", connection, sql);
}

struct Form {
    const char *signature, *otherSpelling;
    jobject (*make)(const Driver &driver);
};

const Form FORMS[] = {
    {"Ltessar/jdbc/driver/TessarPreparedStatement;", "tessar/jdbc/driver/TessarPreparedStatement",
     [](const Driver &driver) {
         return TessarStatement("tessar/jdbc/driver/TessarPreparedStatement", driver.tessarConnection(),
                                Text(SQL));
     }},
    {"Ltessar/jdbc/driver/TessarStatement;", "tessar/jdbc/driver/TessarStatement",
     [](const Driver &driver) {
         return TessarStatement("tessar/jdbc/driver/TessarStatement", driver.tessarConnection(), Text(SQL));
     }},
    {"Ltessar/jdbc/driver/Q5DPreparedStatement;", "tessar/jdbc/driver/Q5DPreparedStatement",
     [](const Driver &driver) {
         return PhysicalStatement(driver.physical("tessar/jdbc/driver/Q5DConnection"), Text(SQL));
     }},
    {"Ltessar/jdbc/driver/Q5DPreparedStatement;", "tessar/jdbc/driver/Q5DPreparedStatement",
     [](const Driver &driver) {
         return Q5Statement("tessar/jdbc/driver/Q5DPreparedStatement",
                            driver.physical("tessar/jdbc/driver/Q5DConnection"), Text(SQL));
     }},
    {"Ltessar/jdbc/driver/Q5DCallableStatement;", "tessar/jdbc/driver/Q5DCallableStatement",
     [](const Driver &driver) {
         return Q5Statement("tessar/jdbc/driver/Q5DCallableStatement",
                            driver.physical("tessar/jdbc/driver/Q5DConnection"), Text(SQL));
     }},
    {"Ltessar/jdbc/driver/Q5DConnection;", "tessar/jdbc/driver/Q5DConnection",
     [](const Driver &driver) {
         jobject connection = driver.physical("tessar/jdbc/driver/Q5DConnection");
         PhysicalStatement(connection, Text(SQL));
         return connection;
     }},
};

// With separators as blanks, whole characters up to `size` bytes. A text is given as its characters.
std::string ShownText(const std::vector<std::string> &characters, size_t size) {
    std::string shown;
    for (const std::string &character : characters) {
        if (shown.size() + character.size() > size)
            break;
        shown += character.size() == 1 && character[0] < ' ' ? " " : character;
    }
    return shown;
}

struct DatabaseCall : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorDBQuery = 1;
        gbSqlQueryLength = QOR_MAX_SQL_QUERY_SIZE;
        qorIsPollOrTrace = 1;
        useIds("qoragent/DbUtil");
        server = New("tessar/net/nt/SilentServer", "()V");
        QorClearDBRequestData(record.get());
    }
    void TearDown() override {
        tessar_thick_driver = 0;
        useIds(nullptr);
        Close(server);
        SessionTest::TearDown();
    }

    static void useIds(const char *klass) {
        if (gbDbUtilClass)
            Env()->DeleteGlobalRef(gbDbUtilClass);
        gbDbUtilClass = klass ? static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass(klass))) : nullptr;
    }

    void read(const char *signature, jobject object) {
        const ModelEntry entry(LOCAL_DATABASE_CALL, signature, object);
        QorClearDBRequestData(record.get());
        EXPECT_EQ(QorGetDBRequestDataFromLocalVariable(&entry, record.get()), 0);
    }

    void readStatement(jobject connection, jstring sql) {
        Env()->PushLocalFrame(16);
        read("Ltessar/jdbc/driver/TessarStatement;",
             TessarStatement("tessar/jdbc/driver/TessarStatement", connection, sql));
        Env()->PopLocalFrame(nullptr);
    }

    // By the frame in which the thread of that name executes a statement.
    void readFrame(const std::string &thread) {
        Walk walk;
        ASSERT_TRUE(walk.find(thread));
        QorFrameRecord frame = {};
        for (; walk.frames.index < walk.frames.count; walk.frames.index++)
            if (QorReadFrame(&walk.frames, FRAME_METHOD_AND_CLASS, &frame) == 0 &&
                strcmp(frame.method, "executeQuery") == 0)
                break;
        QorClearDBRequestData(record.get());
        EXPECT_EQ(QorGetDBRequestData(&walk.thread, &frame, record.get()), 0);
    }

    void expectPorts(const Driver &driver, const std::string &what) const {
        EXPECT_EQ(record->localPort, static_cast<uint32_t>(CallInt(driver.socket, "getLocalPort"))) << what;
        EXPECT_EQ(record->remotePort, static_cast<uint32_t>(CallInt(driver.socket, "getPort"))) << what;
        EXPECT_STREQ(record->remoteHost, "127.0.0.1") << what;
    }

    jobject server;
    std::unique_ptr<QorDBRequestData> record = std::make_unique<QorDBRequestData>();
};

// What the native driver's memory looks like: a chain of pointers, none of them aligned.
struct NativeState {
    static constexpr size_t OFFSETS[] = {0, 0x0c, 0x44, 0x120, 0x1a20, 0xd4, 0x8c, 0, 0x9c, 0x104, 0x18};
    static constexpr size_t STEPS = sizeof OFFSETS / sizeof *OFFSETS;
    static constexpr size_t BLOCK = 0x2000, DESCRIPTOR = 0x530;

    explicit NativeState(int32_t descriptor) {
        memory = static_cast<char *>(
            mmap(nullptr, SIZE, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        for (size_t step = 0; step < STEPS; step++)
            put(step, block(step + 1));
        memcpy(block(STEPS) + DESCRIPTOR, &descriptor, sizeof descriptor);
        // Behind the last block a page that forbids reading.
        mprotect(end(), BLOCK, PROT_NONE);
    }
    ~NativeState() { munmap(memory, SIZE); }

    char *block(size_t i) const { return memory + i * BLOCK + 2 * i + 1; }
    char *end() const { return memory + SIZE - BLOCK; }
    void put(size_t step, const void *pointer) const {
        memcpy(block(step) + OFFSETS[step], &pointer, sizeof pointer);
    }
    void *get(size_t step) const {
        void *pointer;
        memcpy(&pointer, block(step) + OFFSETS[step], sizeof pointer);
        return pointer;
    }

    static constexpr size_t SIZE = (STEPS + 3) * BLOCK;
    char *memory;
};

jobject NativeAccess(const void *state) {
    return New("tessar/jdbc/zdi8/ZDIDBAccess", "(J)V", reinterpret_cast<jlong>(state));
}

} // namespace

TEST_F(DatabaseCall, EveryFormTellsWhatJavaKnows) {
    for (const Form &form : FORMS) {
        for (const char *signature : {form.signature, form.otherSpelling}) {
            Env()->PushLocalFrame(32);
            const Driver driver(server, "plain");
            jobject object = form.make(driver);
            const time_t before = time(nullptr);
            read(signature, object);
            EXPECT_STREQ(record->url, URL) << signature;
            EXPECT_STREQ(record->user, "scott") << signature;
            EXPECT_STREQ(record->sqlText, SQL) << signature;
            EXPECT_NE(record->sqlRef, 0) << signature;
            EXPECT_NE(record->connectionHash, 0) << signature;
            EXPECT_GE(record->sampleTime, before) << signature;
            EXPECT_EQ(record->dbType, DB_TYPE_TESSAR);
            expectPorts(driver, signature);
            qorDBQuery = 0;
            read(signature, object);
            EXPECT_STREQ(record->sqlText, "") << signature;
            EXPECT_NE(record->sqlRef, 0) << signature;
            qorDBQuery = 1;
            Close(driver.stream);
            Env()->PopLocalFrame(nullptr);
        }
    }
    read("Ljava/lang/Object;", server);
    EXPECT_STREQ(record->url, "");
}

// Of threads that are really in the driver, with encrypted connections in the middle of their handshakes;
// read by their objects, and by their frames.
TEST_F(DatabaseCall, EveryStreamLeadsToTheSocketUntilItIsClosed) {
    qorGetLocalObjectsQuotaPct = 100;
    for (const std::string kind :
         {"plain", "metered", "encrypted", "layered", "encrypted-bare", "encrypted-metered"}) {
        Env()->PushLocalFrame(64);
        const Driver driver(server, kind.c_str());
        // One form has the session behind an object, the other in the connection.
        const std::pair<const char *, jobject> forms[] = {{FORMS[0].signature, FORMS[0].make(driver)},
                                                          {FORMS[3].signature, FORMS[3].make(driver)}};
        for (const auto &[signature, statement] : forms) {
            const std::string name = kind + signature;
            read(signature, statement);
            expectPorts(driver, name);
            if (kind.find("encrypted-") == 0)
                continue; // can't talk
            CallObject("qoragent/models/Execution", "of",
                       "(Ljava/lang/String;Ltessar/jdbc/driver/TessarStatement;)Lqoragent/models/Execution;",
                       Text(name), statement);
            read(signature, statement);
            expectPorts(driver, name);
            readFrame(name);
            expectPorts(driver, name);
            EXPECT_STREQ(record->user, "scott") << name;
            const bool isCut = statement == forms[1].second;
            EXPECT_EQ(record->url, std::string(URL).substr(0, isCut ? 63 : std::string::npos)) << name;
            EXPECT_STREQ(record->sqlText, "") << name;
            EXPECT_NE(record->sqlRef, 0) << name;
        }
        Close(driver.stream);
        for (const auto &[signature, statement] : forms) {
            read(signature, statement);
            EXPECT_EQ(record->localPort + record->remotePort, 0u) << kind;
            EXPECT_STREQ(record->remoteHost, "") << kind;
            EXPECT_STREQ(record->url, URL) << kind;
            EXPECT_STREQ(record->sqlText, SQL) << kind;
        }
        Env()->PopLocalFrame(nullptr);
    }
}

TEST_F(DatabaseCall, SqlIsCutOnACharacterWithTheIdOfTheWhole) {
    const std::string characters[] = {"a", "\xc3\xa9", "\xe2\x82\xac", "\xed\xa0\xbd\xed\xb8\x80",
                                      "\xc0\x80" /* NUL */};
    const Driver driver(server, "plain");
    jobject connection = driver.tessarConnection();
    for (int32_t limit : {QOR_MAX_SQL_QUERY_SIZE + 0, 101, 100, 17, 16, 15, 2, 1, 0, -1}) {
        gbSqlQueryLength = limit;
        for (const std::string &character : characters) {
            for (int32_t length : {0, 1, limit - 2, limit - 1, limit, limit + 1, 70000}) {
                if (length < 0)
                    continue;
                // `length` bytes, separators among them.
                std::vector<std::string> text;
                if (length > 8)
                    text = {"\n", "\x0e", "\x1f"};
                const size_t rest = static_cast<size_t>(length) - text.size();
                text.insert(text.end(), rest / character.size(), character);
                text.insert(text.end(), rest % character.size(), "\x1c");
                std::string whole;
                for (const std::string &part : text)
                    whole += part;
                jstring sql = Text(whole);
                readStatement(connection, sql);
                const std::string what = std::to_string(limit) + "/" + std::to_string(length) + character;
                if (limit < 2)
                    EXPECT_STREQ(record->sqlText, "") << what;
                else if (length < limit || limit < 16)
                    EXPECT_EQ(record->sqlText, ShownText(text, static_cast<size_t>(limit) - 1)) << what;
                else
                    EXPECT_EQ(record->sqlText, ShownText(text, static_cast<size_t>(limit) - 16) + "!" +
                                                   CallText("qoragent/DbUtil", "sqlText2sqlId",
                                                            "(Ljava/lang/String;)Ljava/lang/String;", sql) +
                                                   "!")
                        << what;
                EXPECT_NE(record->sqlRef, 0);
                Env()->DeleteLocalRef(sql);
            }
        }
    }
}

TEST_F(DatabaseCall, AnIdThatCantBeHadLeavesTheCutText) {
    const Driver driver(server, "plain");
    jobject connection = driver.tessarConnection();
    gbSqlQueryLength = 64;
    // No class, one without the method, and ids that are too long, missing or thrown.
    const std::pair<const char *, char> cases[] = {{nullptr, 's'},
                                                   {"java/lang/String", 's'},
                                                   {"qoragent/models/OddIds", 's'},
                                                   {"qoragent/models/OddIds", 'n'},
                                                   {"qoragent/models/OddIds", 't'}};
    for (const auto &[ids, first] : cases) {
        useIds(ids);
        readStatement(connection, Text(std::string(1000, first)));
        EXPECT_EQ(record->sqlText, std::string(63, first)) << (ids ? ids : "none");
    }
}

// Drivers differ in the fields that they have. What one has is remembered, and a driver that comes later is
// still read.
TEST_F(DatabaseCall, TheUserIsFoundInEitherField) {
    const Driver driver(server, "plain");
    jobject q5 = driver.physical("tessar/jdbc/driver/Q5DConnection");
    jobject former = driver.physical("tessar/jdbc/driver/FormerConnection");
    jobject bySecond = PhysicalStatement(q5, Text(SQL)), byFirst = PhysicalStatement(former, Text(SQL));
    for (jobject statement : {bySecond, byFirst, byFirst, bySecond, bySecond, byFirst}) {
        read("Ltessar/jdbc/driver/Q5DPreparedStatement;", statement);
        EXPECT_STREQ(record->user, "scott");
        expectPorts(driver, "layered");
    }
    // A connection without "statements" was seen: that concerns its own class alone.
    read("Ltessar/jdbc/driver/Q5DPreparedStatement;", bySecond);
    EXPECT_STREQ(record->sqlText, SQL);
}

TEST_F(DatabaseCall, AClassInItsInitialiserIsPassedOver) {
    const Driver driver(server, "plain");
    jobject q5 = driver.physical("tessar/jdbc/driver/Q5DConnection");
    CallVoid("qoragent/models/UnbornConnections", "make", "()V");
    jobject direct =
        CallObject("qoragent/models/UnbornConnections", "direct", "()Ltessar/jdbc/driver/TessarConnection;");
    jobject layered =
        CallObject("qoragent/models/UnbornConnections", "layered", "()Ltessar/jdbc/driver/FormerConnection;");
    readStatement(direct, Text(SQL));
    EXPECT_STREQ(record->url, "");
    EXPECT_STREQ(record->sqlText, SQL);
    read("Ltessar/jdbc/driver/Q5DPreparedStatement;", PhysicalStatement(layered, Text(SQL)));
    EXPECT_STREQ(record->url, "");
    EXPECT_STREQ(record->user, "");
    // Nothing was learnt from it.
    read("Ltessar/jdbc/driver/Q5DPreparedStatement;", PhysicalStatement(q5, Text(SQL)));
    EXPECT_STREQ(record->user, "scott");
    EXPECT_STREQ(record->sqlText, SQL);
    CallVoid("qoragent/models/UnbornConnections", "release", "()V");
}

TEST_F(DatabaseCall, WhatIsMissingEndsTheReading) {
    LogCapture log(LOG_TRACE + 1);
    EXPECT_EQ(QorGetDBRequestDataFromLocalVariable(nullptr, record.get()), -1);
    EXPECT_EQ(log.count("ptrQorAllThreadLocalInfoList or ptrQorDBRequestData is NULL"), 1);
    read("Ltessar/jdbc/driver/TessarStatement;", nullptr);
    EXPECT_EQ(log.count("QorGetDBRequestDataFromLocalVariable : Obj Null"), 1);
    readStatement(nullptr, nullptr);
    EXPECT_STREQ(record->url, "");
    // A connection's fields one by one.
    jobject access = New("tessar/jdbc/dbaccess/DBAccess", "(Ltessar/net/ns/Communication;)V", jobject());
    jobject connection = New("tessar/jdbc/driver/TessarConnection",
                             "(Ljava/lang/String;Ljava/lang/String;Ltessar/jdbc/dbaccess/DBAccess;)V",
                             jobject(), jobject(), access);
    readStatement(connection, Text("\x1c|\x1d"));
    EXPECT_STREQ(record->url, "");
    EXPECT_STREQ(record->sqlText, " | ");
    EXPECT_EQ(record->localPort, 0u);
    EXPECT_EQ(record->fd, -1);
    const Driver driver(server, "plain");
    readStatement(driver.tessarConnection(std::string(5000, 'u').c_str()), nullptr);
    EXPECT_EQ(record->url, std::string(DB_URL_SIZE - 1, 'u'));
    EXPECT_EQ(record->sqlRef, 0);
}

TEST_F(DatabaseCall, TheNativeDriversMemoryGivesTheDescriptorOrNothing) {
    const Driver driver(server, "plain");
    read(FORMS[0].signature, FORMS[0].make(driver));
    const auto descriptor = static_cast<int32_t>(record->fd);
    const NativeState state(descriptor);
    jobject access = NativeAccess(state.block(0));
    int64_t fd = -7;
    EXPECT_EQ(QorGetFdFromThickDriver(&fd, access), 0);
    EXPECT_EQ(fd, descriptor);

    jobject connection = New("tessar/jdbc/driver/TessarConnection",
                             "(Ljava/lang/String;Ljava/lang/String;Ltessar/jdbc/dbaccess/DBAccess;)V",
                             Text(URL), Text("scott"), access);
    tessar_thick_driver = 1;
    readStatement(connection, Text(SQL));
    expectPorts(driver, "thick");

    // Memory of another build: at each step nothing, or an address that can't be read, or not to its end.
    char *const gone = state.end();
    const void *bad[] = {nullptr,
                         gone,
                         gone + 16,
                         reinterpret_cast<void *>(uintptr_t{8}),
                         reinterpret_cast<void *>(uintptr_t{0xdead000000000001}),
                         reinterpret_cast<void *>(~uintptr_t{0})};
    for (size_t step = 0; step < NativeState::STEPS; step++) {
        void *const right = state.get(step);
        const size_t next =
            step + 1 < NativeState::STEPS ? NativeState::OFFSETS[step + 1] : size_t{NativeState::DESCRIPTOR};
        for (const void *pointer : bad) {
            state.put(step, pointer);
            EXPECT_EQ(QorGetFdFromThickDriver(&fd, access), -1) << step << " " << pointer;
        }
        state.put(step, gone - next - 3); // ends in the page behind
        EXPECT_EQ(QorGetFdFromThickDriver(&fd, access), -1) << step;
        state.put(step, right);
    }
    EXPECT_EQ(QorGetFdFromThickDriver(&fd, access), 0);
    memset(state.block(NativeState::STEPS) + NativeState::DESCRIPTOR, 0, sizeof(int32_t));
    EXPECT_EQ(QorGetFdFromThickDriver(&fd, access), -1);
    EXPECT_EQ(QorGetFdFromThickDriver(&fd, NativeAccess(nullptr)), -1);
    EXPECT_EQ(QorGetFdFromThickDriver(&fd, connection), -1) << "no c_state";
    readStatement(connection, Text(SQL));
    EXPECT_EQ(record->localPort, 0u);
    EXPECT_STREQ(record->url, URL);
}

TEST_F(DatabaseCall, TheSybaseReaderTakesWhatThatDriverHas) {
    jobject connection =
        New("com/sybase/jdbc3/jdbc/SybConnection", "(Ljava/lang/String;)V", Text("jdbc:sybase:Tds:db:5000"));
    jobject statement = New("com/sybase/jdbc3/jdbc/SybStatement",
                            "(Lcom/sybase/jdbc3/jdbc/SybConnection;Ljava/lang/String;)V", connection,
                            Text("select\t1\nfrom t"));
    gbSqlQueryLength = 12;
    QorExtractDbInfoFromSybaseDriver(statement, record.get());
    EXPECT_STREQ(record->url, "jdbc:sybase:Tds:db:5000");
    EXPECT_STREQ(record->user, "sa");
    EXPECT_STREQ(record->sqlText, "select\t1 f");
    EXPECT_EQ(record->dbType, DB_TYPE_SYBASE);
}

TEST_F(DatabaseCall, ObjectMapsAreFollowedToTheirEnd) {
    jobject object = CallObject("qoragent/testing/Fields", "make", "()Lqoragent/testing/Fields;");
    PlantObject(object, "anObject,Ljava/lang/Object;", object);
    const std::string round = "anObject,Ljava/lang/Object;|", name = "nothing,Ljava/lang/Object;";
    std::string fifty;
    for (int i = 0; i < 49; i++)
        fifty += round;
    char told[16] = "as it was";
    LogCapture log(LOG_TRACE + 1);
    EXPECT_TRUE(Env()->IsSameObject(
        QorFollowObjectMap((fifty + round.substr(0, round.size() - 1)).c_str(), object), object));
    EXPECT_EQ(log.text(), "");
    EXPECT_EQ(QorFollowObjectMap((fifty + round + name).c_str(), object), nullptr);
    EXPECT_EQ(log.count("Qor Agent : ParseJVMTIObjectMap exceeds the max count"), 1);
    EXPECT_EQ(QorFollowObjectMap((round + "no comma").c_str(), object), nullptr);
    EXPECT_EQ(log.count("Qor Agent Error: Not got expected seperator no comma "), 1);
    const char *noObject[] = {"nothing,Ljava/lang/Object;|a,I", "missing,Ljava/lang/Object;|a,I", ",I", "a,"};
    for (const char *map : noObject)
        EXPECT_EQ(QorFollowObjectMap(map, object), nullptr) << map;
    EXPECT_EQ(log.count("Qor Agent Error: Not got Object for field a and sig I"), 2);
    EXPECT_EQ(log.count("Qor Agent Error: Not got Object for field"), 4);
    EXPECT_EQ(QorFollowObjectMap("anObject,Ljava/lang/Object;", nullptr), nullptr);
    EXPECT_EQ(QorReadStringByMap("nothing,Ljava/lang/Object;", object, told, sizeof told), -1);
    EXPECT_STREQ(told, "");
    EXPECT_EQ(Env()->GetObjectRefType(object), JNILocalRefType) << "the start is the caller's";
}
