// Threads that serve web requests and remote calls, wait for answers of them, or run a framework's objects.
// A fact, and the state "RMI Wait", holds when the agent was started for that thread's server; "" is any.
#include "stage.h"

namespace simvm {

namespace {

// Frames that a thread works for, which reads a file at the time; and those of one that waits for another
// server's answer. The peer's address has its top bit set: the field is negative.
const char COMMON[] = R"(
let WORKS PIPE "IO Wait" run shop/Worker
let READS c shop/Servlet.doGet:18 @ ; n java/io/FileInputStream.readBytes
let WAITS WAIT "RMI Wait" run shop/Worker
let WAITING n java/lang/Object.wait @
let PEER java/net/InetAddress{hostName="peer" address=-1062731513}
let KNOWN rmi port=7001; rmi address=192.168.1.7
let CALLED client port=7001; client address=192.168.1.7
)";

const char FRAMEWORK[] = R"(
let KVO tessar/kvo/server
let QRF tessar/qrfinternal
let SITES org/codehaus/groovy/runtime/callsite
class $KVO/ViewRowImpl
thread entity: $WORKS ; c $KVO/EntityImpl.doDML:71 @{mEbi=$KVO/EntityDefImpl{mObjName="Orders"}} ; $READS
  | server=; Entity_Object=Orders
thread view: $WORKS ; i $KVO/ViewObjectImpl.getQueryHitCount:72 @{mViewDef=$KVO/ViewDefImpl{
  mObjName="OrdersView"}} ; $READS | server=; View_Object=OrdersView
thread attribute: $WORKS ; i $KVO/ViewRowImpl.setAttribute(I)V:73 @ %1
  %$KVO/ViewAttributeDefImpl{mDef=$KVO/RowDef{mObjName="OrdersRow"}} ; $READS | server=; View_Object=OrdersRow
thread expression: $WORKS ; c com/sun/el/ValueExpressionImpl.getValue:74 @{expr="#{cart.total}"} ; $READS
  | server=; EL_Exp=#{cart.total}

class $SITES/CallSiteArray array,[L$SITES/CallSite;
class $SITES/AbstractCallSite index,I name,Ljava/lang/String; array,L$SITES/CallSiteArray;
sites = $SITES/CallSiteArray
second = $SITES/AbstractCallSite{index=1 name="charge" array=sites}
set sites.array = [L$SITES/CallSite;($SITES/AbstractCallSite{index=0 name="total" array=sites} second null)
thread script: $WORKS ; i tessar/kvo/ExprEval.evaluate:75 @{mExprStr=lines} ;
  c shop/Script.run:76 > $SITES/AbstractCallSite.callCurrent:77 @second ; $READS | server=; Groovy_Script=3

thread page: $WORKS ; i $QRF/controller/engine/ControlFlowEngine.performControlFlow:78 @ %2
  %$QRF/controller/state/ChildViewPortContextImpl{
  mParent=$QRF/controller/state/ViewPortContextImpl{mCachedPhysicalUri="/pages/cart.jspx"}} ; $READS
  | server=; jspx=/pages/cart.jspx
thread filter: $WORKS ; i $QRF/view/faces/activedata/AdsFilter.doFilter:79 @
  %ferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper{request,Ljavax/servlet/ServletRequest;=
  shop/WrappedRequest{servletPath="/pages/order.jspx"}} ; $READS | server=; jspx=/pages/order.jspx
)";

const char FERRULE[] = R"(
let RMI ferrule/rmi
let RJVM ferrule/rjvm
rjvm = $RJVM/RJVMImpl{remoteChannel,L$RMI/spi/Channel;=$RJVM/ChannelImpl{port=7001
  address=java/net/InetSocketAddress{hostname,Ljava/lang/String;=null addr=$PEER port=7001}}
  port=7001 addr=$PEER}
class $RJVM/ResponseImpl id,I rjvm,L$RJVM/RJVM;
thread caller: $WAITS ; c $RMI/cluster/ClusterableRemoteRef.invoke:81 @{replicaHandler,L$RMI/cluster/ReplicaHandler;=
  $RMI/cluster/BasicReplicaHandler{jndiName="shop.Pricing"}} > $RJVM/ResponseImpl.waitForData:82
  @{id=4242 rjvm=rjvm} ; $WAITING | server=Ferrule; rmi id=4242; jndi=shop.Pricing; $KNOWN
thread caller without name: $WAITS ; i $RJVM/ResponseImpl.waitForData:82 @{id=4243 rjvm=rjvm} ; $WAITING
  | server=Ferrule; rmi id=4243; jndi=NA; $KNOWN
thread callee: $WORKS ; c $RMI/internal/frl/FRLExecuteRequest.run:83 @{request,L$RMI/spi/InboundRequest;=
  $RMI/internal/ServerRequest{responseId=4244 connectionManager=$RJVM/ConnectionManager{
  thisRJVM,L$RJVM/RJVM;=rjvm}}} ; $READS | server=Ferrule; serves id=4244; $CALLED

let WEB ferrule/servlet/internal
let FROM connection=$WEB/VirtualConnection{remoteAddr="10.0.0.5"}
thread ferrule run: $WORKS ; c $WEB/ServletRequestImpl.run:91 @{originalURI="/ferrule/run"
  servletPath="/ferrule/run" $FROM} ; $READS | server=Ferrule; url=/ferrule/run; client=10.0.0.5
thread ferrule execute: $WORKS ; c $WEB/ServletRequestImpl.execute:91 @{originalURI="/ferrule/execute"
  servletPath="/ferrule/execute" $FROM} ; $READS | server=Ferrule; url=/ferrule/execute; client=10.0.0.5
)";

const char HALCYON[] = R"(
let QVS com/halcyon/server
let CALL L$QVS/rmi/RmiCall;
call = $QVS/rmi/RmiCall{id=5151 name="price" clazz="shop.Pricing"}
connection = $QVS/rmi/RMIClientConnection{m_transport=$QVS/rmi/Transport{m_port=7001 m_address=$PEER}}
thread client: $WAITS ; i $QVS/rmi/RMIClientConnection.obtainRemoteMethodResponse(I$CALL)V:84 @connection %9 %call ;
  i $QVS/rmi/RMIClientConnection.waitForResponseFromServer($CALL)V:85 @connection %call ; $WAITING
  | server=QVS; rmi id=5151; ejb=shop.Pricing->price; $KNOWN
thread served: $WORKS ; c $QVS/rmi/RmiMethodCall.run:86 @{m_callId=5152 m_addressContainer=
  com/halcyon/net/AddressContainer{socket=java/net/Socket{impl=java/net/SocketImpl{address=$PEER port=7002
  localport=23791}}}} ; $READS | server=QVS; serves id=5152; client port=7002; client address=192.168.1.7
)";

