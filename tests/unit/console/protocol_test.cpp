// Records as the console reads and shows them, compared with the table of their fields in docs/protocol.md.
// Each field has a value that follows from its place, so that a record that is read in another order shows.
#include "show/render_memory.h"
#include "show/render_objects.h"
#include "show/render_virtual.h"
#include "wire.h"
#include "wire/records.h"

#include <fstream>
#include <regex>

using namespace qorctl;

namespace {

using Values = std::vector<std::string>;

struct Record {
    std::string name, title, wire;
    Values values; // of the fields that differ, in their order
};

std::string ValueOf(const std::string &field, const std::string &number) {
    const bool is_key = field == "key" || field == "owner" || field == "group";
    return field[0] == '`'             ? field.substr(1, field.size() - 2) // a word
           : field == "nothing"        ? ""
           : is_key                    ? "77-" + number
           : field == "call"           ? "C" + number + "->m"
           : field == "class@id"       ? "L" + number + "@9"
           : field == "count and text" ? number + std::string(SKIPPED_FRAMES)
                                       : number;
}

std::vector<Record> ReadTable() {
    static const std::regex form(R"(\| (.*) \| (?:`(.*)`)? \| (.*) \|)"), comma(", ");
    std::ifstream file(QOR_SOURCE_DIR "/docs/protocol.md");
    std::vector<Record> records;
    std::string line;
    while (std::getline(file, line) && line != "### Records") {
    }
    for (std::smatch cells; std::getline(file, line) && line.rfind("###", 0) != 0;)
        if (std::regex_match(line, cells, form)) {
            Record record{cells[1], cells[2].matched ? cells[2].str() + RECORD_END : "", "", {}};
            int number = 101;
            for (std::sregex_token_iterator at(cells[3].first, cells[3].second, comma, -1), end; at != end;
                 ++at) {
                const std::string field = *at, value = ValueOf(field, std::to_string(number++));
                record.wire += (record.wire.empty() ? "" : "\x1d") + value;
                if (field[0] != '`' && field != "nothing" && field != "thread id") // a stack is one thread's
                    record.values.push_back(field == "call"             ? value.substr(0, value.find('-'))
                                            : field == "count and text" ? value.substr(0, value.find(' '))
                                                                        : value);
            }
            records.push_back(record);
        }
    return records;
}

Json Sample(const Reply &reply) {
    return ToJson(DecodeThreads(reply));
}

Json OneStack(const Reply &reply) {
    return ToJson(DecodeStack(reply));
}

Json Virtual(const Reply &reply) {
    const VirtualThreads view = DecodeVirtualThreads(reply);
    Json json = ToJson(view);
    json["cut"] = 104 + view.cut_by_limits + 2 * view.cut_by_rows + 4 * view.count_cut;
    return json;
}

Json Heap(const Reply &reply) {
    return HeapJson(DecodeHeap(reply), {});
}

Json Object(const Reply &reply) {
    return ObjectJson(DecodeObject(reply, 1));
}

const std::string WITH_STACK = DETAILS + "!Call Stack;a->b~f~1~1~0~1~^~^!";
const std::string IN_STATE = "JVM Active Threads;a~n~^~^~^~1-2~^~^~^~";
const std::string IN_OBJECT = "Message;Object Name :x!";
const std::string ONE_STACK = "Thread Info Details;n~^~^~^~1-2~A->b~F~1~";
const std::string GROUPS = "JVM Virtual Threads;9~9~9~9~9~0~^~9~9~9~9~9~9~9~9~9;";
const std::string COLLECTIONS = "JVM Garbage Collections;Major GC Count~3;!";
const std::string THREAD = "name,request/url,request/detail,key,call/class,call/file,call/line,state";

// How a record is read: what is around it in a reply, and where in JSON its fields are, "-" for one that
// isn't shown there.
const struct {
    const char *record;
    std::string before, after;
    Json (*view)(const Reply &);
    std::string place, fields;
} READERS[] = {
    {"active thread", "", ";!", Sample, "/threads/0/", THREAD},
    {"thread with details", "", "!", Sample, "/threads/0/", THREAD},
    {"frame", DETAILS + "!", "!", Sample, "/threads/0/stack/0/", "class,file,line,index,method_id"},
    {"frames left out", DETAILS + "!", "!", Sample, "/threads/0/stack/0/", "skipped,index"},
    {"lock waited for", WITH_STACK, "!", Sample, "/threads/0/waits_for/", "lock,-,class"},
    {"lock owned", WITH_STACK, ";!", Sample, "/threads/0/owns/0/", "lock,class,depth"},
    {"parked on", WITH_STACK, "!", Sample, "/threads/0/parked_on/", "lock,class"},
    {"thread of one stack", "", "!Call Stack;!", OneStack, "/threads/0/", THREAD},
    {"frame of one stack", ONE_STACK + "Lock!", ";!", OneStack, "/threads/0/stack/0/",
     "index,method_id,class,file,line"},
    {"lock holder", "", "!", [](const Reply &r) { return ToJson(DecodeLockHolder(r)); }, "/",
     "name,key,call/class,call/file,call/line,state"},
    {"virtual threads", "", ";!", Virtual, "/",
     "count,in_executors,mounted,sampled,groups_found,cut,note,states/runnable,states/db_wait,states/lock,"
     "states/network_wait,states/io_wait,states/object_wait,states/sleeping,states/rmi_wait,states/other"},
    {"virtual threads unavailable", "", ";!", Virtual, "/", "reason"},
    {"group of virtual threads", GROUPS, ";!", Virtual, "/groups/0/",
     "count,key,request/url,request/detail,waits_for,owner,container,depth,call/class,call/file,call/"
     "line,state"},
    {"another member of a group", GROUPS + "1~77-101~^~^~^~^~^~1~^~^~^~Lock;!", ";!", Virtual, "/groups/0/",
     "key,others/0/key,others/0/request/url,others/0/request/detail,-"},
    {"pool", "", ";!" + COLLECTIONS, Heap, "/pools/0/", "name,max_kib,used_kib,used_percent,available_kib"},
    {"collections", "JVM Heap Usage;Old~4~1~25~3;!", ";!", Heap, "/collectors/0/", "name,count"},
    {"collector", "", ";!", [](const Reply &r) { return CollectorsJson({}, DecodeCollectors(r.text)); },
     "/jvm_collectors/0/", "name,count,milliseconds"},
    {"memory", "", "!" + COLLECTIONS, [](const Reply &r) { return HeapJson({}, DecodeMemory(r)); }, "/",
     "used_kib,max_kib"},
    {"class", "", ";!", [](const Reply &r) { return HistogramJson(DecodeHistogram(r), 1); }, "/classes/0/",
     "class,instances,kib"},
    {"local", "", ";Active!", [](const Reply &r) { return LocalsJson(DecodeLocals(r), {}, {}); },
     "/locals/0/", "tag,type,-"},
    {"field", IN_OBJECT, ";Active!", Object, "/classes/0/fields/0/", "type,name,value"},
    {"field with a link", IN_OBJECT, ";Active!", Object, "/classes/0/fields/0/", "tag,type,name"},
    {"database block", IN_STATE + "DB Wait{10}", ";!", Sample, "/threads/0/db/",
     "url,user,local_port,remote_port,remote_host,sample_time,sql_ref,sql,type"},
    {"short database block", ONE_STACK + "DB Wait{", "!Call Stack;!", OneStack, "/threads/0/db/",
     "url,user,local_port,remote_port,remote_host,sample_time,sql_ref"},
    {"RMI block", IN_STATE + "RMI Wait{&", ";!", Sample, "/threads/0/rmi/",
     "call_id,remote_port,remote_host,jndi_name"},
};

TEST(Protocol, RecordsAreReadAsDocumentedOrRefused) {
    const std::vector<Record> records = ReadTable();
    ASSERT_EQ(records.size(), std::size(READERS));
    for (size_t i = 0; i < records.size(); ++i) {
        const Record &record = records[i];
        SCOPED_TRACE(record.name);
        ASSERT_EQ(record.name, READERS[i].record);
        const auto read = [&, &reader = READERS[i]](const std::string &wire) {
            const std::string reply = Wire(reader.before) + record.title + wire + Wire(reader.after + TIMING);
            Values values;
            try {
                const Json json = reader.view(OpenReply(reply));
                for (const std::string_view field : Split(reader.fields, ',')) {
                    const size_t at = values.size();
                    const Json value = field == "-"
                                           ? Json(record.values.at(at))
                                           : json.at(Json::json_pointer(reader.place + std::string(field)));
                    values.push_back(value.is_string() ? value.get<std::string>() : value.dump());
                }
            } catch (const std::exception &) { // refused, or there is no such record
                values.clear();
            }
            return values;
        };
        EXPECT_EQ(read(record.wire), record.values);
        EXPECT_EQ(read(record.wire + Wire("~later~1")), record.values) << "with fields of a later agent";
        // One that lacks fields, or has no number where one is due, isn't shown as if it were whole.
        EXPECT_EQ(read(record.wire.substr(0, record.wire.find(FIELD_SEP))), Values());
        EXPECT_EQ(read(Wire("x~x~x~x~x~x~x~x~x~x~x~x~x")), Values());
    }
}

} // namespace
