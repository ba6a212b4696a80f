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

// Texts of these tests have | for the field separator, ; and # for the ends of record and section, { for the
// start of a block and its second marks as < and !.
std::string Wire(std::string text) {
    static const std::string shown = "|;#{<!";
    static const char real[] = {FIELD_SEP, RECORD_END, SECTION_END, WAIT_DETAIL, FIELD_COUNT_MARK, RMI_MARK};
    for (char &c : text)
        c = shown.find(c) != std::string::npos ? real[shown.find(c)] : c;
    return text;
}

// A reply of one thread, and what is put into it.
struct Insertion : testing::Test {
    Insertion() {
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
    QorXtierPositions &Location(QorFramework framework) {
        QorThreadRecord thread = {};
        thread.tid = 5;
        EXPECT_EQ(AddToXtierLocationInfoList(&thread, &first, &last), 0);
        last->framework = framework;
        return last->at;
    }
    void Put(const std::string &text) { reply += Wire(text); }
    void Put(const std::string &text, int32_t *start, int32_t *end) {
        *start = static_cast<int32_t>(reply.size());
        Put(text);
        *end = static_cast<int32_t>(reply.size());
    }
    // A row with all pieces.
    void PutRow(QorFramework framework) {
        QorXtierPositions &at = Location(framework);
        Put("a|n|^|");
        Put("^|^|", &at.requestStart, &at.requestEnd);
        Put("1-5|");
        Put("a.B->c|B.java|7|", &at.currentCallStart, &at.currentCallEnd);
        Put("DB Wait");
        Put("{10<^|^|0|0|^|0|0|^|^|^", &at.dbStart, &at.dbEnd);
        Put("#Call Stack;top|T|1");
        Put("", &at.stackCallStart, &at.stackCallEnd);
        Put(";frame|F|2#");
    }

    // The reply after the pass; there is room for `spare` bytes more than the old one has.
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
        EXPECT_STREQ(text.text, reply.c_str()) << "the old reply stays until the end";
        QorEndInsertion(&pass, &text);
        EXPECT_EQ(text.length, static_cast<int32_t>(strlen(text.text)));
        return text.text;
    }
    bool Inserts(const std::string &part) { return Insert().find(Wire(part)) != std::string::npos; }

    template <size_t SIZE>
    static void Set(char (&field)[SIZE], const char *text) {
        snprintf(field, SIZE, "%s", text);
    }
    void KnowDatabase() {
        Set(database->url, "jdbc:x");
        Set(database->user, "scott");
        Set(database->sqlText, "select 1");
        database->localPort = 40000;
        database->remotePort = 1521;
        database->sampleTime = 0x180000001;
        database->sqlRef = 0xfffffffff;
    }

    std::unique_ptr<QorDBRequestData> database{new QorDBRequestData};
    std::unique_ptr<QorJSPRequestData> web{new QorJSPRequestData};
    QorRmiCallData rmi;
    QorXtierLocationInfo *first = nullptr, *last = nullptr;
    std::string reply, results;
};

} // namespace

TEST_F(Insertion, PutsEachPieceInItsPlaceAndLeavesWhatIsNotKnown) {
    PutRow(FRAMEWORK_VIEW);
    Put("tail");
    Set(database->url, "jdbc:x"); // but no user
    EXPECT_EQ(Insert(), reply);
    KnowDatabase();
    Set(web->requestUrl, "/shop");
    Set(web->qrfObjectName, "Orders");
    EXPECT_EQ(Insert(),
              Wire("a|n|^|/shop|^|1-5|View_Object->Orders|ViewObjectImpl.java|0|DB Wait"
                   "{10<jdbc:x|scott|40000|1521|^|-2147483647|-1|select 1|DEEPDIVE_TESSAR_DB|^"
                   "#Call Stack;top|T|1;View_Object->Orders|ViewObjectImpl.java|0|;frame|F|2#tail"));
    Set(web->requestDetail, "?id");
    Set(database->remoteHost, "db1");
    database->dbType = DB_TYPE_COUNT;
    EXPECT_TRUE(Inserts("/shop|?id|1-5|"));
    EXPECT_TRUE(Inserts("|1521|db1|-2147483647|-1|select 1|^|^#"));
}

