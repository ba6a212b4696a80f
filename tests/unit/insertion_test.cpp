#include "Xtier/XtierInsert.h"
#include "Xtier/tiers/LocalList.h"
#include "reply/qorformat.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <set>

namespace {

// Texts of these tests have | for the field separator, ; and # for the ends of record and section, { for the
// start of a block and its second mark as <.
std::string Wire(std::string text) {
    static const std::string shown = "|;#{<";
    static const char real[] = {FIELD_SEP, RECORD_END, SECTION_END, WAIT_DETAIL, FIELD_COUNT_MARK};
    for (char &c : text)
        c = shown.find(c) != std::string::npos ? real[shown.find(c)] : c;
    return text;
}

template <size_t SIZE>
void Set(char (&field)[SIZE], const char *text) {
    snprintf(field, SIZE, "%s", text);
}

// A reply of threads, and what is put into it.
struct Insertion : testing::Test {
    Insertion() {
        QorClearDBRequestData(database.get());
        QorClearJSPRequestData(web.get());
        QorClearRmiCallData(&rmi);
    }
    ~Insertion() override { FreeXtierLocationInfoArrayList(first); }

    void Put(const std::string &text, int32_t *start, int32_t *end) {
        *start = static_cast<int32_t>(reply.size());
        reply += Wire(text);
        *end = static_cast<int32_t>(reply.size());
    }
    // A row with all pieces.
    void PutRow(QorFramework framework) {
        QorThreadRecord thread = {};
        EXPECT_EQ(AddToXtierLocationInfoList(&thread, &first, &last), 0);
        last->framework = framework;
        QorXtierPositions &at = last->at;
        reply += Wire("a|n|^|");
        Put("^|^|", &at.requestStart, &at.requestEnd);
        reply += Wire("1-5|");
        Put("a.B->c|B.java|7|", &at.currentCallStart, &at.currentCallEnd);
        reply += "DB Wait";
        Put("{10<^|^|0|0|^|0|0|^|^|^", &at.dbStart, &at.dbEnd);
        reply += Wire("#Call Stack;top|T|1");
        Put("", &at.stackCallStart, &at.stackCallEnd);
        reply += Wire(";frame|F|2#");
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
        EXPECT_EQ(text.text, reply) << "the old reply stays until the end";
        QorEndInsertion(&pass, &text);
        return {text.text, static_cast<size_t>(text.length)};
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
    reply += "tail";
    Set(database->url, "jdbc:x"); // but no user
    EXPECT_EQ(Insert(), reply);
    Set(database->user, "scott");
    Set(database->sqlText, "select 1");
    database->localPort = 40000;
    database->remotePort = 1521;
    database->sampleTime = 0x180000001;
    database->sqlRef = 0xfffffffff;
    Set(web->requestUrl, "/shop");
    Set(web->qrfObjectName, "Orders");
    EXPECT_EQ(Insert(),
              Wire("a|n|^|/shop|^|1-5|View_Object->Orders|ViewObjectImpl.java|0|DB Wait"
                   "{10<jdbc:x|scott|40000|1521|^|-2147483647|-1|select 1|DEEPDIVE_TESSAR_DB|^"
                   "#Call Stack;top|T|1;View_Object->Orders|ViewObjectImpl.java|0|;frame|F|2#tail"));
    Set(web->requestDetail, "?id");
    Set(database->remoteHost, "db1");
    database->dbType = DB_TYPE_COUNT;
    for (const char *part : {"/shop|?id|1-5|", "|1521|db1|-2147483647|-1|select 1|^|^#"})
        EXPECT_NE(Insert().find(Wire(part)), std::string::npos);
}

// The more room there is the more goes in, never a part of a piece, and the tail always.
TEST_F(Insertion, WhateverTheRoomNoRowIsLost) {
    PutRow(FRAMEWORK_EL);
    PutRow(FRAMEWORK_EL);
    reply += "tail";
    Set(database->url, "jdbc:x");
    Set(database->user, "scott");
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
