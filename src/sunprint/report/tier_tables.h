// Which frames say something of other tiers, and which fields lead to it: data only.
//
// A row's server type, class and method are compared whole; null passes any. Paths are those of
// tier_values.h.
#pragma once

#include "sunprint/frame_info.h"

#include "Xtier/tiers/products.h"

#include <cstddef>
#include <cstdint>

// Where a frame's object is.
enum QorFrameObject : int32_t {
    OBJECT_RECEIVER,
    OBJECT_LOCAL_1,
    OBJECT_LOCAL_2
}; // locals: interpreted alone

struct QorTierFrame {
    const char *server, *className, *method;
};

// ---- Remote calls

enum QorRemoteRole : int32_t {
    REMOTE_WAITS,  // for its answer; the thread's state says so
    REMOTE_TARGET, // has the name of what is called
    REMOTE_METHOD, // has class and method of what is called
    REMOTE_SERVES, // runs the call of another JVM
};
struct QorRemoteRow {
    QorTierFrame frame;
    QorRemoteRole role;
    QorFrameObject object; // that has what `id` leads to, or class and method
    const char *id, *port, *host, *name;
};

constexpr QorRemoteRow REMOTE_ROWS[] = {
    {{"Ferrule", "ferrule.rjvm.ResponseImpl", "waitForData"},
     REMOTE_WAITS,
     OBJECT_RECEIVER,
     "id,I",
     "rjvm,Lferrule/rjvm/RJVM;|remoteChannel,Lferrule/rmi/spi/Channel;|port,I",
     "rjvm,Lferrule/rjvm/RJVM;|remoteChannel,Lferrule/rmi/spi/Channel;|"
     "address,Ljava/net/InetSocketAddress;|addr,Ljava/net/InetAddress;|address,I",
     nullptr},
    {{"Ferrule", "ferrule.rmi.cluster.ClusterableRemoteRef", "invoke"},
     REMOTE_TARGET,
     OBJECT_RECEIVER,
     nullptr,
     nullptr,
     nullptr,
     products::REMOTE_NAME},
    {{"Ferrule", "ferrule.rmi.internal.frl.FRLExecuteRequest", "run"},
     REMOTE_SERVES,
     OBJECT_RECEIVER,
     "request,Lferrule/rmi/spi/InboundRequest;|responseId,I",
     "request,Lferrule/rmi/spi/InboundRequest;|connectionManager|thisRJVM|port",
     "request,Lferrule/rmi/spi/InboundRequest;|connectionManager|thisRJVM|addr,Ljava/net/InetAddress;|"
     "address,I",
     nullptr},
    {{"QVS", "com.halcyon.server.rmi.RMIClientConnection", "waitForResponseFromServer"},
     REMOTE_WAITS,
     OBJECT_LOCAL_1,
     "id,I",
     "m_transport|m_port,I",
     "m_transport|m_address,Ljava/net/InetAddress;|address,I",
     nullptr},
    {{"QVS", nullptr, "obtainRemoteMethodResponse"},
     REMOTE_METHOD,
     OBJECT_LOCAL_2,
     "clazz",
     nullptr,
     nullptr,
     "name"},
    {{"QVS", "com.halcyon.server.rmi.RmiMethodCall", "run"},
     REMOTE_SERVES,
     OBJECT_RECEIVER,
     "m_callId",
     "m_addressContainer,Lcom/halcyon/net/AddressContainer;|socket|impl|port",
     "m_addressContainer,Lcom/halcyon/net/AddressContainer;|socket|impl|address|address,I",
     nullptr},
};

// ---- Web requests

enum QorUrlForm : int32_t { URL_TEXT, URL_BYTES, URL_HASH_TABLE };

// Ways to a request's URL; the first that leads to one counts.
struct QorWebRow {
    QorTierFrame frame;
    QorFrameObject object;
    QorUrlForm form;
    const char *url, *remoteAddress;
};

constexpr char SERVLET[] = "javax.servlet.http.HttpServlet", SERVICE[] = "service";
constexpr char FERRULE_REQUEST[] = "ferrule.servlet.internal.ServletRequestImpl";

