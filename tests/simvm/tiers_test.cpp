// What threads do in other tiers, as their rows show it, compared with what their frames were made of and
// with the sockets of their connections.
#include "with_scene.h"

#include "platforms/own_address.h"
#include "qorsettings.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "sunprint/report/connection_list.h"
#include "sunprint/report/frame_tiers.h"
#include "sunprint/report/jdbc_versions.h"

using namespace simvm;

namespace {

const char FIELD = 29, RECORD = 30, SECTION = 31, DETAIL = 28,
           NO_TEXT[] = "Given Oop is Invalid on this JVM.";

// The fields of each row of a sample, by key.
std::map<std::string, std::vector<std::string>> Rows(uint32_t request) {
    std::map<std::string, std::vector<std::string>> rows;
    for (const std::vector<std::string> &fields : Records(Ask("777|showstack|" + std::to_string(request))))
        if (fields.size() > 9)
            rows[fields[5]] = fields;
    return rows;
}

std::string TextAt(const std::string &value) {
    return Ask("512|NoProcessing|getJavaString|" + value);
}

void ExpectRow(const Runner &runner, const std::vector<std::string> &row) {
    auto facts = runner.script->facts;
    const std::string &name = runner.info->name;
    std::vector<std::string> wanted = {"DB Wait"};
    if (!facts.empty()) {
        const bool isOwn = *OwnAddress(false) && name.find("wrapped") != 0;
        wanted = {"DB Wait" + (DETAIL + facts["url"]), facts["user"], facts["local port"],
                  facts["remote port"], isOwn ? OwnAddress(false) : "127.0.0.1"};
        EXPECT_EQ(TextAt(row[15]), facts.count("sql") ? facts["sql"] : NO_TEXT) << name;
    }
    EXPECT_EQ(std::vector(row.begin() + 9, row.begin() + 9 + wanted.size()), wanted) << name;
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

// What the facts of a thread say of its row, by column.
std::vector<std::string> TruthOf(const Runner &runner, const std::string &server) {
    auto facts = runner.script->facts;
    if (!facts["server"].empty() && facts["server"] != server)
        facts.clear();
    facts.insert({{"url", "^"}, {"client", "^"}});
    std::vector<std::string> told;
    for (const char *column : {"url", "client", "wait", "ejb", "object", "caller"}) {
        told.push_back(facts[column]);
        std::replace(told.back().begin(), told.back().end(), '|', FIELD);
    }
    return told;
}

// The text between two others, "" when they aren't there.
std::string Between(const std::string &text, const std::string &start, const std::string &end) {
    const size_t at = text.find(start), from = at + start.size();
    return at == std::string::npos ? "" : text.substr(from, text.find(end, from) - from);
}

std::vector<std::string> ReadRow(const std::string &record, const std::string &view) {
    std::vector<std::string> fields = Split(record.substr(0, record.find(SECTION)), FIELD);
    fields.resize(20);
    std::string wait = Between(fields[9], "RMI Wait\x1c\x1b", "\x1f"), object;
    for (size_t i = 10; !wait.empty() && i < 13; i++)
        wait += FIELD + fields[i];
    for (const std::string kind : {"Entity_Object", "View_Object", "EL_Exp", "Groovy_Script"})
        if (record.find(RECORD + kind) != std::string::npos)
            object = kind + Between(record, RECORD + kind, "\x1e");
    return {fields[3], fields[4],
            wait,      Between(fields[6], " (", ")"),
            object,    Between(view, "RMI Client\x1e", "\x1f")};
}

} // namespace

TEST(DirectTiers, RowsNameTheDatabase) {
    WithScene("drivers", {}, [](Scene &scene) {
        ExpectDatabases(scene);
        const int known = db_info_index;
        Collect();
        StaleWhatIsKept();
        ExpectDatabases(scene);
        EXPECT_EQ(db_info_index, known); // each has moved and is the same one
        // Two threads take over each other's connection, and keep their statements' texts.
        Object *one = scene.named["thin"], *other = scene.named["prepared"];
        const Value connection = Get(one, "connection");
        Set(one, "connection", Get(other, "connection"));
        Set(other, "connection", connection);
        std::swap(scene.scripts[0].facts, scene.scripts[1].facts);
        std::swap(scene.scripts[0].facts["sql"], scene.scripts[1].facts["sql"]);
        ExpectDatabases(scene);
        const Word handle = Word(&one->address); // of no String
        EXPECT_EQ(TextAt(std::to_string(handle)), NO_TEXT);
    });
}

TEST(DirectConnections, AgeInTheOrderOfTheirComing) {
    QorDirectConnection read = {};
    for (read.localPort = 1; read.localPort <= 250; read.localPort++) {
        insert_db_info(read);
        insert_db_info(read); // known
    }
    std::set<int> kept;
    for (int at = 0; at < db_info_index; at++)
        kept.insert(int(DB_Info[at].localPort));
    EXPECT_EQ(kept.size(), 100u);
    EXPECT_EQ(*kept.begin(), 151);
    QorDropConnectionList();
}

// The same threads, in front of every server in turn.
TEST(DirectTiers, RowsShowWhatThreadsWorkFor) {
    WithScene("tiers", {}, [](Scene &scene) {
        for (const char *server : {"", "Ferrule", "QVS", "Tomcat", "Apache JServ"}) {
            strcpy(webserver, server);
            std::map<std::string, std::string> records;
            std::string *last = nullptr;
            for (const std::string &section : Split(Ask("857|showstack|32768"), SECTION)) {
                if (section.find("Thread Info Details") == 0)
                    last = &records[Split(section, FIELD)[5]];
                if (last)
                    *last += section + SECTION;
            }
            char id[64] = ""; // of what a thread works for
            if (const Word found = getContextId(scene.named["QVS thread"]->address))
                QorVmText(id, sizeof id, found);
            EXPECT_STREQ(id, strcmp(server, "QVS") ? "" : "9,8,7");
            for (const Runner *runner : scene.runners) {
                const std::string view = Ask("585|showstack|512|ARG=x,1=" + Key(*runner->info));
                EXPECT_EQ(ReadRow(records[Key(*runner->info)], view), TruthOf(*runner, server))
                    << runner->info->name << " before " << server;
                auto facts = runner->script->facts;
                if (!facts.count("serves"))
                    continue;
                EXPECT_EQ(Ask("521|showstack|16384|ARG=x,1=1,0=" + facts["serves"]),
                          facts["server"] == server ? runner->info->name + "|" + Key(*runner->info)
                                                    : "RMI Call Id not found on server JVM");
            }
        }
    });
}
