// The port by which an application server's JVM is known, found in the objects of the scenes "servers".
#include "with_scene.h"

#include "qoragent/requests/channel.h"
#include "qoragent/server_port.h"
#include "qorsettings.h"

#include <ctime>
#include <thread>

using namespace simvm;

namespace {

struct Case {
    const char *scene;
    std::vector<std::string> known; // servers whose port is found in it
};
const Case CASES[] = {{"servers", {"QVS", "Ferrule", "JBoss", "SAP", "Tomcat"}},
                      {"servers-later", {"QVS", "Ferrule", "JBoss"}}};
class ServerPort : public testing::TestWithParam<Case> {};

void ExpectName(const AgentStart &start, const std::string &name) {
    ASSERT_EQ(StartAgent(start), 0);
    EXPECT_EQ(ext_jvm_id_str, name) << start.server;
}

} // namespace

TEST_P(ServerPort, IsFoundByTheServersOwnObjects) {
    WithScene(GetParam().scene, {}, [](Scene &scene) {
        const std::vector<std::string> &known = GetParam().known;
        for (auto &[server, port] : scene.ports) {
            const std::string given = server == "QVS" ? "" : "x"; // what QVS was given is kept
            const bool isKnown = std::count(known.begin(), known.end(), server) != 0;
            ExpectName({server, given}, isKnown ? std::to_string(port) : given);
        }
        for (const char *server : {"", "Resin", "QVS"})
            ExpectName({server, "given"}, "given");
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, ServerPort, testing::ValuesIn(CASES));

// A server that starts after its agent is waited for, until it is there, or the agent is asked to leave.
TEST(LateServer, IsWaitedForWithinBounds) {
    WithScene("servers-later", {}, [](Scene &scene) {
        std::thread leaver([] {
            const Attached self("leaver");
            while (!serverAwaited)
                usleep(1000);
            Java_qoragent_Agent_dataFromNative(EnvOf(self.info), nullptr, NewText("SHUTDOWN"));
        });
        const time_t before = time(nullptr);
        ExpectName({"Tomcat", "x", 3600}, "x");
        leaver.join();
        EXPECT_LT(time(nullptr) - before, 30);
        while (QorWorkerLives())
            usleep(1000);
        std::thread starter([&] {
            while (!serverAwaited)
                usleep(1000);
            AddProcessor(&scene);
        });
        ExpectName({"Tomcat", "x", 60}, std::to_string(scene.ports["Tomcat"]));
        starter.join();
    });
}
