// What threads do in other tiers, as the agent tells it of their frames, compared with what the frames were
// made of.
#include "agent.h"
#include "objects.h"

#include "qorsettings.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "sunprint/report/frame_tiers.h"

#include <gtest/gtest.h>
#include <map>
#include <ostream>
#include <set>
#include <tuple>

using namespace simvm;

namespace {

const char FIELD = 29, RECORD = 30, SECTION = 31, DETAIL = 28;

std::string Key(const Runner &runner) {
    return std::to_string(getpid()) + "-" + std::to_string(runner.info->kernelId);
}

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

// On the main thread, with the agent started and the scene's threads at rest.
void OnScene(const std::string &name, const std::function<void(Scene &)> &body) {
    Options options;
    options.library = SIMVM_FOLDER "/server/libjvm.so";
    Boot(options);
    Scene scene;
    StageScene(name, &scene);
    Script main = MainScript();
    EmitScript(&main);
    RunHere("main", &main, [&] {
        ASSERT_EQ(StartAgent(), 0);
        body(scene);
        Ask("SHUTDOWN");
    });
    EndScene(&scene);
}

} // namespace

TEST(DirectTiers, RowsNameTheDatabase) {
    OnScene("drivers", [](Scene &scene) {
        for (uint32_t request : {0x80, 0x100, 0x2000}) {
            auto rows = Rows(request);
            for (const Runner *runner : scene.runners) {
                auto facts = runner->script->facts;
                std::vector<std::string> row = rows[Key(*runner)];
                row.resize(20);
                const std::string start = facts.empty() ? "DB Wait" : "DB Wait" + (DETAIL + facts["url"]);
                EXPECT_EQ(row[9], start) << runner->info->name << " " << request;
                if (facts.empty())
                    continue;
                EXPECT_EQ(row[10], facts["user"]) << runner->info->name;
                EXPECT_EQ(row[11], facts["local port"]) << runner->info->name;
                EXPECT_EQ(row[12], facts["remote port"]) << runner->info->name;
                EXPECT_EQ(Ask("512|NoProcessing|getJavaString|" + row[15]),
                          facts.count("sql") ? facts["sql"] : "Given Oop is Invalid on this JVM.");
                const std::string view = Ask("521|showstack|512|ARG=x,1=" + Key(*runner));
                EXPECT_NE(view.find(row[9] + FIELD + row[10] + FIELD + row[11] + FIELD), std::string::npos)
                    << view;
            }
        }
        for (const Runner *runner : scene.runners) {
            const std::string port = runner->script->facts["local port"];
            EXPECT_EQ(Ask("521|showstack|16384|ARG=x,0=" + (port.empty() ? "1" : port)),
                      port.empty() ? "Client Port not found on JVM"
                                   : runner->info->name + "|" + Key(*runner));
        }
    });
}

namespace {

// What the facts of a thread say of its row in a poll, and what the row says.
struct Shown {
    std::string url, client, state, ejb, framework, server;
    bool operator==(const Shown &other) const {
        return std::tie(url, client, state, ejb, framework, server) ==
               std::tie(other.url, other.client, other.state, other.ejb, other.framework, other.server);
    }
};
std::ostream &operator<<(std::ostream &out, const Shown &shown) {
    return out << shown.url << "; " << shown.client << "; " << shown.state << "; " << shown.ejb << "; "
               << shown.framework << "; " << shown.server;
}

// Three servers have the same classes.
bool IsLike(const std::string &server, const std::string &other) {
    const std::set<std::string> catalina = {"Tomcat", "JBoss", "GlassFish"};
    return server == other || (catalina.count(server) && catalina.count(other));
}

Shown TruthOf(const Runner &runner, const std::string &server) {
    std::map<std::string, std::string> facts = runner.script->facts;
    if (facts["server"] != "" && !IsLike(facts["server"], server))
        facts.clear();
    Shown shown = {facts["url"] + facts["jspx"], facts["client"], "", facts["ejb"], "", ""};
    for (std::string *text : {&shown.url, &shown.client})
        if (text->empty())
            *text = "^";
    if (facts.count("rmi id")) {
        const std::string name = facts.count("jndi") ? facts["jndi"] : "NA";
        shown.state = std::string("RMI Wait\x1c\x1b") + facts["rmi id"] + FIELD + facts["rmi port"] + FIELD +
                      facts["rmi address"] + FIELD + name;
    }
    for (const char *kind : {"Entity_Object", "View_Object", "EL_Exp", "Groovy_Script"})
        if (facts.count(kind)) {
            const bool groovy = kind[0] == 'G', object = kind[1] != 'L' && !groovy;
            shown.framework = std::string(kind) + "->" + (groovy ? "charge" : facts[kind]) + FIELD +
                              (object ? "EntityImpl.java" : "^") + FIELD + (groovy ? facts[kind] : "^");
        }
    if (facts.count("client port"))
        shown.server = facts["client port"] + FIELD + facts["client address"];
    return shown;
}

// The text between two others, "" when they aren't there.
std::string Between(const std::string &text, const std::string &start, const std::string &end) {
    const size_t at = text.find(start);
    return at == std::string::npos
               ? ""
               : text.substr(at + start.size(), text.find(end, at + start.size()) - at - start.size());
}

Shown Told(const std::string &record, const std::string &view) {
    std::vector<std::string> fields = Split(record.substr(0, record.find(SECTION)), FIELD);
    fields.resize(20);
    Shown shown = {
        fields[3], fields[4], "", Between(fields[6], " (", ")"), "", Between(view, "RMI Client\x1e", "\x1f")};
    if (fields[9].find("RMI Wait") == 0)
        shown.state = fields[9] + FIELD + fields[10] + FIELD + fields[11] + FIELD + fields[12];
    for (const char *kind : {"\x1e"
                             "Entity_Object",
                             "\x1eView_Object",
                             "\x1e"
                             "EL_Exp",
                             "\x1eGroovy_Script"})
        if (record.find(kind) != std::string::npos)
            shown.framework = (kind + 1) + Between(record, kind, "\x1e");
    return shown;
}

} // namespace

