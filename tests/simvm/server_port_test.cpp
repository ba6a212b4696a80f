// The port by which an application server's JVM is known, found in the objects of the scenes "servers".
#include "with_scene.h"

#include "direct/server_port.h"
#include "qorsettings.h"

#include <thread>

using namespace simvm;

namespace {

void ExpectName(const AgentStart &start, const std::string &name) {
    ASSERT_EQ(StartAgent(start), 0);
    EXPECT_EQ(ext_jvm_id_str, name) << start.server;
}

} // namespace

TEST(ServerPort, IsFoundByTheServersOwnObjects) {
    WithScene("servers", {}, [](Scene &scene) {
        ExpectName({"QVS", ""}, "20001");
        ExpectName({"Ferrule", "x"}, "20002");
        ExpectName({"SAP", "x"}, "20003");
        for (const char *server : {"", "Resin", "QVS"}) // what QVS was given is kept
            ExpectName({server, "given"}, "given");
        std::thread starter([&] { // a server that starts after the agent
            while (!serverAwaited)
                usleep(1000);
            ReadScene(&scene, R"(
thread Processor: WAIT i shop/Worker.run:21 @ ; i org/apache/tomcat/util/net/PoolTcpEndpoint.run:51 @{port=20005} ;
  n java/lang/Object.wait @
)");
        });
        ExpectName({"Tomcat", "x", 60}, "20005");
        starter.join();
    });
}
