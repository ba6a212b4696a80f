// The application servers' objects that know the port, each on a socket that listens. Where a server keeps
// them in several ways, the scenes differ: each has one way that leads there.
#include "stage.h"

namespace simvm {

namespace {

const char CLASSES[] = R"(
let QVS com/halcyon/server
let PAGE $QVS/http/HalcyonPageContext
let MBEAN ferrule/management/configuration
class java/net/SocketImpl port,I localport,I
class java/net/PlainSocketImpl < java/net/SocketImpl timeout,I
class java/net/ServerSocket created,Z impl,Ljava/net/SocketImpl;
class java/net/SocketInputStream impl,Ljava/net/PlainSocketImpl;
class java/util/ArrayList elementData,[Ljava/lang/Object; size,I
class org/apache/jserv/JServ *verbose,Z *listenSocket,Ljava/net/ServerSocket;
class $QVS/http/HalcyonHttpServletRequest port,I
class $PAGE halcyonRequest,L$QVS/http/HalcyonHttpServletRequest;
class $QVS/http/HalcyonJSPFactory *contexts,[L$PAGE;
class org/apache/catalina/core/StandardEngine defaultHost,Ljava/lang/String;
class org/jboss/web/WebServer port,I
class org/apache/tomcat/util/net/PoolTcpEndpoint backlog,I port,I
let INFO $QVS/LumoServiceInfo
let LIST java/util/ArrayList{elementData=[Ljava/lang/Object;(null $INFO{name,Ljava/lang/String;=null port=0}
  $INFO{port=$QVS_PORT} $INFO{port=1}) size=4}
class ferrule/servlet/internal/WebAppConfigManager *servermbean,L$MBEAN/ServerMBean;
)";
const char FIRST[] = R"(
class $QVS/LumoMonitorThread
class ferrule/management/Admin *localServer,L$MBEAN/ServerMBean;
static $QVS/http/HalcyonJSPFactory.contexts = [L$PAGE;(null $PAGE
  $PAGE{halcyonRequest=$QVS/http/HalcyonHttpServletRequest}
  $PAGE{halcyonRequest=$QVS/http/HalcyonHttpServletRequest{port=$QVS_PORT}})
static ferrule/management/Admin.localServer = $MBEAN/ServerImpl{listenPort=$FERRULE_PORT}
static org/apache/jserv/JServ.listenSocket = java/net/ServerSocket{impl=
  java/net/PlainSocketImpl{localport=$JSERV_PORT}}
thread SAP J2EE Engine MS Socket Listener: WAIT run shop/Worker ; c java/net/SocketInputStream.read:51
  @{impl=java/net/PlainSocketImpl{port=$SAP_PORT localport=1}} ; n java/lang/Object.wait @
)";
const char LATER[] = R"(
class $QVS/LumoMonitorThread *servicesList,Ljava/util/ArrayList;
class ferrule/management/Admin *server,L$MBEAN/ServerMBean;
static $QVS/LumoMonitorThread.servicesList = $LIST
static ferrule/servlet/internal/WebAppConfigManager.servermbean = $MBEAN/LaterServerImpl{_ListenPort=$FERRULE_PORT}
thread CM New Element Listner: WAIT run shop/Worker ; c java/net/PlainSocketImpl.accept:51
  @{localport=$SAP_PORT port=2} ; n java/lang/Object.wait @
)";
const char LAST[] = R"(
class $QVS/LumoMonitorThread *appSrv,L$QVS/ApplicationServer;
static $QVS/LumoMonitorThread.appSrv = $QVS/ApplicationServer{httpServer=
  $QVS/http/HttpServer{listeners,Ljava/util/List;=$LIST}}
)";
// Threads whose frames have the objects. A port that can't be one isn't taken.
const char HOLDERS[] = R"(
let RESTS n java/lang/Object.wait @
thread WebServer: WAIT run shop/Worker ; c org/jboss/web/WebServer.run:51
  @org/jboss/web/OwnWebServer<org/jboss/web/WebServer{port=$JBOSS_PORT} ; $RESTS
thread SslServer: WAIT run shop/Worker ; c com/sun/net/ssl/internal/ssl/SSLServerSocketImpl.accept:51
  @com/sun/net/ssl/internal/ssl/SSLServerSocketImpl<java/net/ServerSocket{impl=
  com/sun/net/ssl/internal/ssl/SSLSocketImpl<java/net/SocketImpl{portToBind=$GLASSFISH_PORT}} ; $RESTS
thread another: WAIT run shop/Worker ; c java/net/PlainSocketImpl.accept:51 @{localport=3 port=4} ; $RESTS
thread http-1: WAIT run shop/Worker ; i org/apache/tomcat/util/net/PoolTcpEndpoint.run:51 @{port=65536} ; $RESTS
)";

} // namespace

void AddProcessor(Scene *scene) {
    SceneText text(scene);
    text.Let("PORT", std::to_string(scene->ports["Tomcat"]));
    text.Read(R"(
thread Processor: WAIT run shop/Worker ; i org/apache/tomcat/util/net/PoolTcpEndpoint.run:51 @{port=$PORT} ;
  n java/lang/Object.wait @
)");
}

void StageServers(const std::string &name, Scene *scene) {
    SceneText text(scene);
    for (const char *server : {"QVS", "Ferrule", "Apache JServ", "JBoss", "GlassFish", "SAP", "Tomcat"}) {
        std::string word = server;
        word = word == "Apache JServ" ? "JSERV" : word;
        for (char &letter : word)
            letter = char(toupper(letter));
        text.Let(word + "_PORT", std::to_string(scene->ports[server] = ListenOn(scene)));
    }
    for (const char *lines : {CLASSES,
                              name == "servers"         ? FIRST
                              : name == "servers-later" ? LATER
                                                        : LAST,
                              HOLDERS})
        text.Read(lines);
    if (name == "servers")
        AddProcessor(scene);
}

} // namespace simvm