TEST_F(Insertion, RemoteCallsNeedAHost) {
    QorXtierPositions &at = Location(FRAMEWORK_NONE);
    Put("a|RMI Wait");
    Put("{!0|0|^|^", &at.rmiStart, &at.rmiEnd);
    Put(";");
    Set(rmi.jndiName, "ejb/Orders");
    rmi.callId = 7;
    rmi.port = -2;
    EXPECT_EQ(Insert(), reply);
    Set(rmi.host, "10.1.2.3");
    EXPECT_EQ(Insert(), Wire("a|RMI Wait{!7|-2|10.1.2.3|ejb/Orders;"));
    rmi.jndiName[0] = 0;
    EXPECT_EQ(Insert(), Wire("a|RMI Wait{!7|-2|10.1.2.3|NA;"));
}

TEST_F(Insertion, EachFrameworkHasItsCallAndRow) {
    constexpr char SCRIPT[] = "load()\nsave()\n", OWN[] = "a.B->c|B.java|7|";
    const struct {
        QorFramework framework;
        const char *object, *line, *expression, *script, *call, *row;
    } rows[] = {
        {FRAMEWORK_ENTITY, "O", "", "", "", "Entity_Object->O|EntityObjImpl.java|0|",
         ";Entity_Object->O|EntityObjImpl.java|0|"},
        {FRAMEWORK_GROOVY, "", "save", "", SCRIPT, "Groovy_Script->save|Groovy_Script|2|",
         ";Groovy_Script->save|Groovy_Script|2|"},
        {FRAMEWORK_EL, "", "", "$(a)", "", "EL_Exp->$(a)|EL_Exp|0|", ";EL_Exp->$(a)|El_Exp|0|"},
        // nothing, or what belongs to another frame: the call that is there
        {FRAMEWORK_VIEW, "", "save", "$(a)", SCRIPT, OWN, ""},
        {FRAMEWORK_EL, "O", "save", "", SCRIPT, OWN, ""},
        {FRAMEWORK_NONE, "O", "save", "$(a)", SCRIPT, OWN, ""},
        {FRAMEWORK_GROOVY, "", "save", "", "", OWN, ""}, // without its script a call site has no line
    };
    Set(web->groovyCallSites[0], "load");
    Set(web->groovyCallSites[1], "save");
    web->groovyCallSiteCount = 2;
    web->groovyCurrentIndex = 1;
    for (const auto &row : rows) {
        Forget();
        PutRow(row.framework);
        Set(web->qrfObjectName, row.object);
        Set(web->groovyCurrentLine, row.line);
        Set(web->groovyScript, row.script);
        Set(web->elExpression, row.expression);
        EXPECT_TRUE(Inserts(std::string("1-5|") + row.call + "DB Wait")) << Insert();
        EXPECT_TRUE(Inserts(std::string("top|T|1") + row.row + ";frame")) << Insert();
    }
}

// The more room there is the more goes in, never a part of a piece, and the tail always.
TEST_F(Insertion, WhateverTheRoomNoRowIsLost) {
    PutRow(FRAMEWORK_EL);
    PutRow(FRAMEWORK_EL);
    Put("tail");
    KnowDatabase();
    Set(web->requestUrl, "/a/rather/long/request");
    Set(web->elExpression, "$(a.rather.long.expression)");
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
    const QorAppServerCallData server = {};
    QorIOCallData file = {};
    QorNetworkCallData network = {};
    snprintf(file.fileName, sizeof file.fileName, "/var/log/x");
    snprintf(network.host, sizeof network.host, "h");
    network.port = 80;
    const auto insert = [&](int64_t thread, int32_t kind) {
        QorInsertDataToE2EBuf(thread, kind, server, file, network);
    };
    insert(6, LOCAL_FILE_CALL);
    EXPECT_EQ(block.textsWritten + other.textsWritten, 0) << "another thread's";
    insert(0x700000005, LOCAL_FILE_CALL); // compared as 32 bits
    insert(5, LOCAL_NETWORK_CALL);
    EXPECT_EQ(block.ioFile + std::to_string(block.networkPort), "/var/log/x0") << "no descriptor";
    network.fd = 9;
    insert(5, LOCAL_NETWORK_CALL);
    EXPECT_EQ(block.networkHost + std::to_string(block.networkPort), "h80");
    insert(5, LOCAL_APP_SERVER_CALL);
    EXPECT_STREQ(block.ioFile, "") << "it is read anew after the server's data";
    EXPECT_TRUE(block.textsWritten == 1 && other.textsWritten == 0);
    thread_e2e_info = nullptr;
}