constexpr QorWebRow WEB_ROWS[] = {
    {{"Ferrule", FERRULE_REQUEST, "run"}, OBJECT_RECEIVER, URL_TEXT, "originalURI", "remoteAddr"},
    {{"Ferrule", FERRULE_REQUEST, "run"}, OBJECT_RECEIVER, URL_TEXT, "servletPath", "remoteAddr"},
    {{"Ferrule", FERRULE_REQUEST, "execute"}, OBJECT_RECEIVER, URL_TEXT, "originalURI", "remoteAddr"},
    {{"Ferrule", FERRULE_REQUEST, "execute"}, OBJECT_RECEIVER, URL_TEXT, "servletPath", "remoteAddr"},
    {{"QVS", SERVLET, SERVICE}, OBJECT_LOCAL_1, URL_TEXT, "m_unparsedURI", nullptr},
    {{"QVS", SERVLET, SERVICE},
     OBJECT_LOCAL_1,
     URL_BYTES,
     "requestURI,Lcom/halcyon/util/ByteString;",
     nullptr},
    {{"SAP", SERVLET, SERVICE},
     OBJECT_LOCAL_1,
     URL_TEXT,
     "requestContext,Lcom/sap/engine/services/servlets_jsp/server/runtime/client/RequestContext;|"
     "requestURIinternal",
     nullptr},
    {{"Apache JServ", "org.apache.jserv.JServConnection", "processRequest"},
     OBJECT_RECEIVER,
     URL_HASH_TABLE,
     "REQUEST_URI",
     "REMOTE_ADDR"},
};

// Where a request has no address of its own.
constexpr char FERRULE_PEER[] = "connection,Lferrule/servlet/internal/VirtualConnection;|remoteAddr";
constexpr char JSERV_TABLE[] = "env_vars,Ljava/util/Hashtable;";

// A facade of these servers hides the request in a field of one of these types; which field of the request
// has the URL depends on the version.
constexpr const char *CATALINA_SERVERS[] = {"Tomcat", "JBoss", "GlassFish"};
constexpr const char *CATALINA_REQUESTS[] = {
    "request,Lorg/apache/catalina/connector/Request;",
    "request,Lorg/apache/coyote/tomcat4/CoyoteRequest;",
    "request,Lorg/apache/coyote/tomcat5/CoyoteRequest;",
    "request,Ljavax/servlet/ServletRequest;",
};
constexpr const char *CATALINA_URLS[] = {
    "requestURI",
    "requestDispatcherPath,Ljava/lang/Object;|strValue",
    "servletPath",
};

// ---- Framework objects

constexpr char PAGE_FILTER[] = "tessar.qrfinternal.view.faces.activedata.AdsFilter";

// Names that lead on from a local variable of a class.
struct QorLocalName {
    const char *className, *path;
};
constexpr QorLocalName VIEW_LOCALS[] = {
    {"tessar.kvo.server.ViewAttributeDefImpl", products::ATTRIBUTE_NAME},
};
constexpr QorLocalName PAGE_LOCALS[] = {
    {"tessar.qrfinternal.controller.state.ChildViewPortContextImpl", products::PORT_PAGE},
    {"ferrule.servlet.internal.RequestEventsFilter$EventsRequestWrapper", products::EVENTS_PAGE},
};
constexpr char PAGE_WORD[] = "jspx";

// ---- What a request belongs to, from the java.lang.Thread, by object_map.h's paths

struct QorContextPath {
    const char *server, *path;
};
constexpr QorContextPath CONTEXT_PATHS[] = {
    {"Ferrule", "finalThreadStorage,Lferrule/kernel/FinalThreadLocal$FinalThreadStorage;|"
                "storage,[Ljava/lang/Object;|map,Ljava/util/HashMap;|table,[Ljava/util/HashMap$Entry;|"
                "value,Ljava/lang/Object;,0|context,Lferrule/workarea/WorkContext;|"
                "contextId,Ljava/lang/String;"},
    {"QVS", "threadLocals,Ljava/lang/ThreadLocal$ThreadLocalMap;|"
            "table,[Ljava/lang/ThreadLocal$ThreadLocalMap$Entry;|"
            "value,Ljava/lang/Object;,tessar/dms/instrument/ExecutionContext|m_attMap,Ljava/util/Map;|"
            "table,[Ljava/util/HashMap$Entry;|value,Ljava/lang/Object;,0|value,[C"},
};
