#include "LogCapture.h"
#include "Xtier/XtierInsert.h"
#include "Xtier/thread_e2e_info.h"
#include "Xtier/tiers/LocalList.h"
#include "reply/qorformat.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <set>
#include <string>

namespace {

constexpr char NO_BLOCK[] = "{10<^|^|0|0|^|0|0|^|^|^";
constexpr char NO_RMI_BLOCK[] = "{!0|0|^|^";

// Texts of these tests have | for the field separator, ; and # for the ends of record and section, { for the
// start of a block and its second marks as < and !.
std::string Wire(std::string text) {
    for (char &c : text) {
        static const std::string shown = "|;#{<!";
        static const char real[] = {FIELD_SEP,   RECORD_END,       SECTION_END,
                                    WAIT_DETAIL, FIELD_COUNT_MARK, RMI_MARK};
        if (shown.find(c) != std::string::npos)
            c = real[shown.find(c)];
    }
    return text;
}

// A reply of one thread, and what is put into it.
struct Insertion : testing::Test {
    Insertion() : database(new QorDBRequestData), web(new QorJSPRequestData) {
        QorClearDBRequestData(database.get());
        QorClearJSPRequestData(web.get());
        QorClearRmiCallData(&rmi);
    }
    ~Insertion() override { Forget(); }

    void Forget() {
        FreeXtierLocationInfoArrayList(first);
        first = last = nullptr;
        reply.clear();
    }

    QorXtierLocationInfo *Location(QorFramework framework = FRAMEWORK_NONE) {
        QorThreadRecord thread = {};
        thread.tid = 5;
        EXPECT_EQ(AddToXtierLocationInfoList(&thread, &first, &last), 0);
        last->framework = framework;
        return last;
    }
    void Put(const std::string &text) { reply += Wire(text); }
    void Put(const std::string &text, int32_t *start, int32_t *end) {
        *start = static_cast<int32_t>(reply.size());
        Put(text);
        *end = static_cast<int32_t>(reply.size());
    }
    // A row with all pieces.
    void PutRow(QorFramework framework) {
        QorXtierPositions &at = Location(framework)->at;
        Put("a|n|^|");
        Put("^|^|", &at.requestStart, &at.requestEnd);
        Put("1-5|");
        Put("a.B->c|B.java|7|", &at.currentCallStart, &at.currentCallEnd);
        Put("DB Wait");
        Put(NO_BLOCK, &at.dbStart, &at.dbEnd);
        Put("#Call Stack;top|T|1");
        Put("", &at.stackCallStart, &at.stackCallEnd);
        Put(";frame|F|2#");
    }

    // The reply after the pass; `spare` bytes more than the old one has room.
    std::string Insert(int32_t spare = 100000) {
        std::string storage(reply.size() + static_cast<size_t>(spare) + 1, 0);
        QorText text;
        QorTextStart(&text, &storage[0], static_cast<int32_t>(storage.size()));
        QorTextAppend(&text, reply.c_str());
        QorInsertion pass;
        QorStartInsertion(&pass, &text);
        results.clear();
        for (const QorXtierLocationInfo *at = first; at; at = at->next)
            results += InsertXtierDataToConsoleBuf(&pass, *at, *web, *database, rmi) == 0 ? "0" : "-";
        EXPECT_STREQ(text.text, reply.c_str()) << "the old reply stands until the end";
        QorEndInsertion(&pass, &text);
        EXPECT_EQ(text.length, static_cast<int32_t>(strlen(text.text)));
        return text.text;
    }

    void KnowDatabase(const char *sql = "select 1") {
        QorStrncpy(database->url, "jdbc:x", DB_URL_SIZE, DB_URL_SIZE);
        QorStrncpy(database->user, "scott", DB_USER_SIZE, DB_USER_SIZE);
        QorStrncpy(database->sqlText, sql, SQL_TEXT_SIZE, SQL_TEXT_SIZE);
        database->localPort = 40000;
        database->remotePort = 1521;
        database->sampleTime = 0x180000001;
        database->sqlRef = 0xfffffffff;
    }

