// Records as the agent writes them, compared with the table of the documented fields, and their titles.
#include "RecordTable.h"
#include "reply/records.h"
#include "reply/wait_blocks.h"

#include <gtest/gtest.h>

namespace {

template <class Write>
std::string Written(Write write) {
    static char storage[10000];
    QorText text;
    QorTextStart(&text, storage, sizeof storage);
    write(&text);
    return storage;
}

TEST(Records, FramesHaveTheDocumentedFields) {
    const RecordRow row = FindRecord("frame"), skipped = FindRecord("frames left out");
    const std::string file = row.Text("file"), className = row.Text("call").substr(0, 4);
    const QorFrameRecord frame = {0, 0, "m", className.c_str(), file.c_str(), row.Number("line"), 1, nullptr};
    EXPECT_EQ(Written([&](QorText *out) {
                  QorAppendStackRowHead(out, &frame);
                  QorAppendNumberField(out, row.Number("thread id"));
                  QorTextAppendNumber(out, row.Number("index"));
                  QorAppendStackRowTail(out, row.Number("method id"));
              }),
              RECORD_END + row.Wire());
    EXPECT_EQ(Written([&](QorText *out) {
                  QorAppendSkipRow(out, skipped.Number("count and text"), skipped.Number("thread id"),
                                   skipped.Number("index"));
              }),
              RECORD_END + skipped.Wire());
}

TEST(Records, LocksHaveTheDocumentedFields) {
    const auto lock = [](const RecordRow &row) {
        QorMonitorRecord record = {};
        record.lockId = row.Number("lock id");
        record.owner = row.Number("owner");
        record.stackDepth = row.Number("depth");
        snprintf(record.description, sizeof record.description, "%s", row.Text("class@id").c_str());
        return record;
    };
    const RecordRow waited = FindRecord("lock waited for"), owned = FindRecord("lock owned"),
                    parked = FindRecord("parked on");
    const QorMonitorRecord waits = lock(waited), owns = lock(owned), parks = lock(parked);
    EXPECT_EQ(Written([&](QorText *out) { QorAppendLockWaitRecord(out, &waits, 77); }),
              waited.title + RECORD_END + waited.Wire());
    EXPECT_EQ(Written([&](QorText *out) { QorAppendOwnedLockRecord(out, &owns); }),
              owned.Wire() + RECORD_END);
    EXPECT_EQ(Written([&](QorText *out) { QorAppendParkedRecord(out, &parks); }),
              parked.title + RECORD_END + parked.Wire());
}

TEST(Records, BlocksHaveTheDocumentedFields) {
    const RecordRow row = FindRecord("database block"), remote = FindRecord("RMI block");
    const std::string url = row.Text("URL"), user = row.Text("user"), host = row.Text("remote host"),
                      sql = row.Text("SQL"), kind = row.Text("kind");
    const auto port = [&](const char *which) { return static_cast<uint32_t>(row.Number(which)); };
    const QorDatabaseBlock block = {
        url.c_str(),  user.c_str(),       port("local port"),          port("remote port"),
        host.c_str(), row.Number("time"), row.Number("SQL reference"), sql.c_str(),
        kind.c_str()};
    EXPECT_EQ(Written([&](QorText *out) { QorAppendDatabaseBlock(out, block); }),
              WAIT_DETAIL + std::string("10") + FIELD_COUNT_MARK + row.Wire());
    EXPECT_EQ(Written([&](QorText *out) { QorAppendShortDatabaseBlock(out, block); }),
              WAIT_DETAIL + FindRecord("short database block").Wire());
    const std::string name = remote.Text("JNDI name"), server = remote.Text("remote host");
    const QorRmiBlock call = {name.c_str(), remote.Number("call id"), remote.Number("remote port"),
                              server.c_str()};
    EXPECT_EQ(Written([&](QorText *out) { QorAppendRmiBlock(out, call); }),
              WAIT_DETAIL + std::string(1, RMI_MARK) + remote.Wire());
}

TEST(Records, SystemDataIsInTheDocumentedOrder) {
    const std::string row = Written([](QorText *out) { QorAppendSystemData(out, {1, 2, 3, 4, 5, 6, 7}); });
    EXPECT_EQ(row.rfind("System Data\0361\0352\0353\0354\0355\0356\0357\035", 0), 0U) << row;
}

} // namespace
