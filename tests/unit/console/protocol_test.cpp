// Records as the console reads them, compared with the table of the documented fields.
#include "RecordTable.h"
#include "wire.h"
#include "wire/memory.h"
#include "wire/objects.h"
#include "wire/virtual_threads.h"

#include <map>
#include <sstream>

using namespace qorctl;

namespace {

// What was read, by the names of the table's fields.
using Read = std::map<std::string, std::string>;

std::string Of(uint64_t number) {
    return std::to_string(number);
}

Read Named(const std::string &names, const std::vector<std::string> &values) {
    Read read;
    std::istringstream in(names);
    std::string name;
    for (size_t i = 0; std::getline(in, name, ','); ++i)
        read[name] = values.at(i);
    return read;
}

std::string CallOf(const Frame &frame) {
    return frame.class_name + "->" + frame.method;
}

Read OfThread(const Thread &thread) {
    const Frame call = thread.call.value_or(Frame());
    return Named("name,request URL,request detail,key,state,call,file,line",
                 {thread.name, thread.request_url.value_or(""), thread.request_detail.value_or(""),
                  thread.key.Text(), thread.state, CallOf(call), call.file, Of(call.line)});
}

Read OfFrame(const Frame &frame) {
    return Named("call,file,line,index,method id",
                 {CallOf(frame), frame.file, Of(frame.line), Of(frame.index), Of(frame.method_id)});
}

Read OfLock(const OwnedLock &lock) {
    return Named("lock id,class@id,depth", {Of(lock.lock), lock.class_name, Of(lock.depth)});
}

Read OfDatabase(const DbWait &db) {
    return Named("URL,user,local port,remote port,remote host,time,SQL reference,SQL,kind",
                 {*db.url, *db.user, Of(db.local_port), Of(db.remote_port), *db.remote_host,
                  Of(db.sample_time), Of(db.sql_ref), db.sql.value_or(""), db.type.value_or("")});
}

Thread FirstOf(const Reply &reply) {
    return DecodeThreads(reply).threads.at(0);
}

Thread OnlyOf(const Reply &reply) {
    return DecodeStack(reply).threads.at(0);
}

Read OfField(const Reply &reply) {
    const ObjectField field = DecodeObject(reply, 1).classes.at(0).fields.at(0);
    return Named("tag,type,name,value", {Of(field.tag), field.type, field.name, field.value});
}

const std::string WITH_DETAILS = DETAILS + "!";
const std::string IN_STATE = "JVM Active Threads;a~n~^~^~^~1-2~^~^~^~";
const std::string IN_OBJECT = "Message;Object Name :x!";
const std::string ONE_STACK = "Thread Info Details;n~^~^~^~1-2~A->b~F~1~";
const std::string GROUPS = "JVM Virtual Threads;9~9~9~9~9~0~^~9~9~9~9~9~9~9~9~9";
const std::string COLLECTIONS = "JVM Garbage Collections;Major GC Count~3;!";

// How a record is read: what is around it in a reply, and what of it is kept.
const struct {
    const char *record;
    std::string before, after;
    Read (*read)(const Reply &reply);
} READERS[] = {
    {"active thread", "", ";!", [](const Reply &r) { return OfThread(FirstOf(r)); }},
    {"thread with details", "", "!", [](const Reply &r) { return OfThread(FirstOf(r)); }},
    {"frame", WITH_DETAILS, "!", [](const Reply &r) { return OfFrame(FirstOf(r).stack.at(0)); }},
    {"frames left out", WITH_DETAILS, "!",
     [](const Reply &r) {
         const Frame frame = FirstOf(r).stack.at(0);
         return Named("count and text,index",
                      {Of(frame.skipped) + std::string(SKIPPED_FRAMES), Of(frame.index)});
     }},
    {"lock waited for", WITH_DETAILS, "!",
     [](const Reply &r) {
         const LockWait wait = *FirstOf(r).waits_for;
         return Named("lock id,owner,class@id", {Of(wait.lock), wait.owner.Text(), wait.class_name});
     }},
    {"lock owned", WITH_DETAILS, ";!", [](const Reply &r) { return OfLock(FirstOf(r).owns.at(0)); }},
    {"parked on", WITH_DETAILS, "!", [](const Reply &r) { return OfLock(*FirstOf(r).parked_on); }},
    {"thread of one stack", "", "!Call Stack;!", [](const Reply &r) { return OfThread(OnlyOf(r)); }},
    {"frame of one stack", ONE_STACK + "Lock!", ";!",
     [](const Reply &r) { return OfFrame(OnlyOf(r).stack.at(0)); }},
    {"lock holder", "", "!", [](const Reply &r) { return OfThread(DecodeLockHolder(r).thread); }},
    {"virtual threads", "", ";!",
     [](const Reply &r) {
         const VirtualThreads v = DecodeVirtualThreads(r);
         std::vector<std::string> values = {Of(v.count), Of(v.in_executors), Of(v.mounted), Of(v.sampled),
                                            Of(v.groups_found)};
         values.push_back(v.cut_by_rows && !v.cut_by_limits && !v.count_cut ? "106" : ""); // its bits
         values.push_back(v.note);
         for (const auto &state : v.states)
             values.push_back(Of(state.second));
         return Named("count,in executors,mounted,sampled,groups,cut,note,runnable,db wait,lock,network wait,"
                      "io wait,object wait,sleeping,rmi wait,other",
                      values);
     }},
    {"virtual threads unavailable", "", ";!",
     [](const Reply &r) {
         const VirtualThreads v = DecodeVirtualThreads(r);
         return Named("reason", {v.available ? "" : v.reason});
     }},
    {"group of virtual threads", GROUPS + ";", ";!",
     [](const Reply &r) {
         const VirtualGroup group = DecodeVirtualThreads(r).groups.at(0);
         Read read = OfThread(group.member);
         read.merge(Named(
             "number,waits for,owner,container,depth",
             {Of(group.number), group.waits_for, group.owner.Text(), group.container, Of(group.depth)}));
         return read;
     }},
    {"another member of a group", GROUPS + ";1~77-101~^~^~^~^~^~1~^~^~^~Lock;!", ";!",
     [](const Reply &r) {
         const VirtualGroup group = DecodeVirtualThreads(r).groups.at(0);
         Read read = OfThread(group.others.at(0));
         read["group"] = group.member.key.Text();
         return read;
     }},
    {"pool", "", ";!" + COLLECTIONS,
     [](const Reply &r) {
         const HeapPool pool = DecodeHeap(r).pools.at(0);
         return Named("name,greatest size,used,percent,free", {pool.name, Of(pool.max_kib), Of(pool.used_kib),
                                                               Of(pool.percent), Of(pool.available_kib)});
     }},
    {"collections", "JVM Heap Usage;Old~4~1~25~3;!", ";!",
     [](const Reply &r) {
         const Collector collector = DecodeHeap(r).collectors.at(0);
         return Named("name,collections", {collector.name, Of(*collector.count)});
     }},
    {"collector", "", ";!",
     [](const Reply &r) {
         const CollectorBean bean = DecodeCollectors(r.text).at(0);
         return Named("name,collections,milliseconds", {bean.name, Of(*bean.count), Of(*bean.milliseconds)});
     }},
    {"memory", "", "!" + COLLECTIONS,
     [](const Reply &r) {
         const MemoryView memory = DecodeMemory(r);
         return Named("used,greatest size", {Of(memory.used_kib), Of(memory.max_kib)});
     }},
    {"class", "", ";!",
     [](const Reply &r) {
         const ClassCount entry = DecodeHistogram(r).classes.at(0);
         return Named("signature,instances,KiB", {entry.class_name, Of(entry.instances), Of(entry.kib)});
     }},
    {"local", "", ";Active!",
     [](const Reply &r) {
         const Local local = DecodeLocals(r).rows.at(0);
         return Named("tag,signature,value", {Of(*local.tag), local.type, local.value});
     }},
    {"field", IN_OBJECT, ";Active!", [](const Reply &r) { return OfField(r); }},
    {"field with a link", IN_OBJECT, ";Active!", [](const Reply &r) { return OfField(r); }},
    {"database block", IN_STATE + "DB Wait{10}", ";!",
     [](const Reply &r) { return OfDatabase(*FirstOf(r).db); }},
    {"short database block", ONE_STACK + "DB Wait{", "!Call Stack;!",
     [](const Reply &r) { return OfDatabase(*OnlyOf(r).db); }},
    {"RMI block", IN_STATE + "RMI Wait{&", ";!",
     [](const Reply &r) {
         const RmiWait rmi = *FirstOf(r).rmi;
         return Named("call id,remote port,remote host,JNDI name",
                      {Of(rmi.call_id), Of(rmi.remote_port), *rmi.remote_host, *rmi.jndi_name});
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
        const std::string reply = Wire(READERS[i].before) + title + row.Wire(),
                          end = Wire(READERS[i].after + TIMING);
        Read read, longer;
        ASSERT_NO_THROW(read = READERS[i].read(OpenReply(reply + end)));
        ASSERT_NO_THROW(longer = READERS[i].read(OpenReply(reply + Wire("~later~1") + end)));
        EXPECT_EQ(longer, read) << "with fields of a later agent";
        for (const std::string &field : row.fields) {
            const bool kept = !RecordRow::IsLiteral(field) && field != "thread id"; // a stack is one thread's
            EXPECT_EQ(read[field], kept ? row.Text(field) : "") << field;
        }
    }
}

// A record that lacks fields, or has no number where one is due, isn't shown as if it were whole.
TEST(Protocol, OtherRecordsAreRefused) {
    const std::vector<RecordRow> rows = ReadRecordTable();
    for (size_t i = 0; i < rows.size(); ++i) {
        const std::string title = rows[i].title.empty() ? "" : rows[i].title + "\x1e", wire = rows[i].Wire(),
                          start = Wire(READERS[i].before) + title, end = Wire(READERS[i].after + TIMING);
        int read = 0;
        for (const std::string &wrong :
             {wire.substr(0, wire.find('\x1d')), Wire("x~x~x~x~x~x~x~x~x~x~x~x~x")})
            try {
                READERS[i].read(OpenReply(start + wrong + end));
                ++read;
            } catch (const Failure &) {
            } catch (const std::out_of_range &) { // there is no record
            }
        EXPECT_EQ(read, 0) << rows[i].name;
    }
}

} // namespace