    std::unique_ptr<QorDBRequestData> database;
    std::unique_ptr<QorJSPRequestData> web;
    QorRmiCallData rmi;
    QorXtierLocationInfo *first = nullptr, *last = nullptr;
    std::string reply, results;
};

} // namespace

TEST_F(Insertion, PutsEachPieceInItsPlace) {
    PutRow(FRAMEWORK_VIEW);
    KnowDatabase();
    QorStrncpy(web->requestUrl, "/shop", REQUEST_TEXT_SIZE, 16);
    QorStrncpy(web->qrfObjectName, "Orders", REQUEST_TEXT_SIZE, 16);
    Put("tail");
    EXPECT_EQ(Insert(),
              Wire("a|n|^|/shop|^|1-5|View_Object->Orders|ViewObjectImpl.java|0|DB Wait"
                   "{10<jdbc:x|scott|40000|1521|^|-2147483647|-1|select 1|DEEPDIVE_TESSAR_DB|^"
                   "#Call Stack;top|T|1;View_Object->Orders|ViewObjectImpl.java|0|;frame|F|2#tail"));

    QorStrncpy(web->requestDetail, "?id", REQUEST_TEXT_SIZE, 16);
    QorStrncpy(database->remoteHost, "db1", REMOTE_HOST_SIZE, 16);
    database->dbType = DB_TYPE_COUNT;
    const std::string made = Insert();
    EXPECT_NE(made.find(Wire("/shop|?id|1-5|")), std::string::npos);
    EXPECT_NE(made.find(Wire("|1521|db1|")), std::string::npos);
    EXPECT_NE(made.find(Wire("|select 1|^|^#")), std::string::npos);
}

TEST_F(Insertion, LeavesWhatIsNotKnown) {
    PutRow(FRAMEWORK_EL);
    QorStrncpy(database->url, "jdbc:x", DB_URL_SIZE, 16); // but no user
    LogCapture log(1);
    EXPECT_EQ(Insert(), reply);
    EXPECT_EQ(log.text(), "");
}

TEST_F(Insertion, RemoteCallsNeedAHost) {
    QorXtierPositions &at = Location()->at;
    Put("a|RMI Wait");
    Put(NO_RMI_BLOCK, &at.rmiStart, &at.rmiEnd);
    Put(";");
    QorStrncpy(rmi.jndiName, "ejb/Orders", DB_URL_SIZE, 16);
    rmi.callId = 7;
    rmi.port = -2;
    EXPECT_EQ(Insert(), reply);
    QorStrncpy(rmi.host, "10.1.2.3", RMI_HOST_SIZE, 16);
    EXPECT_EQ(Insert(), Wire("a|RMI Wait{!7|-2|10.1.2.3|ejb/Orders;"));
    rmi.jndiName[0] = 0;
    EXPECT_EQ(Insert(), Wire("a|RMI Wait{!7|-2|10.1.2.3|NA;"));
}

TEST_F(Insertion, EachFrameworkHasItsCallAndRow) {
    constexpr char SCRIPT[] = "load()\nsave()\n", OWN[] = "a.B->c|B.java|7|";
    struct {
        QorFramework framework;
        const char *object, *line, *expression, *script, *call, *row;
    } rows[] = {
        {FRAMEWORK_VIEW, "O", "", "", "", "View_Object->O|ViewObjectImpl.java|0|", nullptr},
        {FRAMEWORK_ENTITY, "O", "", "", "", "Entity_Object->O|EntityObjImpl.java|0|", nullptr},
        {FRAMEWORK_GROOVY, "", "save", "", SCRIPT, "Groovy_Script->save|Groovy_Script|2|", nullptr},
        {FRAMEWORK_EL, "", "", "$(a)", "", "EL_Exp->$(a)|EL_Exp|0|", "EL_Exp->$(a)|El_Exp|0|"},
        // nothing, or what belongs to another frame: the call that is there
        {FRAMEWORK_VIEW, "", "save", "$(a)", SCRIPT, OWN, ""},
        {FRAMEWORK_EL, "O", "save", "", SCRIPT, OWN, ""},
        {FRAMEWORK_NONE, "O", "save", "$(a)", SCRIPT, OWN, ""},
        {FRAMEWORK_GROOVY, "", "save", "", "", OWN, ""}, // no script to tell a line of
    };
    QorStrncpy(web->groovyCallSites[0], "load", GROOVY_LINE_SIZE, 16);
    QorStrncpy(web->groovyCallSites[1], "save", GROOVY_LINE_SIZE, 16);
    web->groovyCallSiteCount = 2;
    web->groovyCurrentIndex = 1;
    for (const auto &row : rows) {
        Forget();
        PutRow(row.framework);
        QorStrncpy(web->qrfObjectName, row.object, REQUEST_TEXT_SIZE, 16);
        QorStrncpy(web->groovyCurrentLine, row.line, GROOVY_LINE_SIZE, 16);
        QorStrncpy(web->groovyScript, row.script, GROOVY_SCRIPT_SIZE, 100);
        QorStrncpy(web->elExpression, row.expression, REQUEST_TEXT_SIZE, 16);
        const std::string made = Insert(), shown = row.row ? row.row : row.call;
        EXPECT_NE(made.find(Wire(std::string("1-5|") + row.call + "DB Wait")), std::string::npos) << made;
        EXPECT_NE(made.find(Wire("top|T|1" + (shown.empty() ? "" : ";" + shown) + ";frame")),
                  std::string::npos)
            << made;
    }
}

