// What threads do in other tiers, as their rows show it, compared with what their frames were made of and
// with the sockets of their connections.
#include "poll.h"
#include "stage.h"

#include "platforms/own_address.h"
#include "qorsettings.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "sunprint/report/connection_list.h"
#include "sunprint/report/frame_tiers.h"
#include "sunprint/report/jdbc_versions.h"

#include <set>

using namespace simvm;

namespace {

const char FIELD = 29, RECORD = 30, SECTION = 31, DETAIL = 28,
           NO_TEXT[] = "Given Oop is Invalid on this JVM.";

// The fields of each row of a sample, by key.
std::map<std::string, std::vector<std::string>> Rows(uint32_t request) {
    std::map<std::string, std::vector<std::string>> rows;
    const std::string reply = Ask("777|showstack|" + std::to_string(request));
    for (const std::string &row : Split(reply.substr(0, reply.find(SECTION)), RECORD)) {
        const std::vector<std::string> fields = Split(row, FIELD);
        if (fields.size() > 9)
            rows[fields[5]] = fields;
    }
    return rows;
}

std::string TextAt(const std::string &value) {
    return Ask("512|NoProcessing|getJavaString|" + value);
}

void ExpectRow(const Runner &runner, const std::vector<std::string> &row) {
    auto facts = runner.script->facts;
    const std::string &name = runner.info->name;
    if (facts.empty()) {
        EXPECT_EQ(row[9], "DB Wait") << name;
        return;
    }
    EXPECT_EQ(row[9], "DB Wait" + (DETAIL + facts["url"])) << name;
    EXPECT_EQ(row[10], facts["user"]) << name;
    EXPECT_EQ(row[11], facts["local port"]) << name;
    EXPECT_EQ(row[12], facts["remote port"]) << name;
    const bool isOwn = facts["peer"] == "127.0.0.1" && *OwnAddress(false) && name.find("wrapped") != 0;
    EXPECT_EQ(row[13], isOwn ? OwnAddress(false) : facts["peer"]) << name;
    EXPECT_EQ(TextAt(row[15]), facts.count("sql") ? facts["sql"] : NO_TEXT) << name;
}

void ExpectDatabases(const Scene &scene) {
    for (uint32_t request : {0x80, 0x100, 0x2000}) {
        auto rows = Rows(request);
        for (const Runner *runner : scene.runners) {
            rows[Key(*runner->info)].resize(20);
            ExpectRow(*runner, rows[Key(*runner->info)]);
        }
    }
    for (const Runner *runner : scene.runners) {
        auto facts = runner->script->facts;
        const std::string port = facts["local port"], key = Key(*runner->info);
        EXPECT_EQ(Ask("521|showstack|16384|ARG=x,0=" + (port.empty() ? "1" : port)),
                  port.empty() ? "Client Port not found on JVM" : runner->info->name + "|" + key);
        EXPECT_NE(Ask("521|showstack|512|ARG=x,1=" + key).find(port + FIELD + facts["remote port"]),
                  std::string::npos);
    }
}

// What was kept before a collection doesn't count after it: an address is another connection's, a klass
// another class's.
void StaleWhatIsKept() {
    for (int i = 0; i < db_info_index; i++)
        std::swap(DB_Info[i].connection, DB_Info[0].connection);
    ASSERT_GT(num_jdbc_versions, 0);
    for (int i = 0; i < num_jdbc_versions; i++) {
        jdbc_versions[i].version = QorJdbcForm(1 - jdbc_versions[i].version);
        for (QorFieldCell &cell : jdbc_versions[i].fieldCache)
            cell.offset += 8;
    }
}

} // namespace

TEST(DirectTiers, RowsNameTheDatabase) {
    WithScene("drivers", {}, [](Scene &scene) {
        ExpectDatabases(scene);
        const int known = db_info_index;
        Collect();
        StaleWhatIsKept();
        ExpectDatabases(scene);
        Collect({}, {"tessar/jdbc/driver/TessarStatement", "tessar/jdbc/driver/TessarConnection",
                     "ferrule/jdbc/tessar/TessarImplConnection"});
        ExpectDatabases(scene);
        EXPECT_EQ(db_info_index, known); // each has moved and is the same one
        // Two threads take over each other's connection, and keep their statements' texts.
        Object *one = scene.named["thin"], *other = scene.named["thin-prepared"];
        const Value connection = Get(one, "connection");
        Set(one, "connection", Get(other, "connection"));
        Set(other, "connection", connection);
        std::swap(scene.scripts[0].facts, scene.scripts[1].facts);
        std::swap(scene.scripts[0].facts["sql"], scene.scripts[1].facts["sql"]);
        ExpectDatabases(scene);
        const Word handle = reinterpret_cast<Word>(&one->address); // of no String
        for (const std::string value : {"0", "1", "x", "18446744073709551615", "-8"})
            EXPECT_EQ(TextAt(value), NO_TEXT);
        EXPECT_EQ(TextAt(std::to_string(handle)), NO_TEXT);
    });
}

TEST(DirectConnections, AgeInTheOrderOfTheirComing) {
    QorDirectConnection read = {};
    for (int i = 1; i <= 10000; i++) {
        read.localPort = i;
        insert_db_info(read);
        insert_db_info(read); // known
        EXPECT_EQ(db_info_index, std::min(i, 100));
        const auto isKept = [](int port) {
            return std::any_of(DB_Info, DB_Info + db_info_index,
                               [=](auto &one) { return int(one.localPort) == port; });
        };
        EXPECT_FALSE(isKept(i - 100));
        EXPECT_TRUE(isKept(std::max(i - 99, 1)));
    }
    QorDropConnectionList();
}

