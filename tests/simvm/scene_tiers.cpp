// Threads that serve web requests and remote calls, wait for answers of them, or run a framework's objects;
// then the application servers' objects that know the port. A fact is a column of the thread's row, "|"
// between its fields, and holds when the agent was started for that thread's server; "" is any.
#include "scenes.h"

namespace simvm {

namespace {

// Frames that a thread works for, which reads a file at the time; and those of one that waits for another
// server's answer. The peer's address has its top bit set: the field is negative.
const char TIERS[] = R"(
let WORKS PIPE "IO Wait" run shop/Worker
let READS c shop/Servlet.doGet:18 @ ; n java/io/FileInputStream.readBytes
let WAITS WAIT "RMI Wait" run shop/Worker
let WAITING n java/lang/Object.wait @
let PEER java/net/InetAddress{hostName="peer" address=-1062731513}
let KNOWN 7001|192.168.1.7

let KVO tessar/kvo/server
let SITES org/codehaus/groovy/runtime/callsite
class $KVO/ViewRowImpl
thread entity: $WORKS ; c $KVO/EntityImpl.doDML:71 @{mEbi=$KVO/EntityDefImpl{mObjName="Orders"}} ; $READS
  | server=; object=Entity_Object->Orders|EntityImpl.java|^
thread attribute: $WORKS ; i $KVO/ViewRowImpl.setAttribute(I)V:73 @ %1
  %$KVO/ViewAttributeDefImpl{mDef=$KVO/RowDef{mObjName="OrdersRow"}} ; $READS | server=; object=View_Object->OrdersRow|EntityImpl.java|^

class $SITES/CallSiteArray array,[L$SITES/CallSite;
class $SITES/AbstractCallSite index,I name,Ljava/lang/String; array,L$SITES/CallSiteArray;
sites = $SITES/CallSiteArray
second = $SITES/AbstractCallSite{index=1 name="charge" array=sites}
set sites.array = [L$SITES/CallSite;($SITES/AbstractCallSite{index=0 name="total" array=sites} second null)
lines = "def t = total(cart)\nif (t > 0)\n  charge(t)\nreturn t\n"
thread script: $WORKS ; i tessar/kvo/ExprEval.evaluate:75 @{mExprStr=lines} ;
  c shop/Script.run:76 > $SITES/AbstractCallSite.callCurrent:77 @second ; $READS | server=; object=Groovy_Script->charge|^|3


let RMI ferrule/rmi
let RJVM ferrule/rjvm
rjvm = $RJVM/RJVMImpl{remoteChannel,L$RMI/spi/Channel;=$RJVM/ChannelImpl{port=7001
  address=java/net/InetSocketAddress{hostname,Ljava/lang/String;=null addr=$PEER port=7001}}
  port=7001 addr=$PEER}
class $RJVM/ResponseImpl id,I rjvm,L$RJVM/RJVM;
thread caller: $WAITS ; c $RMI/cluster/ClusterableRemoteRef.invoke:81 @{replicaHandler,L$RMI/cluster/ReplicaHandler;=
  $RMI/cluster/BasicReplicaHandler{jndiName="shop.Pricing"}} > $RJVM/ResponseImpl.waitForData:82
  @{id=4242 rjvm=rjvm} ; $WAITING | server=Ferrule; wait=4242|$KNOWN|shop.Pricing
thread callee: $WORKS ; c $RMI/internal/frl/FRLExecuteRequest.run:83 @{request,L$RMI/spi/InboundRequest;=
  $RMI/internal/ServerRequest{responseId=4244 connectionManager=$RJVM/ConnectionManager{
  thisRJVM,L$RJVM/RJVM;=rjvm}}} ; $READS | server=Ferrule; serves=4244; caller=$KNOWN

let WEB ferrule/servlet/internal
thread ferrule run: $WORKS ; c $WEB/ServletRequestImpl.run:91 @{originalURI="/ferrule/run"
  connection=$WEB/VirtualConnection{remoteAddr="10.0.0.5"}} ; $READS | server=Ferrule; url=/ferrule/run; client=10.0.0.5

let QVS com/halcyon/server
let CALL L$QVS/rmi/RmiCall;
call = $QVS/rmi/RmiCall{id=5151 name="price" clazz="shop.Pricing"}
connection = $QVS/rmi/RMIClientConnection{m_transport=$QVS/rmi/Transport{m_port=7001 m_address=$PEER}}
thread client: $WAITS ; i $QVS/rmi/RMIClientConnection.obtainRemoteMethodResponse(I$CALL)V:84 @connection %9 %call ;
  i $QVS/rmi/RMIClientConnection.waitForResponseFromServer($CALL)V:85 @connection %call ; $WAITING
  | server=QVS; wait=5151|$KNOWN|NA; ejb=shop.Pricing->price

# The servlet's frame with the server's request as its first argument.
let SERVES $WORKS ; i javax/servlet/http/HttpServlet.service(Ljavax/servlet/ServletRequest;)V:90 @
thread qvs bytes: $SERVES %com/halcyon/server/http/HalcyonHttpServletRequest{requestURI=
  com/halcyon/util/ByteString{data=[B(63 63 63 63 63 63 63 63 63 63 47 113 118 115 47 98 121 116 101 115) offset=5
  length=10}} ; $READS | server=QVS; url=/qvs/bytes
thread tomcat: $SERVES %org/apache/catalina/connector/RequestFacade{request=
  org/apache/catalina/connector/Request{requestDispatcherPath,Ljava/lang/Object;=
  org/apache/tomcat/util/buf/MessageBytes{strValue="/tomcat/path"}}} ; $READS | server=Tomcat; url=/tomcat/path
thread jboss: $SERVES %shop/RequestWrapper{request,Ljavax/servlet/ServletRequest;=shop/WrappedRequest{
  servletPath="/wrapped"}} ; $READS | server=JBoss; url=/wrapped
class org/apache/jserv/JServConnection env_vars,Ljava/util/Hashtable;
thread jserv: $WORKS ; i org/apache/jserv/JServConnection.processRequest:92 @{env_vars=java/util/Hashtable#3(
  "REQUEST_URI" "/jserv" "REMOTE_ADDR" "10.0.0.6" "HOST" "shop")} ; $READS
  | server=Apache JServ; url=/jserv; client=10.0.0.6
thread jserv ring: $WORKS ; i org/apache/jserv/JServConnection.processRequest:92 @{env_vars=java/util/Hashtable#1!(
  "NEITHER" "one" "NOR" "other")} ; $READS | server=Apache JServ
)";

} // namespace

void StageTiers(Scene *scene) {
    SceneText(scene).Read(TIERS);
}

// The application servers' objects that know the port.

namespace {

// A port that can't be one isn't taken.
const char SERVERS[] = R"(
let QVS com/halcyon/server
let PAGE $QVS/http/HalcyonPageContext
let MBEAN ferrule/management/configuration
class java/net/PlainSocketImpl port,I localport,I
class java/net/SocketInputStream impl,Ljava/net/PlainSocketImpl;
class $QVS/http/HalcyonHttpServletRequest port,I
class $PAGE halcyonRequest,L$QVS/http/HalcyonHttpServletRequest;
class $QVS/http/HalcyonJSPFactory *contexts,[L$PAGE;
class $QVS/LumoMonitorThread
class org/jboss/web/WebServer port,I
class org/apache/tomcat/util/net/PoolTcpEndpoint backlog,I port,I
class ferrule/management/Admin *server,L$MBEAN/ServerMBean;
class ferrule/servlet/internal/WebAppConfigManager *servermbean,L$MBEAN/ServerMBean;
static $QVS/http/HalcyonJSPFactory.contexts = [L$PAGE;(null $PAGE
  $PAGE{halcyonRequest=$QVS/http/HalcyonHttpServletRequest}
  $PAGE{halcyonRequest=$QVS/http/HalcyonHttpServletRequest{port=$QVS_PORT}})
static ferrule/servlet/internal/WebAppConfigManager.servermbean = $MBEAN/LaterServerImpl{_ListenPort=$Ferrule_PORT}
let RESTS n java/lang/Object.wait @
thread SAP J2EE Engine MS Socket Listener: WAIT run shop/Worker ; c java/net/SocketInputStream.read:51
  @{impl=java/net/PlainSocketImpl{port=$SAP_PORT localport=1}} ; $RESTS
thread WebServer: WAIT run shop/Worker ; c org/jboss/web/WebServer.run:51
  @org/jboss/web/OwnWebServer<org/jboss/web/WebServer{port=$JBoss_PORT} ; $RESTS
thread http-1: WAIT run shop/Worker ; i org/apache/tomcat/util/net/PoolTcpEndpoint.run:51 @{port=65536} ; $RESTS
)";

} // namespace

void StageServers(Scene *scene) {
    SceneText text(scene);
    int32_t port = 20000;
    for (const std::string server : {"QVS", "Ferrule", "JBoss", "SAP"})
        text.Let(server + "_PORT", std::to_string(scene->ports[server] = ++port));
    text.Read(SERVERS);
}

} // namespace simvm