// The more room there is the more goes in, never a part of a piece, and the tail always.
TEST_F(Insertion, WhateverTheRoomNoRowIsLost) {
    PutRow(FRAMEWORK_EL);
    PutRow(FRAMEWORK_EL);
    Put("tail");
    KnowDatabase("select a, b, c from orders");
    QorStrncpy(web->requestUrl, "/a/rather/long/request", REQUEST_TEXT_SIZE, 64);
    QorStrncpy(web->elExpression, "$(a.rather.long.expression)", REQUEST_TEXT_SIZE, 64);
    size_t earlier = 0;
    std::set<std::string> seen;
    for (int32_t spare = 0; spare < 500; ++spare) {
        const std::string made = Insert(spare);
        ASSERT_LE(made.size(), reply.size() + static_cast<size_t>(spare));
        ASSERT_GE(made.size(), earlier);
        earlier = made.size();
        EXPECT_EQ(made.substr(made.size() - 4), "tail");
        EXPECT_EQ(std::count(made.begin(), made.end(), SECTION_END), 4);
        seen.insert(results);
    }
    EXPECT_EQ(seen, (std::set<std::string>{"--", "0-", "00"}));
}

// Files and servers from live threads: CrossTier.FilesAndServerWorkGoToTheJavaSide.
TEST(EndToEndBlocks, TakeDataByKind) {
    QorE2EBlock other = {}, block = {};
    other.threadId = 4;
    other.next = &block;
    block.threadId = 5;
    thread_e2e_info = &other;
    QorAppServerCallData server = {};
    QorIOCallData file = {};
    QorNetworkCallData network = {};
    QorStrncpy(file.fileName, "/var/log/x", DB_URL_SIZE, 16);
    QorStrncpy(network.host, "h", REMOTE_HOST_SIZE, 16);
    network.port = 80;
    QorInsertDataToE2EBuf(6, LOCAL_FILE_CALL, server, file, network);
    EXPECT_EQ(block.textsWritten + other.textsWritten, 0) << "another thread's";
    const int64_t id = 0x700000005; // compared as 32 bits
    QorInsertDataToE2EBuf(id, LOCAL_FILE_CALL, server, file, network);
    QorInsertDataToE2EBuf(id, LOCAL_NETWORK_CALL, server, file, network);
    EXPECT_EQ(block.ioFile + std::to_string(block.networkPort), "/var/log/x0") << "no descriptor";
    network.fd = 9;
    QorInsertDataToE2EBuf(id, LOCAL_NETWORK_CALL, server, file, network);
    EXPECT_EQ(block.networkHost + std::to_string(block.networkPort), "h80");
    QorInsertDataToE2EBuf(id, LOCAL_APP_SERVER_CALL, server, file, network);
    EXPECT_STREQ(block.ioFile, "") << "it is read anew behind the server's data";
    EXPECT_TRUE(block.textsWritten == 1 && other.textsWritten == 0);
    thread_e2e_info = nullptr;
}