namespace {

const char *const KINDS[] = {"Entity_Object", "View_Object", "EL_Exp", "Groovy_Script"};

// What a row shows, and what the facts of its thread say of it: url, client, state, ejb, framework, server.
using Told = std::vector<std::string>;

// Three servers have the same classes.
bool IsLike(const std::string &server, const std::string &other) {
    const std::set<std::string> catalina = {"Tomcat", "JBoss", "GlassFish"};
    return server == other || (catalina.count(server) && catalina.count(other));
}

Told TruthOf(const Runner &runner, const std::string &server) {
    std::map<std::string, std::string> facts = runner.script->facts;
    if (facts["server"] != "" && !IsLike(facts["server"], server))
        facts.clear();
    const std::string url = facts["url"] + facts["jspx"];
    Told told = {
        url.empty() ? "^" : url, facts["client"].empty() ? "^" : facts["client"], "", facts["ejb"], "", ""};
    if (facts.count("rmi id"))
        told[2] = std::string("RMI Wait\x1c\x1b") + facts["rmi id"] + FIELD + facts["rmi port"] + FIELD +
                  facts["rmi address"] + FIELD + (facts.count("jndi") ? facts["jndi"] : "NA");
    for (const char *kind : KINDS)
        if (facts.count(kind)) {
            const bool groovy = kind[0] == 'G', object = kind[1] != 'L' && !groovy;
            told[4] = std::string(kind) + "->" + (groovy ? "charge" : facts[kind]) + FIELD +
                      (object ? "EntityImpl.java" : "^") + FIELD + (groovy ? facts[kind] : "^");
        }
    if (facts.count("client port"))
        told[5] = facts["client port"] + FIELD + facts["client address"];
    return told;
}

// The text between two others, "" when they aren't there.
std::string Between(const std::string &text, const std::string &start, const std::string &end) {
    const size_t at = text.find(start), from = at + start.size();
    return at == std::string::npos ? "" : text.substr(from, text.find(end, from) - from);
}

Told ReadRow(const std::string &record, const std::string &view) {
    std::vector<std::string> fields = Split(record.substr(0, record.find(SECTION)), FIELD);
    fields.resize(20);
    Told told = {
        fields[3], fields[4], "", Between(fields[6], " (", ")"), "", Between(view, "RMI Client\x1e", "\x1f")};
    if (fields[9].find("RMI Wait") == 0)
        told[2] = fields[9] + FIELD + fields[10] + FIELD + fields[11] + FIELD + fields[12];
    for (const std::string kind : KINDS)
        if (record.find(RECORD + kind) != std::string::npos)
            told[4] = kind + Between(record, RECORD + kind, "\x1e");
    return told;
}

} // namespace

// The same threads, in front of every server in turn.
TEST(DirectTiers, RowsShowWhatThreadsWorkFor) {
    WithScene("tiers", {}, [](Scene &scene) {
        for (const char *server :
             {"", "Ferrule", "QVS", "Tomcat", "JBoss", "SAP", "GlassFish", "Apache JServ"}) {
            strcpy(webserver, server);
            std::map<std::string, std::string> records;
            std::string *last = nullptr;
            for (const std::string &section : Split(Ask("857|showstack|32768"), SECTION)) {
                if (section.find("Thread Info Details") == 0)
                    last = &records[Split(section, FIELD)[5]];
                if (last)
                    *last += section + SECTION;
            }
            for (const Runner *runner : scene.runners) {
                const std::string view = Ask("585|showstack|512|ARG=x,1=" + Key(*runner->info));
                EXPECT_EQ(ReadRow(records[Key(*runner->info)], view), TruthOf(*runner, server))
                    << runner->info->name << " before " << server;
                auto facts = runner->script->facts;
                if (!facts.count("serves id"))
                    continue;
                EXPECT_EQ(Ask("521|showstack|16384|ARG=x,1=1,0=" + facts["serves id"]),
                          facts["server"] == server ? runner->info->name + "|" + Key(*runner->info)
                                                    : "RMI Call Id not found on server JVM");
            }
        }
    });
}

// The id of what a thread works for: by one server a text, by the other the text of the first attribute.
TEST(DirectTiers, FindContextIds) {
    WithScene("nothing", {}, [](Scene &scene) {
        SceneText text(&scene);
        text.Read(R"(
slots = java/util/HashMap#4("a"@1 "no context" "b"@3 ferrule/kernel/Slot{
  context=ferrule/workarea/WorkContext{contextId="ctx-1"}})
worker := ferrule/kernel/ExecThread{finalThreadStorage=ferrule/kernel/FinalThreadLocal$FinalThreadStorage{
  storage=[Ljava/lang/Object;(null ferrule/kernel/Holder{map=slots})}}
execution = tessar/dms/instrument/ExecutionContext{m_attMap,Ljava/util/Map;=java/util/HashMap#4("id"@2 "9,8,7")}
local := test/Thread{threadLocals=java/lang/ThreadLocal$ThreadLocalMap{
  table=[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;(null
  test/Entry{value,Ljava/lang/Object;="no context"} test/Entry{value=execution})}}
)");
        QorForgetPages();
        QorNoteSpaces();
        for (auto &[server, object, id] :
             {std::tuple<const char *, const char *, std::string>{"Ferrule", "worker", "ctx-1"},
              {"QVS", "local", "9,8,7"},
              {"Tomcat", "worker", ""}}) {
            char shown[64] = "";
            strcpy(webserver, server);
            const Word found = getContextId(scene.named[object]->address);
            EXPECT_EQ(found ? QorVmText(shown, sizeof shown, found) : "", id) << server;
        }
    });
}
