#include "Xtier/XtierInsert.h"
#include "Xtier/tiers/LocalList.h"
#include "reply/qorformat.h"

#include <algorithm>
#include <gtest/gtest.h>
#include <memory>
#include <set>

// Two rows with all places for data, and a tail. The more room there is the more goes in, never a part of a
// piece, and the tail always.
TEST(Insertion, WhateverTheRoomNoRowIsLost) {
    QorXtierLocationInfo *first = nullptr, *last = nullptr;
    std::string reply;
    for (int row = 0; row < 2; row++) {
        QorThreadRecord thread = {};
        ASSERT_EQ(AddToXtierLocationInfoList(&thread, &first, &last), 0);
        last->framework = FRAMEWORK_EL;
        const auto put = [&](const std::string &text, int32_t *start, int32_t *end) {
            *start = static_cast<int32_t>(reply.size());
            *end = static_cast<int32_t>((reply += text).size());
        };
        QorXtierPositions &at = last->at;
        put("^\x1d^\x1d", &at.requestStart, &at.requestEnd);
        put("a.B->c\x1d", &at.currentCallStart, &at.currentCallEnd);
        put(std::string(1, WAIT_DETAIL) + "10" + FIELD_COUNT_MARK, &at.dbStart, &at.dbEnd);
        reply += SECTION_END;
        put("", &at.stackCallStart, &at.stackCallEnd);
        reply += SECTION_END;
    }
    reply += "tail";
    const auto database = std::make_unique<QorDBRequestData>();
    const auto web = std::make_unique<QorJSPRequestData>();
    QorRmiCallData rmi;
    QorClearDBRequestData(database.get());
    QorClearJSPRequestData(web.get());
    QorClearRmiCallData(&rmi);
    snprintf(database->url, sizeof database->url, "jdbc:x");
    snprintf(database->user, sizeof database->user, "scott");
    snprintf(web->requestUrl, sizeof web->requestUrl, "/a/rather/long/request");
    snprintf(web->elExpression, sizeof web->elExpression, "$(a.rather.long.expression)");

    int32_t earlier = 0;
    std::set<std::string> seen;
    for (size_t spare = 0; spare < 500; ++spare) {
        std::string storage(reply.size() + spare + 1, 0), results;
        QorText text;
        QorTextStart(&text, storage.data(), static_cast<int32_t>(storage.size()));
        QorTextAppend(&text, reply.c_str());
        QorInsertion pass;
        QorStartInsertion(&pass, &text);
        for (const QorXtierLocationInfo *at = first; at; at = at->next)
            results += InsertXtierDataToConsoleBuf(&pass, *at, *web, *database, rmi) == 0 ? "0" : "-";
        EXPECT_EQ(text.text, reply) << "the old reply stays until the end";
        QorEndInsertion(&pass, &text);
        const std::string made = text.text;
        ASSERT_TRUE(text.length >= earlier && made.size() <= reply.size() + spare);
        earlier = text.length;
        EXPECT_EQ(made.substr(made.size() - 4), "tail");
        EXPECT_EQ(std::count(made.begin(), made.end(), SECTION_END), 4);
        seen.insert(results);
    }
    EXPECT_EQ(seen, (std::set<std::string>{"--", "0-", "00"}));
    FreeXtierLocationInfoArrayList(first);
}
