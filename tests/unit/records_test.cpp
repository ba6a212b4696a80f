// Records as the agent writes them, compared with the table of the documented fields, and their titles.
#include "RecordTable.h"
#include "Restore.h"
#include "Xtier/XtierInsert.h"
#include "qorrequest.h"
#include "reply/records.h"

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

// What comes before the fields of a record: its section's title.
std::string Titled(const RecordRow &row) {
    return row.title + RECORD_END + row.Wire();
}

TEST(Records, FramesHaveTheDocumentedFields) {
    const RecordRow row = FindRecord("frame"), skipped = FindRecord("frames left out");
    const std::string call = row.Text("call"), file = row.Text("file");
    const std::string className = call.substr(0, call.find("->"));
    QorFrameRecord frame = {};
    frame.className = className.c_str();
    frame.method = "m";
    frame.fileName = file.c_str();
    frame.line = row.Number("line");
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
    for (const char *name : {"lock waited for", "lock owned", "parked on"}) {
        const RecordRow row = FindRecord(name);
        QorMonitorRecord lock = {};
        lock.lockId = row.Number("lock id");
        lock.owner = row.Number("owner");
        lock.stackDepth = row.Number("depth");
        snprintf(lock.description, sizeof lock.description, "%s", row.Text("class@id").c_str());
        const std::string written = Written([&](QorText *out) {
            if (row.title == "Lock On")
                QorAppendLockWaitRecord(out, &lock, 77);
            else if (row.title == "Parked On")
                QorAppendParkedRecord(out, &lock);
            else
                QorAppendOwnedLockRecord(out, &lock);
        });
        EXPECT_EQ(written, row.title == "JVM Locks" ? row.Wire() + RECORD_END : Titled(row));
    }
}

TEST(Records, BlocksHaveTheDocumentedFields) {
    const RecordRow whole = FindRecord("database block"), brief = FindRecord("short database block");
    const std::string url = whole.Text("URL"), user = whole.Text("user"), host = whole.Text("remote host"),
                      sql = whole.Text("SQL"), kind = whole.Text("kind");
    QorDatabaseBlock block = {};
    block.url = url.c_str();
    block.user = user.c_str();
    block.localPort = static_cast<uint32_t>(whole.Number("local port"));
    block.remotePort = static_cast<uint32_t>(whole.Number("remote port"));
    block.remoteHost = host.c_str();
    block.sampleTime = whole.Number("time");
    block.sqlRef = whole.Number("SQL reference");
    block.sqlText = sql.c_str();
    block.typeName = kind.c_str();
    EXPECT_EQ(Written([&](QorText *out) { QorAppendDatabaseBlock(out, block); }),
              WAIT_DETAIL + std::string("10") + FIELD_COUNT_MARK + whole.Wire());
    EXPECT_EQ(Written([&](QorText *out) { QorAppendShortDatabaseBlock(out, block); }),
              WAIT_DETAIL + brief.Wire());
    const RecordRow remote = FindRecord("RMI block");
    QorRmiCallData call = {};
    call.callId = remote.Number("call id");
    call.port = remote.Number("remote port");
    snprintf(call.host, sizeof call.host, "%s", remote.Text("remote host").c_str());
    snprintf(call.jndiName, sizeof call.jndiName, "%s", remote.Text("JNDI name").c_str());
    EXPECT_EQ(Written([&](QorText *out) { QorAppendRmiBlock(out, &call); }),
              WAIT_DETAIL + std::string(1, RMI_MARK) + remote.Wire());
}

TEST(Records, TitleIsTheFirstRowThatApplies) {
    const struct {
        uint32_t reqid;
        int32_t details, trace;
        const char *title;
    } rows[] = {
        {0x2180, 0, 0, "JVM Memory Activity"},
        {0x2100, 0, 0, "Thread Info Summary"},
        {0xa000, 16, 0, "JVM Active Threads"},
        {0x200, 0, 0, "Thread Info Details"},
        {0x800, 0, 0, "Thread Holding Lock"},
        {0x8000, 0, 0, "JVM Active Threads"},
        {0x8000, 0, 32, "Thread Info Details"},
        {0x8000, 16, 0, "Thread Info Details"},
        {0x4000, 0, 0, ""},
    };
    for (const auto &row : rows) {
        const Restore details(poll_details, row.details), trace(trace_single_thread_details, row.trace);
        char header[TITLE_SIZE];
        InitResponseHeader(row.reqid, header);
        EXPECT_EQ(*row.title ? std::string(row.title) + RECORD_END : "", header) << std::hex << row.reqid;
        // A traced thread is always shown with its stack.
        EXPECT_EQ(poll_details != 0, row.details || row.trace) << std::hex << row.reqid;
    }
}

} // namespace
