// The application servers' objects that know the port, each on a socket that listens. Where a server keeps
// them in several ways, the scenes differ: each has one way that leads there.
#include "stage.h"

#include <unistd.h>

namespace simvm {

namespace {

const char *const CLASSES[] = {
    "java/net/SocketImpl port,I localport,I",
    "java/net/PlainSocketImpl < java/net/SocketImpl timeout,I",
    "java/net/ServerSocket created,Z impl,Ljava/net/SocketImpl;",
    "java/net/SocketInputStream impl,Ljava/net/PlainSocketImpl;",
    "java/util/ArrayList elementData,[Ljava/lang/Object; size,I",
    "org/apache/jserv/JServ *verbose,Z *listenSocket,Ljava/net/ServerSocket;",
    "com/halcyon/server/http/HalcyonHttpServletRequest port,I",
    "com/halcyon/server/http/HalcyonPageContext "
    "halcyonRequest,Lcom/halcyon/server/http/HalcyonHttpServletRequest;",
    "com/halcyon/server/http/HalcyonJSPFactory *contexts,[Lcom/halcyon/server/http/HalcyonPageContext;",
    "com/halcyon/server/LumoServiceInfo name,Ljava/lang/String; port,I",
    "com/halcyon/server/http/HttpServer listeners,Ljava/util/List;",
    "com/halcyon/server/ApplicationServer httpServer,Lcom/halcyon/server/http/HttpServer;",
    "ferrule/management/configuration/ServerImpl listenPort,I",
    "ferrule/management/configuration/LaterServerImpl _ListenPort,I",
    "org/jboss/web/WebServer port,I",
    "com/sun/net/ssl/internal/ssl/SSLSocketImpl < java/net/SocketImpl portToBind,I",
    "com/sun/net/ssl/internal/ssl/SSLServerSocketImpl < java/net/ServerSocket",
    "org/apache/tomcat/util/net/PoolTcpEndpoint backlog,I port,I",
    "org/apache/catalina/core/StandardEngine defaultHost,Ljava/lang/String;",
};
const char *const FIRST[] = {
    "com/halcyon/server/LumoMonitorThread",
    "ferrule/management/Admin *localServer,Lferrule/management/configuration/ServerMBean;",
    "ferrule/servlet/internal/WebAppConfigManager "
    "*servermbean,Lferrule/management/configuration/ServerMBean;"};
const char *const LATER[] = {
    "com/halcyon/server/LumoMonitorThread *servicesList,Ljava/util/ArrayList;",
    "ferrule/management/Admin *server,Lferrule/management/configuration/ServerMBean;",
    "ferrule/servlet/internal/WebAppConfigManager "
    "*servermbean,Lferrule/management/configuration/ServerMBean;"};
const char *const LAST[] = {
    "com/halcyon/server/LumoMonitorThread *appSrv,Lcom/halcyon/server/ApplicationServer;"};

int32_t Listen(Scene *scene, const std::string &server) {
    int32_t port = ListenOn(scene);
    scene->ports[server] = port;
    return port;
}

Object *NewList(int32_t port) {
    auto service = [](int32_t at) { return New("com/halcyon/server/LumoServiceInfo", {{"port", at}}); };
    Object *elements = NewElements("[Ljava/lang/Object;", {nullptr, service(0), service(port), service(1)});
    return New("java/util/ArrayList", {{"elementData", elements}, {"size", 4}});
}

void SetFirst(Scene *scene) {
    Object *request =
               New("com/halcyon/server/http/HalcyonHttpServletRequest", {{"port", Listen(scene, "QVS")}}),
           *idle = New("com/halcyon/server/http/HalcyonHttpServletRequest", {});
    auto page = [](Object *of) {
        return New("com/halcyon/server/http/HalcyonPageContext", {{"halcyonRequest", of}});
    };
    SetStatic(FindClass("com/halcyon/server/http/HalcyonJSPFactory"), "contexts",
              NewElements("[Lcom/halcyon/server/http/HalcyonPageContext;",
                          {nullptr, page(nullptr), page(idle), page(request)}));
    SetStatic(FindClass("ferrule/management/Admin"), "localServer",
              New("ferrule/management/configuration/ServerImpl", {{"listenPort", Listen(scene, "Ferrule")}}));
    Object *impl = New("java/net/PlainSocketImpl", {{"localport", Listen(scene, "Apache JServ")}});
    SetStatic(FindClass("org/apache/jserv/JServ"), "listenSocket",
              New("java/net/ServerSocket", {{"impl", impl}}));
}

void SetLater(Scene *scene) {
    SetStatic(FindClass("com/halcyon/server/LumoMonitorThread"), "servicesList",
              NewList(Listen(scene, "QVS")));
    SetStatic(
        FindClass("ferrule/servlet/internal/WebAppConfigManager"), "servermbean",
        New("ferrule/management/configuration/LaterServerImpl", {{"_ListenPort", Listen(scene, "Ferrule")}}));
}

void SetLast(Scene *scene) {
    Object *http = New("com/halcyon/server/http/HttpServer", {{"listeners", NewList(Listen(scene, "QVS"))}});
    SetStatic(FindClass("com/halcyon/server/LumoMonitorThread"), "appSrv",
              New("com/halcyon/server/ApplicationServer", {{"httpServer", http}}));
}

// A thread whose frame has that object.
void AddHolder(Scene *scene, const std::string &thread, const char *method, Object *object) {
    Add(scene, thread,
        {Run("shop/Worker"),
         {F::COMPILED, {In(object->type->name, method, 51, object)}},
         {F::NATIVE, {Native("java/lang/Object", "wait", NewObject("java/lang/Object"))}}},
        Rest::WAIT);
}

void AddHolders(Scene *scene) {
    AddHolder(scene, "WebServer", "run", New("org/jboss/web/WebServer", {{"port", Listen(scene, "JBoss")}}));
    AddHolder(scene, "SslServer", "accept",
              New("com/sun/net/ssl/internal/ssl/SSLServerSocketImpl",
                  {{"impl", New("com/sun/net/ssl/internal/ssl/SSLSocketImpl",
                                {{"portToBind", Listen(scene, "GlassFish")}})}}));
    int32_t sap = Listen(scene, "SAP");
    AddHolder(scene, "SAP J2EE Engine MS Socket Listener", "read",
              New("java/net/SocketInputStream",
                  {{"impl", New("java/net/PlainSocketImpl", {{"port", sap}, {"localport", 1}})}}));
    AddHolder(scene, "CM New Element Listner", "accept",
              New("java/net/PlainSocketImpl", {{"localport", sap}, {"port", 2}}));
    AddHolder(scene, "another", "accept", New("java/net/PlainSocketImpl", {{"localport", 3}, {"port", 4}}));
}

} // namespace

void AddProcessor(Scene *scene) {
    AddHolder(scene, "Processor", "run",
              New("org/apache/tomcat/util/net/PoolTcpEndpoint", {{"port", scene->ports["Tomcat"]}}));
}

void StageServers(const std::string &name, Scene *scene) {
    for (const char *line : CLASSES)
        DefineClass(line);
    if (name == "servers-last") {
        DefineClass(LAST[0]);
        return SetLast(scene);
    }
    bool later = name == "servers-later";
    for (int i = 0; i < 3; i++)
        DefineClass(later ? LATER[i] : FIRST[i]);
    later ? SetLater(scene) : SetFirst(scene);
    AddHolders(scene);
    Listen(scene, "Tomcat");
    if (name == "servers")
        AddProcessor(scene);
    else if (name == "servers-late")
        scene->helper = std::thread([scene] {
            sleep(4); // looks come after 0, 2 and 6 seconds
            AddProcessor(scene);
        });
}

} // namespace simvm
