// Threads that serve web requests and remote calls, wait for answers of them, or run a framework's objects;
// then the application servers' objects that know the port. A fact is a column of the thread's row, "|"
// between its fields, and holds when the agent was started for that thread's server; "" is any.
#include "scenes.h"

namespace simvm {

// Frames that a thread works for, which reads a file at the time; and those of one that waits for another
// server's answer. The peer's address has its top bit set: the field is negative.
const char TIERS[] = R"(
let WORKS PIPE "IO Wait" i shop/Worker.run:21 @
let READS c shop/Servlet.doGet:18 @ ; n java/io/FileInputStream.readBytes
let WAITS WAIT "RMI Wait" i shop/Worker.run:21 @
let WAITING n java/lang/Object.wait @
let PEER java/net/InetAddress{hostName="peer" address=-1062731513}
let KNOWN 7001|192.168.1.7

let KVO tessar/kvo/server
let SITES org/codehaus/groovy/runtime/callsite
class $KVO/ViewRowImpl
thread entity: $WORKS ; c $KVO/EntityImpl.doDML:71 @{mEbi=$KVO/EntityDefImpl{mObjName="Orders"}} ; $READS
  | object=Entity_Object->Orders|EntityImpl.java|^
thread attribute: $WORKS ; i $KVO/ViewRowImpl.setAttribute(I)V:73 @ %1
  %$KVO/ViewAttributeDefImpl{mDef=$KVO/RowDef{mObjName="OrdersRow"}} ; $READS | object=View_Object->OrdersRow|EntityImpl.java|^

class $SITES/CallSiteArray array,[L$SITES/CallSite;
class $SITES/AbstractCallSite index,I name,Ljava/lang/String; array,L$SITES/CallSiteArray;
sites = $SITES/CallSiteArray
second = $SITES/AbstractCallSite{index=1 name="charge" array=sites}
set sites.array = [L$SITES/CallSite;($SITES/AbstractCallSite{index=0 name="total" array=sites} second null)
lines = "def t = total(cart)\if (t > 0)\  charge(t)\return t\"
thread script: $WORKS ; i tessar/kvo/ExprEval.evaluate:75 @{mExprStr=lines} ;
  c shop/Script.run:76 > $SITES/AbstractCallSite.callCurrent:77 @second ; $READS | object=Groovy_Script->charge|^|3


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
execution = tessar/dms/instrument/ExecutionContext{m_attMap,Ljava/util/Map;=java/util/HashMap{
  table=[Ljava/util/HashMap$Entry;(null java/util/HashMap$Entry{key="id" value="9,8,7"})}}
QVS thread := test/Thread{threadLocals=java/lang/ThreadLocal$ThreadLocalMap{
  table=[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;(null
  test/Entry{value,Ljava/lang/Object;="no context"} test/Entry{value=execution})}}

# The servlet's frame with the server's request as its first argument.
let SERVES $WORKS ; i javax/servlet/http/HttpServlet.service(Ljavax/servlet/ServletRequest;)V:90 @
thread qvs bytes: $SERVES %com/halcyon/server/http/HalcyonHttpServletRequest{requestURI=
  com/halcyon/util/ByteString{data=[B(63 63 63 63 63 63 63 63 63 63 47 113 118 115 47 98 121 116 101 115) offset=5
  length=10}} ; $READS | server=QVS; url=/qvs/bytes
thread tomcat: $SERVES %org/apache/catalina/connector/RequestFacade{request=
  org/apache/catalina/connector/Request{requestDispatcherPath,Ljava/lang/Object;=
  org/apache/tomcat/util/buf/MessageBytes{strValue="/tomcat/path"}}} ; $READS | server=Tomcat; url=/tomcat/path
let ENTRY java/util/Hashtable$Entry
let PROCESSES $WORKS ; i org/apache/jserv/JServConnection.processRequest:92 @{env_vars=java/util/Hashtable
thread jserv: $PROCESSES{table=[L$ENTRY;($ENTRY{key="HOST" value="shop" next=$ENTRY{key="REQUEST_URI" value="/jserv"}}
  $ENTRY{key="REMOTE_ADDR" value="10.0.0.6"})}} ; $READS | server=Apache JServ; url=/jserv; client=10.0.0.6
ring = $ENTRY{key="NEITHER" value="one"}
set ring.next = ring
thread jserv ring: $PROCESSES{table=[L$ENTRY;(ring)}} ; $READS | server=Apache JServ
)";

// The application servers' objects that know the port. A port that can't be one isn't taken.
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
class org/apache/tomcat/util/net/PoolTcpEndpoint backlog,I port,I
class ferrule/management/Admin *server,L$MBEAN/ServerMBean;
class ferrule/servlet/internal/WebAppConfigManager *servermbean,L$MBEAN/ServerMBean;
static $QVS/http/HalcyonJSPFactory.contexts = [L$PAGE;(null $PAGE
  $PAGE{halcyonRequest=$QVS/http/HalcyonHttpServletRequest}
  $PAGE{halcyonRequest=$QVS/http/HalcyonHttpServletRequest{port=20001}})
static ferrule/servlet/internal/WebAppConfigManager.servermbean = $MBEAN/LaterServerImpl{_ListenPort=20002}
let RESTS n java/lang/Object.wait @
thread SAP J2EE Engine MS Socket Listener: WAIT i shop/Worker.run:21 @ ; c java/net/SocketInputStream.read:51
  @{impl=java/net/PlainSocketImpl{port=20003 localport=1}} ; $RESTS
thread http-1: WAIT i shop/Worker.run:21 @ ; i org/apache/tomcat/util/net/PoolTcpEndpoint.run:51 @{port=65536} ; $RESTS
)";

} // namespace simvm