// The servlet's frame with the server's request as its first argument.
const char REQUESTS[] = R"(
let SERVES $WORKS ; i javax/servlet/http/HttpServlet.service(Ljavax/servlet/ServletRequest;)V:90 @
thread qvs: $SERVES %com/halcyon/server/http/PlainRequest{m_unparsedURI="/qvs/text"} ; $READS
  | server=QVS; url=/qvs/text
thread qvs bytes: $SERVES %com/halcyon/server/http/HalcyonHttpServletRequest{requestURI=
  com/halcyon/util/ByteString{data=bytes offset=5 length=10}} ; $READS | server=QVS; url=/qvs/bytes
thread tomcat: $SERVES %org/apache/catalina/connector/RequestFacade{request=
  org/apache/catalina/connector/Request{requestDispatcherPath,Ljava/lang/Object;=
  org/apache/tomcat/util/buf/MessageBytes{strValue="/tomcat/path"}}} ; $READS | server=Tomcat; url=/tomcat/path
thread tomcat five: $SERVES %org/apache/coyote/tomcat5/CoyoteRequestFacade{request=
  org/apache/coyote/tomcat5/CoyoteRequest{requestURI="/tomcat/five"}} ; $READS | server=Tomcat; url=/tomcat/five
let WRAPPED %shop/RequestWrapper{request,Ljavax/servlet/ServletRequest;=shop/WrappedRequest{servletPath="/wrapped"}}
thread jboss: $SERVES $WRAPPED ; $READS | server=JBoss; url=/wrapped
thread glassfish: $SERVES $WRAPPED ; $READS | server=GlassFish; url=/wrapped
let SAP com/sap/engine/services/servlets_jsp/server/runtime/client
thread sap: $SERVES %$SAP/HttpServletRequestFacade{requestContext=$SAP/RequestContext{requestURIinternal="/sap"}} ;
  $READS | server=SAP; url=/sap
class org/apache/jserv/JServConnection env_vars,Ljava/util/Hashtable;
thread jserv: $WORKS ; i org/apache/jserv/JServConnection.processRequest:92 @{env_vars=java/util/Hashtable#3(
  "REQUEST_URI" "/jserv" "REMOTE_ADDR" "10.0.0.6" "HOST" "shop")} ; $READS
  | server=Apache JServ; url=/jserv; client=10.0.0.6
thread jserv ring: $WORKS ; i org/apache/jserv/JServConnection.processRequest:92 @{env_vars=java/util/Hashtable#1!(
  "NEITHER" "one" "NOR" "other")} ; $READS | server=Apache JServ
)";

} // namespace

void StageTiers(Scene *scene) {
    SceneText text(scene);
    text.Name("lines", NewString("def t = total(cart)\nif (t > 0)\n  charge(t)\nreturn t\n"));
    std::vector<Value> bytes(10, '?');
    for (char one : std::string("/qvs/bytes"))
        bytes.push_back(one);
    text.Name("bytes", NewElements("[B", bytes));
    for (const char *lines : {COMMON, FRAMEWORK, FERRULE, HALCYON, REQUESTS})
        text.Read(lines);
}

} // namespace simvm
