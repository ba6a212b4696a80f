// Records as the console reads them, compared with the table of the documented fields.
#include "RecordTable.h"
#include "wire.h"
#include "wire/memory.h"
#include "wire/objects.h"

#include <gtest/gtest.h>
#include <map>

using namespace qorctl;

namespace {

// What was read, by the names of the table's fields.
using Read = std::map<std::string, std::string>;

std::string Of(uint64_t number) {
    return std::to_string(number);
}

void AddCall(const Frame &call, Read *read) {
    *read = {{"call", call.class_name + "->" + call.method}, {"file", call.file}, {"line", Of(call.line)}};
}

Read OfThread(const Thread &thread) {
    Read read;
    AddCall(thread.call.value_or(Frame()), &read);
    read["name"] = thread.name;
    read["request URL"] = thread.request_url.value_or("");
    read["request detail"] = thread.request_detail.value_or("");
    read["key"] = thread.key.Text();
    read["state"] = thread.state;
    return read;
}

Read OfFrame(const Frame &frame) {
    Read read;
    AddCall(frame, &read);
    read["index"] = Of(frame.index);
    read["method id"] = Of(frame.method_id);
    return read;
}

Read OfLock(const OwnedLock &lock) {
    return {{"lock id", Of(lock.lock)}, {"class@id", lock.class_name}, {"depth", Of(lock.depth)}};
}

Read OfDatabase(const DbWait &db) {
    return {{"URL", *db.url},
            {"user", *db.user},
            {"local port", Of(db.local_port)},
            {"remote port", Of(db.remote_port)},
            {"remote host", *db.remote_host},
            {"time", Of(db.sample_time)},
            {"SQL reference", Of(db.sql_ref)},
            {"SQL", db.sql.value_or("")},
            {"kind", db.type.value_or("")}};
}

Thread FirstOf(const Reply &reply) {
    return DecodeThreads(reply).threads.at(0);
}

Thread OnlyOf(const Reply &reply) {
    return DecodeStack(reply).threads.at(0);
}

const std::string DETAILS = "Thread Info Details;" + DETAILS_ROW + "!";
const std::string IN_STATE = "JVM Active Threads;a~n~^~^~^~1-2~^~^~^~";
const std::string ONE_STACK = "Thread Info Details;n~^~^~^~1-2~A->b~F~1~";
const std::string COLLECTIONS = "JVM Garbage Collections;Major GC Count~3;!";

// How a record is read: what is around it in a reply, and what of it is kept.
const struct {
    const char *record;
    std::string before, after;
    Read (*read)(const Reply &reply);
} READERS[] = {
    {"active thread", "", ";!", [](const Reply &r) { return OfThread(FirstOf(r)); }},
    {"thread with details", "", "!", [](const Reply &r) { return OfThread(FirstOf(r)); }},
    {"frame", DETAILS, "!", [](const Reply &r) { return OfFrame(FirstOf(r).stack.at(0)); }},
    {"frames left out", DETAILS, "!",
     [](const Reply &r) {
         const Frame frame = FirstOf(r).stack.at(0);
         return Read{{"count and text",
                      Of(frame.skipped) + " frames are skipped for storage and performance optimization"},
                     {"index", Of(frame.index)}};
     }},
    {"lock waited for", DETAILS, "!",
     [](const Reply &r) {
         const LockWait wait = *FirstOf(r).waits_for;
         return Read{{"lock id", Of(wait.lock)}, {"owner", wait.owner.Text()}, {"class@id", wait.class_name}};
     }},
    {"lock owned", DETAILS, ";!", [](const Reply &r) { return OfLock(FirstOf(r).owns.at(0)); }},
    {"parked on", DETAILS, "!", [](const Reply &r) { return OfLock(*FirstOf(r).parked_on); }},
    {"thread of one stack", "", "!Call Stack;!", [](const Reply &r) { return OfThread(OnlyOf(r)); }},
    {"frame of one stack", ONE_STACK + "Lock!", ";!",
     [](const Reply &r) { return OfFrame(OnlyOf(r).stack.at(0)); }},
    {"lock holder", "", "!", [](const Reply &r) { return OfThread(DecodeLockHolder(r).thread); }},
    {"pool", "", ";!" + COLLECTIONS,
     [](const Reply &r) {
         const HeapPool pool = DecodeHeap(r).pools.at(0);
         return Read{{"name", pool.name},
                     {"greatest size", Of(pool.max_kib)},
                     {"used", Of(pool.used_kib)},
                     {"percent", Of(pool.percent)},
                     {"free", Of(pool.available_kib)}};
     }},
    {"collections", "JVM Heap Usage;Old~4~1~25~3;!", ";!",
     [](const Reply &r) {
         const Collector collector = DecodeHeap(r).collectors.at(0);
         return Read{{"name", collector.name}, {"collections", Of(*collector.count)}};
     }},
    {"collector", "", ";!",
     [](const Reply &r) {
         const CollectorBean bean = DecodeCollectors(r.text).at(0);
         return Read{
             {"name", bean.name}, {"collections", Of(*bean.count)}, {"milliseconds", Of(*bean.milliseconds)}};
     }},
    {"memory", "", "!" + COLLECTIONS,
     [](const Reply &r) {
         const MemoryView memory = DecodeMemory(r);
         return Read{{"used", Of(memory.used_kib)}, {"greatest size", Of(memory.max_kib)}};
     }},
    {"class", "", ";!",
     [](const Reply &r) {
         const ClassCount entry = DecodeHistogram(r).classes.at(0);
         return Read{
             {"signature", entry.class_name}, {"instances", Of(entry.instances)}, {"KiB", Of(entry.kib)}};
     }},
    {"local", "", ";Active!",
     [](const Reply &r) {
         const Local local = DecodeLocals(r).rows.at(0);
         return Read{{"tag", Of(*local.tag)}, {"signature", local.type}, {"value", local.value}};
     }},
    {"field", "Message;Object Name :x!", ";Active!",
     [](const Reply &r) {
         const ObjectField field = DecodeObject(r, 1).classes.at(0).fields.at(0);
         return Read{{"type", field.type}, {"name", field.name}, {"value", field.value}};
     }},
    {"field with a link", "Message;Object Name :x!", ";Active!",
     [](const Reply &r) {
         const ObjectField field = DecodeObject(r, 1).classes.at(0).fields.at(0);
         return Read{{"tag", Of(field.tag)}, {"type", field.type}, {"name", field.name}};
     }},
    {"database block", IN_STATE + "DB Wait{10}", ";!",
     [](const Reply &r) { return OfDatabase(*FirstOf(r).db); }},
    {"short database block", ONE_STACK + "DB Wait{", "!Call Stack;!",
     [](const Reply &r) { return OfDatabase(*OnlyOf(r).db); }},
    {"RMI block", IN_STATE + "RMI Wait{&", ";!",
     [](const Reply &r) {
         const RmiWait rmi = *FirstOf(r).rmi;
         return Read{{"call id", Of(rmi.call_id)},
                     {"remote port", Of(rmi.remote_port)},
                     {"remote host", *rmi.remote_host},
                     {"JNDI name", *rmi.jndi_name}};
     }},
};

TEST(Protocol, RecordsAreReadAsDocumented) {
    const std::vector<RecordRow> rows = ReadRecordTable();
    ASSERT_EQ(rows.size(), std::size(READERS));
    for (size_t i = 0; i < rows.size(); ++i) {
        const RecordRow &row = rows[i];
        SCOPED_TRACE(row.name);
        ASSERT_EQ(row.name, READERS[i].record);
        const std::string title = row.title.empty() ? "" : row.title + "\x1e";
        const std::string reply =
            Wire(READERS[i].before) + title + row.Wire() + Wire(READERS[i].after + TIMING);
        Read read;
        ASSERT_NO_THROW(read = READERS[i].read(OpenReply(reply)));
        for (const std::string &field : row.fields) {
            const bool kept = !RecordRow::IsLiteral(field) && field != "thread id"; // a stack is one thread's
            EXPECT_EQ(read[field], kept ? row.Text(field) : "") << field;
        }
    }
}

} // namespace
