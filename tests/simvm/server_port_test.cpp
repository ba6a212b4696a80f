// The port by which an application server's JVM is known, found in its objects.
#include "agent.h"
#include "objects.h"

#include "qoragent/requests/channel.h"
#include "qoragent/server_port.h"
#include "qoragent/worker.h"
#include "qorsettings.h"

#include <ctime>
#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <thread>

using namespace simvm;

namespace {

constexpr char TOMCAT[] = "org/apache/tomcat/util/net/PoolTcpEndpoint";

void DefineServers() {
    for (const char *line : {
             "java/net/SocketImpl localport,I",
             "java/net/PlainSocketImpl < java/net/SocketImpl port,I",
             "com/sun/net/ssl/internal/ssl/Impl < java/net/SocketImpl portToBind,I",
             "java/net/ServerSocket impl,Ljava/net/SocketImpl;",
             "java/net/SocketInputStream impl,Ljava/net/PlainSocketImpl;",
             "com/sun/net/ssl/internal/ssl/SSLServerSocketImpl < java/net/ServerSocket",
             "org/jboss/web/WebServer bind,I port,I",
             "org/jboss/web/OwnWebServer < org/jboss/web/WebServer port2,I",
             "org/apache/tomcat/util/net/PoolTcpEndpoint backlog,I port,I",
             "org/apache/jserv/JServ *listenSocket,Ljava/net/ServerSocket;",
             "ferrule/management/configuration/ServerMBean listenPort,I _ListenPort,I",
             "ferrule/management/Admin *localServer,Lferrule/management/configuration/ServerMBean;",
             "ferrule/servlet/internal/WebAppConfigManager "
             "*servermbean,Lferrule/management/configuration/ServerMBean;",
             "com/halcyon/server/http/HalcyonHttpServletRequest port,I",
             "com/halcyon/server/http/HalcyonPageContext "
             "halcyonRequest,Lcom/halcyon/server/http/HalcyonHttpServletRequest;",
             "com/halcyon/server/http/HalcyonJSPFactory *contexts,[Lcom/halcyon/server/http/"
             "HalcyonPageContext;",
             "com/halcyon/server/LumoServiceInfo port,I",
             "java/util/ArrayList elementData,[Ljava/lang/Object;",
             "com/halcyon/server/http/HttpServer listeners,Ljava/util/List;",
             "com/halcyon/server/ApplicationServer httpServer,Lcom/halcyon/server/http/HttpServer;",
             "com/halcyon/server/LumoMonitorThread *servicesList,Ljava/util/ArrayList; "
             "*appSrv,Lcom/halcyon/server/ApplicationServer;",
         })
        DefineClass(line);
}

void SetStaticOf(const char *type, const char *field, Value value) {
    SetStatic(FindClass(type), field, value);
}

// A thread in a method of that class, on that object.
struct Server {
    Script script;
    Runner *runner;
    Server(const std::string &thread, const std::string &type, Object *receiver) {
        script = {
            {{FrameKind::INTERPRETED, {{DefineMethod(type, "acceptSocket", "()V", {{0, 10}}), 0, receiver}}},
             {FrameKind::COMPILED,
              {{DefineMethod("java/lang/Object", "hold", "()V", {{0, 3}}), 8, nullptr}}}},
            Rest::PIPE};
        EmitScript(&script);
        runner = Start(thread, &script);
    }
    ~Server() { Leave(runner); }
};

// What the agent calls the JVM after a start, and what it logs meanwhile.
void ExpectName(const AgentStart &start, const std::string &name, const std::string &logged = "") {
    AgentStart logging = start;
    logging.log = 2;
    testing::internal::CaptureStderr();
    ASSERT_EQ(StartAgent(logging), 0);
    const std::string log = testing::internal::GetCapturedStderr();
    EXPECT_EQ(ext_jvm_id_str, name) << start.server << log;
    EXPECT_NE(log.find("<" + logged + (logged.empty() ? "" : ">")), std::string::npos) << log;
}

void ExpectChains() {
    ExpectName({"", "x"}, "x");
    ExpectName({"Resin", "x"}, "x");
    ExpectName({"Apache JServ", "x"}, "x", "NULL listenSocket in Ljava/net/ServerSocket;");
    Object *impl = New("java/net/PlainSocketImpl", {{"localport", 8007}});
    SetStaticOf("org/apache/jserv/JServ", "listenSocket", New("java/net/ServerSocket", {}));
    ExpectName({"Apache JServ", "x"}, "x", "NULL impl in Ljava/net/SocketImpl;");
    SetStaticOf("org/apache/jserv/JServ", "listenSocket", New("java/net/ServerSocket", {{"impl", impl}}));
    ExpectName({"Apache JServ", "x"}, "8007");

    ExpectName({"Ferrule", "x"}, "x", "DIAG NULL localServer in ferrule/management/Admin");
    SetStaticOf("ferrule/servlet/internal/WebAppConfigManager", "servermbean",
                New("ferrule/management/configuration/ServerMBean", {{"_ListenPort", 7002}}));
    ExpectName({"Ferrule", "x"}, "7002");
    SetStaticOf("ferrule/management/Admin", "localServer",
                New("ferrule/management/configuration/ServerMBean", {{"listenPort", 7001}}));
    ExpectName({"Ferrule", "x"}, "7001");
}

void ExpectQvs() {
    Object *wrong = New("java/lang/Object", {}),
           *right = New("com/halcyon/server/LumoServiceInfo", {{"port", 8300}});
    Object *list =
        New("java/util/ArrayList",
            {{"elementData", NewElements("[Ljava/lang/Object;", {wrong, nullptr, right, nullptr})}});
    Object *http = New("com/halcyon/server/http/HttpServer", {{"listeners", list}});
    ExpectName({"QVS", ""}, "", "NULL contexts in com/halcyon/server/http/HalcyonJSPFactory");
    SetStaticOf("com/halcyon/server/LumoMonitorThread", "appSrv",
                New("com/halcyon/server/ApplicationServer", {{"httpServer", http}}));
    ExpectName({"QVS", ""}, "8300", "No port in LumoServiceInfo[0]");
    Set(right, "port", 8301);
    SetStaticOf("com/halcyon/server/LumoMonitorThread", "servicesList", list);
    ExpectName({"QVS", ""}, "8301");
    Object *request = New("com/halcyon/server/http/HalcyonHttpServletRequest", {{"port", 8200}});
    Object *none = New("com/halcyon/server/http/HalcyonPageContext", {}),
           *one = New("com/halcyon/server/http/HalcyonPageContext", {{"halcyonRequest", request}});
    SetStaticOf("com/halcyon/server/http/HalcyonJSPFactory", "contexts",
                NewElements("[Lcom/halcyon/server/http/HalcyonPageContext;", {none, one}));
    ExpectName({"QVS", ""}, "8200", "NULL halcyonRequest in contexts[0]");
    ExpectName({"QVS", "given"}, "given");
}

void ExpectScans() {
    ExpectName({"JBoss", "x"}, "x");
    Object *ssl = New("com/sun/net/ssl/internal/ssl/Impl", {{"portToBind", 8181}});
    Object *socket = New("java/net/PlainSocketImpl", {{"port", 3300}, {"localport", 3301}});
    Object *stream = New("java/net/SocketInputStream", {{"impl", socket}});
    Server jboss("web", "org/jboss/web/WebServer", New("org/jboss/web/OwnWebServer", {{"port", 8083}}));
    Server glassfish("ssl", "com/sun/net/ssl/internal/ssl/SSLServerSocketImpl",
                     New("com/sun/net/ssl/internal/ssl/SSLServerSocketImpl", {{"impl", ssl}}));
    ExpectName({"JBoss", "x"}, "8083");
    ExpectName({"GlassFish", "x"}, "8181");
    Server unnamed("another", "java/net/PlainSocketImpl", socket);
    ExpectName({"SAP", "x"}, "x");
    {
        Server listener("SAP J2EE Engine MS Socket Listener", "java/net/SocketInputStream", stream);
        ExpectName({"SAP", "x"}, "3300");
    }
    Server elements("CM New Element Listner", "java/net/PlainSocketImpl", socket);
    ExpectName({"SAP", "x"}, "3301");
    Server zero("http-1", TOMCAT, New(TOMCAT, {{"port", 65536}}));
    ExpectName({"Tomcat", "x", 1}, "x", "Tomcat Port not Found in max retries");
    Server processor("http-2", TOMCAT, New(TOMCAT, {{"port", 8080}}));
    ExpectName({"Tomcat", "x", 1}, "8080",
               "Tomcat.main does not contain org.apache.catalina.core.StandardEngine");
}

} // namespace

