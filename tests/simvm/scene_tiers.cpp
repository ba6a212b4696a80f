// Threads that serve web requests and remote calls, wait for answers of them, or run a framework's objects.
// A fact, and the state "RMI Wait", holds when the agent was started for that thread's server; "" is any.
#include "stage.h"

namespace simvm {

namespace {

const char *const CLASSES[] = {
    "java/net/InetAddress hostName,Ljava/lang/String; address,I",
    "java/net/InetSocketAddress hostname,Ljava/lang/String; addr,Ljava/net/InetAddress; port,I",
    "java/net/SocketImpl address,Ljava/net/InetAddress; port,I localport,I",
    "java/net/Socket impl,Ljava/net/SocketImpl;",
    // a framework's
    "tessar/kvo/server/EntityDefImpl mObjName,Ljava/lang/String;",
    "tessar/kvo/server/EntityImpl mEbi,Ltessar/kvo/server/EntityDefImpl;",
    "tessar/kvo/server/ViewDefImpl mObjName,Ljava/lang/String;",
    "tessar/kvo/server/ViewObjectImpl mViewDef,Ltessar/kvo/server/ViewDefImpl;",
    "tessar/kvo/server/RowDef mObjName,Ljava/lang/String;",
    "tessar/kvo/server/ViewAttributeDefImpl mDef,Ltessar/kvo/server/RowDef;",
    "tessar/qrfinternal/controller/state/ViewPortContextImpl mCachedPhysicalUri,Ljava/lang/String;",
    "tessar/qrfinternal/controller/state/ChildViewPortContextImpl "
    "mParent,Ltessar/qrfinternal/controller/state/ViewPortContextImpl;",
    "com/sun/el/ValueExpressionImpl expr,Ljava/lang/String;",
    "tessar/kvo/ExprEval mExprStr,Ljava/lang/String;",
    "org/codehaus/groovy/runtime/callsite/CallSiteArray "
    "array,[Lorg/codehaus/groovy/runtime/callsite/CallSite;",
    "org/codehaus/groovy/runtime/callsite/AbstractCallSite index,I name,Ljava/lang/String; "
    "array,Lorg/codehaus/groovy/runtime/callsite/CallSiteArray;",
    // remote calls
    "ferrule/rjvm/ChannelImpl port,I address,Ljava/net/InetSocketAddress;",
    "ferrule/rjvm/RJVMImpl remoteChannel,Lferrule/rmi/spi/Channel; port,I addr,Ljava/net/InetAddress;",
    "ferrule/rjvm/ResponseImpl id,I rjvm,Lferrule/rjvm/RJVM;",
    "ferrule/rmi/cluster/BasicReplicaHandler jndiName,Ljava/lang/String;",
    "ferrule/rmi/cluster/ClusterableRemoteRef replicaHandler,Lferrule/rmi/cluster/ReplicaHandler;",
    "ferrule/rjvm/ConnectionManager thisRJVM,Lferrule/rjvm/RJVM;",
    "ferrule/rmi/internal/ServerRequest responseId,I connectionManager,Lferrule/rjvm/ConnectionManager;",
    "ferrule/rmi/internal/frl/FRLExecuteRequest request,Lferrule/rmi/spi/InboundRequest;",
    "com/halcyon/server/rmi/Transport m_port,I m_address,Ljava/net/InetAddress;",
    "com/halcyon/server/rmi/RMIClientConnection m_transport,Lcom/halcyon/server/rmi/Transport;",
    "com/halcyon/server/rmi/RmiCall id,I name,Ljava/lang/String; clazz,Ljava/lang/String;",
    "com/halcyon/net/AddressContainer socket,Ljava/net/Socket;",
    "com/halcyon/server/rmi/RmiMethodCall m_callId,I m_addressContainer,Lcom/halcyon/net/AddressContainer;",
    // web requests
    "ferrule/servlet/internal/VirtualConnection remoteAddr,Ljava/lang/String;",
    "ferrule/servlet/internal/ServletRequestImpl originalURI,Ljava/lang/String; "
    "servletPath,Ljava/lang/String; connection,Lferrule/servlet/internal/VirtualConnection;",
    "ferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper "
    "request,Ljavax/servlet/ServletRequest;",
    "com/halcyon/util/ByteString data,[B offset,I length,I",
    "com/halcyon/server/http/PlainRequest m_unparsedURI,Ljava/lang/String;",
    "com/halcyon/server/http/HalcyonHttpServletRequest requestURI,Lcom/halcyon/util/ByteString;",
    "org/apache/tomcat/util/buf/MessageBytes strValue,Ljava/lang/String;",
    "org/apache/catalina/connector/Request requestDispatcherPath,Ljava/lang/Object;",
    "org/apache/catalina/connector/RequestFacade request,Lorg/apache/catalina/connector/Request;",
    "org/apache/coyote/tomcat5/CoyoteRequest requestURI,Ljava/lang/String;",
    "org/apache/coyote/tomcat5/CoyoteRequestFacade request,Lorg/apache/coyote/tomcat5/CoyoteRequest;",
    "shop/RequestWrapper request,Ljavax/servlet/ServletRequest;",
    "shop/WrappedRequest servletPath,Ljava/lang/String;",
    "com/sap/engine/services/servlets_jsp/server/runtime/client/RequestContext "
    "requestURIinternal,Ljava/lang/String;",
    "com/sap/engine/services/servlets_jsp/server/runtime/client/HttpServletRequestFacade "
    "requestContext,Lcom/sap/engine/services/servlets_jsp/server/runtime/client/RequestContext;",
    "org/apache/jserv/JServConnection env_vars,Ljava/util/Hashtable;",
};

using Facts = std::map<std::string, std::string>;
constexpr uint32_t PEER = 0xc0a80107; // its top bit makes the field negative
const char PEER_TEXT[] = "192.168.1.7";

Object *Address() {
    return New("java/net/InetAddress", {{"hostName", NewString("peer")}, {"address", int32_t(PEER)}});
}

// A frame that the thread works for; it reads a file at the time.
void AddWorking(Scene *scene, const std::string &name, std::vector<Frame> frames, Facts facts) {
    frames.insert(frames.begin(), Run("shop/Worker"));
    frames.push_back({F::COMPILED, {In("shop/Servlet", "doGet", 18, NewObject("shop/Servlet"))}});
    frames.push_back({F::NATIVE, {Native("java/io/FileInputStream", "readBytes")}});
    Add(scene, name, std::move(frames), Rest::PIPE, "IO Wait", std::move(facts));
}

void AddFramework(Scene *scene) {
    auto named = [](const char *type, const char *text) {
        return New(type, {{"mObjName", NewString(text)}});
    };
    Object *entity = New("tessar/kvo/server/EntityImpl",
                         {{"mEbi", named("tessar/kvo/server/EntityDefImpl", "Orders")}}),
           *view = New("tessar/kvo/server/ViewObjectImpl",
                       {{"mViewDef", named("tessar/kvo/server/ViewDefImpl", "OrdersView")}}),
           *attribute = New("tessar/kvo/server/ViewAttributeDefImpl",
                            {{"mDef", named("tessar/kvo/server/RowDef", "OrdersRow")}}),
           *expression = New("com/sun/el/ValueExpressionImpl", {{"expr", NewString("#{cart.total}")}});
    AddWorking(scene, "entity", {{F::COMPILED, {In("tessar/kvo/server/EntityImpl", "doDML", 71, entity)}}},
               {{"server", ""}, {"Entity_Object", "Orders"}});
    AddWorking(scene, "view",
               {{F::INTERPRETED, {In("tessar/kvo/server/ViewObjectImpl", "getQueryHitCount", 72, view)}}},
               {{"server", ""}, {"View_Object", "OrdersView"}});
    AddWorking(
        scene, "attribute",
        {{F::INTERPRETED,
          {In("tessar/kvo/server/ViewRowImpl", "setAttribute", 73, NewObject("tessar/kvo/server/ViewRowImpl"),
              {}, "(I)V", {{"I", 1}, {"Ltessar/kvo/server/ViewAttributeDefImpl;", attribute}})}}},
        {{"server", ""}, {"View_Object", "OrdersRow"}});
    AddWorking(scene, "expression",
               {{F::COMPILED, {In("com/sun/el/ValueExpressionImpl", "getValue", 74, expression)}}},
               {{"server", ""}, {"EL_Exp", "#{cart.total}"}});
}

void AddGroovy(Scene *scene) {
    const char SITE[] = "org/codehaus/groovy/runtime/callsite/AbstractCallSite";
    Object *sites = New("org/codehaus/groovy/runtime/callsite/CallSiteArray", {}),
           *second = New(SITE, {{"name", NewString("charge")}, {"index", 1}, {"array", sites}});
    Set(sites, "array",
        NewElements(
            "[Lorg/codehaus/groovy/runtime/callsite/CallSite;",
            {New(SITE, {{"name", NewString("total")}, {"index", 0}, {"array", sites}}), second, nullptr}));
    Object *script =
        New("tessar/kvo/ExprEval",
            {{"mExprStr", NewString("def t = total(cart)\nif (t > 0)\n  charge(t)\nreturn t\n")}});
    AddWorking(scene, "script",
               {{F::INTERPRETED, {In("tessar/kvo/ExprEval", "evaluate", 75, script)}},
                {F::COMPILED, {In("shop/Script", "run", 76), In(SITE, "callCurrent", 77, second)}}},
               {{"server", ""}, {"Groovy_Script", "3"}});
}

void AddPages(Scene *scene) {
    Object *parent = New("tessar/qrfinternal/controller/state/ViewPortContextImpl",
                         {{"mCachedPhysicalUri", NewString("/pages/cart.jspx")}}),
           *child =
               New("tessar/qrfinternal/controller/state/ChildViewPortContextImpl", {{"mParent", parent}}),
           *request = New("shop/WrappedRequest", {{"servletPath", NewString("/pages/order.jspx")}}),
           *wrapper = New("ferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper",
                          {{"request", request}}),
           *engine = NewObject("tessar/qrfinternal/controller/engine/ControlFlowEngine"),
           *filter = NewObject("tessar/qrfinternal/view/faces/activedata/AdsFilter");
    AddWorking(
        scene, "page",
        {{F::INTERPRETED,
          {In("tessar/qrfinternal/controller/engine/ControlFlowEngine", "performControlFlow", 78, engine, {},
              "()V",
              {{"I", 2}, {"Ltessar/qrfinternal/controller/state/ChildViewPortContextImpl;", child}})}}},
        {{"server", ""}, {"jspx", "/pages/cart.jspx"}});
    AddWorking(scene, "filter",
               {{F::INTERPRETED,
                 {In("tessar/qrfinternal/view/faces/activedata/AdsFilter", "doFilter", 79, filter, {}, "()V",
                     {{"Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper;", wrapper}})}}},
               {{"server", ""}, {"jspx", "/pages/order.jspx"}});
}

// Waits for another server's answer.
void AddWaiting(Scene *scene, const std::string &name, std::vector<Frame> frames, Facts facts) {
    Object *lock = NewObject("java/lang/Object");
    frames.insert(frames.begin(), Run("shop/Worker"));
    frames.push_back({F::NATIVE, {Native("java/lang/Object", "wait", lock)}});
    facts.insert({{"rmi port", "7001"}, {"rmi address", PEER_TEXT}});
    Add(scene, name, std::move(frames), Rest::WAIT, "RMI Wait", std::move(facts));
}

void AddRemoteCalls(Scene *scene) {
    Object *socketAddress = New("java/net/InetSocketAddress", {{"addr", Address()}, {"port", 7001}}),
           *channel = New("ferrule/rjvm/ChannelImpl", {{"port", 7001}, {"address", socketAddress}}),
           *rjvm = New("ferrule/rjvm/RJVMImpl",
                       {{"remoteChannel", channel}, {"port", 7001}, {"addr", Address()}}),
           *response = New("ferrule/rjvm/ResponseImpl", {{"id", 4242}, {"rjvm", rjvm}}),
           *replicas =
               New("ferrule/rmi/cluster/BasicReplicaHandler", {{"jndiName", NewString("shop.Pricing")}}),
           *reference = New("ferrule/rmi/cluster/ClusterableRemoteRef", {{"replicaHandler", replicas}});
    AddWaiting(scene, "caller",
               {{F::COMPILED,
                 {In("ferrule/rmi/cluster/ClusterableRemoteRef", "invoke", 81, reference),
                  In("ferrule/rjvm/ResponseImpl", "waitForData", 82, response)}}},
               {{"server", "Ferrule"}, {"rmi id", "4242"}, {"jndi", "shop.Pricing"}});
    AddWaiting(scene, "caller without name",
               {{F::INTERPRETED,
                 {In("ferrule/rjvm/ResponseImpl", "waitForData", 82,
                     New("ferrule/rjvm/ResponseImpl", {{"id", 4243}, {"rjvm", rjvm}}))}}},
               {{"server", "Ferrule"}, {"rmi id", "4243"}, {"jndi", "NA"}});
    Object *manager = New("ferrule/rjvm/ConnectionManager", {{"thisRJVM", rjvm}}),
           *served = New("ferrule/rmi/internal/ServerRequest",
                         {{"responseId", 4244}, {"connectionManager", manager}});
    AddWorking(scene, "callee",
               {{F::COMPILED,
                 {In("ferrule/rmi/internal/frl/FRLExecuteRequest", "run", 83,
                     New("ferrule/rmi/internal/frl/FRLExecuteRequest", {{"request", served}}))}}},
               {{"server", "Ferrule"},
                {"serves id", "4244"},
                {"client port", "7001"},
                {"client address", PEER_TEXT}});
}

void AddOtherRemoteCalls(Scene *scene) {
    Object *transport = New("com/halcyon/server/rmi/Transport", {{"m_port", 7001}, {"m_address", Address()}}),
           *connection = New("com/halcyon/server/rmi/RMIClientConnection", {{"m_transport", transport}}),
           *call = New("com/halcyon/server/rmi/RmiCall",
                       {{"id", 5151}, {"name", NewString("price")}, {"clazz", NewString("shop.Pricing")}});
    const std::string type = "Lcom/halcyon/server/rmi/RmiCall;";
    AddWaiting(scene, "client",
               {{F::INTERPRETED,
                 {In(connection->type->name, "obtainRemoteMethodResponse", 84, connection, {},
                     "(I" + type + ")V", {{"I", 9}, {type, call}})}},
                {F::INTERPRETED,
                 {In(connection->type->name, "waitForResponseFromServer", 85, connection, {},
                     "(" + type + ")V", {{type, call}})}}},
               {{"server", "QVS"}, {"rmi id", "5151"}, {"ejb", "shop.Pricing->price"}});
    Object *impl = New("java/net/SocketImpl", {{"address", Address()}, {"port", 7002}, {"localport", 23791}}),
           *container = New("com/halcyon/net/AddressContainer",
                            {{"socket", New("java/net/Socket", {{"impl", impl}})}}),
           *method = New("com/halcyon/server/rmi/RmiMethodCall",
                         {{"m_callId", 5152}, {"m_addressContainer", container}});
    AddWorking(
        scene, "served", {{F::COMPILED, {In("com/halcyon/server/rmi/RmiMethodCall", "run", 86, method)}}},
        {{"server", "QVS"}, {"serves id", "5152"}, {"client port", "7002"}, {"client address", PEER_TEXT}});
}

// The servlet's frame with the server's request as its first argument.
void AddServlet(Scene *scene, const std::string &name, Object *request, const std::string &server,
                const std::string &url) {
    AddWorking(
        scene, name,
        {{F::INTERPRETED,
          {In("javax/servlet/http/HttpServlet", "service", 90, NewObject("javax/servlet/http/HttpServlet"),
              {}, "(Ljavax/servlet/ServletRequest;)V", {{"Ljavax/servlet/ServletRequest;", request}})}}},
        {{"server", server}, {"url", url}});
}

void AddRequests(Scene *scene) {
    for (const char *method : {"run", "execute"}) {
        std::string url = std::string("/ferrule/") + method;
        Object *peer =
                   New("ferrule/servlet/internal/VirtualConnection", {{"remoteAddr", NewString("10.0.0.5")}}),
               *request = New(
                   "ferrule/servlet/internal/ServletRequestImpl",
                   {{"originalURI", NewString(url)}, {"servletPath", NewString(url)}, {"connection", peer}});
        AddWorking(scene, std::string("ferrule ") + method,
                   {{F::COMPILED, {In("ferrule/servlet/internal/ServletRequestImpl", method, 91, request)}}},
                   {{"server", "Ferrule"}, {"url", url}, {"client", "10.0.0.5"}});
    }
    std::vector<Value> bytes(10, '?');
    for (char one : std::string("/qvs/bytes"))
        bytes.push_back(one);
    Object *text = New("com/halcyon/util/ByteString",
                       {{"data", NewElements("[B", bytes)}, {"offset", 5}, {"length", 10}}),
           *path = New("org/apache/tomcat/util/buf/MessageBytes", {{"strValue", NewString("/tomcat/path")}}),
           *five =
               New("org/apache/coyote/tomcat5/CoyoteRequest", {{"requestURI", NewString("/tomcat/five")}}),
           *wrapped = New("shop/WrappedRequest", {{"servletPath", NewString("/wrapped")}}),
           *sap = New("com/sap/engine/services/servlets_jsp/server/runtime/client/RequestContext",
                      {{"requestURIinternal", NewString("/sap")}}),
           *table = NewTable("java/util/Hashtable", 3,
                             {{NewString("REQUEST_URI"), NewString("/jserv")},
                              {NewString("REMOTE_ADDR"), NewString("10.0.0.6")},
                              {NewString("HOST"), NewString("shop")}});
    AddServlet(scene, "qvs",
               New("com/halcyon/server/http/PlainRequest", {{"m_unparsedURI", NewString("/qvs/text")}}),
               "QVS", "/qvs/text");
    AddServlet(scene, "qvs bytes",
               New("com/halcyon/server/http/HalcyonHttpServletRequest", {{"requestURI", text}}), "QVS",
               "/qvs/bytes");
    AddServlet(
        scene, "tomcat",
        New("org/apache/catalina/connector/RequestFacade",
            {{"request", New("org/apache/catalina/connector/Request", {{"requestDispatcherPath", path}})}}),
        "Tomcat", "/tomcat/path");
    AddServlet(scene, "tomcat five",
               New("org/apache/coyote/tomcat5/CoyoteRequestFacade", {{"request", five}}), "Tomcat",
               "/tomcat/five");
    AddServlet(scene, "jboss", New("shop/RequestWrapper", {{"request", wrapped}}), "JBoss", "/wrapped");
    AddServlet(scene, "glassfish", New("shop/RequestWrapper", {{"request", wrapped}}), "GlassFish",
               "/wrapped");
    AddServlet(scene, "sap",
               New("com/sap/engine/services/servlets_jsp/server/runtime/client/HttpServletRequestFacade",
                   {{"requestContext", sap}}),
               "SAP", "/sap");
    AddWorking(scene, "jserv",
               {{F::INTERPRETED,
                 {In("org/apache/jserv/JServConnection", "processRequest", 92,
                     New("org/apache/jserv/JServConnection", {{"env_vars", table}}))}}},
               {{"server", "Apache JServ"}, {"url", "/jserv"}, {"client", "10.0.0.6"}});
}

} // namespace

void StageTiers(Scene *scene) {
    for (const char *line : CLASSES)
        DefineClass(line);
    AddFramework(scene);
    AddGroovy(scene);
    AddPages(scene);
    AddRemoteCalls(scene);
    AddOtherRemoteCalls(scene);
    AddRequests(scene);
}

} // namespace simvm