// The same threads, in front of every server in turn.
TEST(DirectTiers, RowsShowWhatThreadsWorkFor) {
    OnScene("tiers", [](Scene &scene) {
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
                const std::string view = Ask("585|showstack|512|ARG=x,1=" + Key(*runner));
                EXPECT_EQ(Told(records[Key(*runner)], view), TruthOf(*runner, server))
                    << runner->info->name << " before " << server;
                auto facts = runner->script->facts;
                if (!facts.count("serves id"))
                    continue;
                EXPECT_EQ(Ask("521|showstack|16384|ARG=x,1=1,0=" + facts["serves id"]),
                          facts["server"] == server ? runner->info->name + "|" + Key(*runner)
                                                    : "RMI Call Id not found on server JVM");
            }
        }
    });
}

namespace {

Object *ContextOf(const std::string &id) {
    Object *context = New("ferrule/workarea/WorkContext", {{"contextId", NewString(id)}});
    return New("ferrule/kernel/Slot", {{"context", context}});
}

} // namespace

// The id of what a thread works for: by one server a text, by the other the text of the first attribute.
TEST(DirectTiers, FindContextIds) {
    OnScene("shop", [](Scene &) {
        for (const char *line :
             {"ferrule/workarea/WorkContext contextId,Ljava/lang/String;",
              "ferrule/kernel/Slot context,Lferrule/workarea/WorkContext;",
              "ferrule/kernel/Holder map,Ljava/util/HashMap;",
              "ferrule/kernel/FinalThreadLocal$FinalThreadStorage storage,[Ljava/lang/Object;",
              "ferrule/kernel/ExecThread "
              "finalThreadStorage,Lferrule/kernel/FinalThreadLocal$FinalThreadStorage;",
              "tessar/dms/instrument/ExecutionContext m_attMap,Ljava/util/Map;",
              "test/Entry value,Ljava/lang/Object;",
              "java/lang/ThreadLocal$ThreadLocalMap table,[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;",
              "test/Thread threadLocals,Ljava/lang/ThreadLocal$ThreadLocalMap;"})
            DefineClass(line);
        Object *plain = NewString("no context"),
               *slots = NewTable("java/util/HashMap", 4,
                                 {{NewString("a"), plain, 1}, {NewString("b"), ContextOf("ctx-1"), 3}}),
               *storage =
                   New("ferrule/kernel/FinalThreadLocal$FinalThreadStorage",
                       {{"storage", NewElements("[Ljava/lang/Object;",
                                                {nullptr, New("ferrule/kernel/Holder", {{"map", slots}})})}}),
               *worker = New("ferrule/kernel/ExecThread", {{"finalThreadStorage", storage}});
        Object *attributes = NewTable("java/util/HashMap", 4, {{NewString("id"), NewString("9,8,7"), 2}}),
               *execution = New("tessar/dms/instrument/ExecutionContext", {{"m_attMap", attributes}}),
               *locals = New("java/lang/ThreadLocal$ThreadLocalMap",
                             {{"table", NewElements("[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;",
                                                    {nullptr, New("test/Entry", {{"value", plain}}),
                                                     New("test/Entry", {{"value", execution}})})}}),
               *thread = New("test/Thread", {{"threadLocals", locals}});
        QorForgetPages();
        QorNoteSpaces();
        char text[64];
        strcpy(webserver, "Ferrule");
        EXPECT_STREQ(QorVmText(text, sizeof text, getContextId(worker->address)), "ctx-1");
        strcpy(webserver, "QVS");
        EXPECT_STREQ(QorVmText(text, sizeof text, getContextId(thread->address)), "9,8,7");
        strcpy(webserver, "Tomcat");
        EXPECT_EQ(getContextId(worker->address), 0u);
    });
}