class ServerPort : public testing::Test {
protected:
    void OnTheVm(const std::function<void()> &body) {
        Options options;
        options.library = SIMVM_FOLDER "/server/libjvm.so";
        Boot(options);
        Script main = MainScript();
        EmitScript(&main);
        RunHere("main", &main, [&] {
            DefineServers();
            body();
        });
    }
};

TEST_F(ServerPort, IsFoundByTheServersOwnObjects) {
    OnTheVm([] {
        ExpectName({"JBoss", "x"}, "x");
        ExpectChains();
        ExpectQvs();
        ExpectScans();
        Ask("SHUTDOWN");
    });
}

// A server that starts after its agent is waited for, until it is there, or the agent is asked to leave.
TEST_F(ServerPort, IsWaitedForWithinBounds) {
    OnTheVm([] {
        std::thread leaver([] {
            ThreadInfo *thread = NewThread("leaver");
            LinkThread(thread);
            while (!serverAwaited)
                usleep(1000);
            Java_qoragent_Agent_dataFromNative(EnvOf(thread), nullptr, NewText("SHUTDOWN"));
            UnlinkThread(thread);
        });
        const time_t before = time(nullptr);
        ASSERT_EQ(StartAgent({"Tomcat", "x", 3600}), 0);
        leaver.join();
        EXPECT_LT(time(nullptr) - before, 30);
        EXPECT_STREQ(ext_jvm_id_str, "x");
        while (QorWorkerLives()) // a hang is the test's time-out
            usleep(1000);

        std::unique_ptr<Server> late;
        std::thread starter([&late] {
            while (!serverAwaited)
                usleep(1000);
            late = std::make_unique<Server>("http", TOMCAT, New(TOMCAT, {{"port", 8081}}));
        });
        EXPECT_EQ(StartAgent({"Tomcat", "x", 60}), 0);
        starter.join();
        EXPECT_STREQ(ext_jvm_id_str, "8081");
        Ask("SHUTDOWN");
    });
}
