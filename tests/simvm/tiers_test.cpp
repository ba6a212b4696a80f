// What threads do in other tiers, as the agent tells it of their frames, compared with what the frames were
// made of.
#include "agent.h"

#include <gtest/gtest.h>
#include <map>

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
