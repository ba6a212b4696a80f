// The products that the agent knows by tables, a block a product. docs/cross-tier.md is printed from here and
// from java/tiers.rules, to which drivers and containers are added: `tools/check_cross_tier --write`.
#pragma once

#include "CallRecords.h"
#include "tier.h"

#include <cstddef>

namespace products {

// ---- Fields of the records

#define QOR_FIELD(record, field) offsetof(record, field), sizeof(record::field)

inline constexpr QorTierTarget URL = {"URL", RECORD_WEB, QOR_FIELD(QorJSPRequestData, requestUrl)};
inline constexpr QorTierTarget PAGE = {"page name", RECORD_PAGE, 0, REQUEST_TEXT_SIZE};
inline constexpr QorTierTarget NAME = {"name", RECORD_NAME, QOR_FIELD(QorJSPRequestData, qrfObjectName)};
inline constexpr QorTierTarget EXPRESSION = {"expression", RECORD_EXPRESSION,
                                             QOR_FIELD(QorJSPRequestData, elExpression)};
inline constexpr QorTierTarget SCRIPT = {"script", RECORD_SCRIPT, QOR_FIELD(QorJSPRequestData, groovyScript)};
inline constexpr QorTierTarget CALL = {"name of the call being run", RECORD_CALL_SITE,
                                       QOR_FIELD(QorJSPRequestData, groovyCurrentLine)};
inline constexpr QorTierTarget CALL_INDEX = {"its number", RECORD_CALL_SITE,
                                             QOR_FIELD(QorJSPRequestData, groovyCurrentIndex)};
inline constexpr QorTierTarget CALL_SITES = {"the script's calls", RECORD_CALL_SITE, 0, 0};
inline constexpr QorTierTarget SQL = {"SQL", RECORD_DATABASE, 0, 0};
inline constexpr QorTierTarget CONNECTION = {"connection", RECORD_DATABASE, 0, 0};
inline constexpr QorTierTarget DB_URL = {"JDBC URL", RECORD_DATABASE, 0, 0};
inline constexpr QorTierTarget USER = {"user", RECORD_DATABASE, 0, 0};
inline constexpr QorTierTarget STREAM = {"stream of the socket", RECORD_SOCKET, 0, 0};
inline constexpr QorTierTarget SOCKET = {"socket", RECORD_SOCKET, 0, 0};
inline constexpr QorTierTarget NATIVE_STATE = {"address of the native driver's state", RECORD_SOCKET, 0, 0};
inline constexpr QorTierTarget SESSION_HOLDER = {"holder of the session", RECORD_SOCKET, 0, 0};
inline constexpr QorTierTarget CALL_ID = {"call id", RECORD_RMI, QOR_FIELD(QorRmiCallData, callId)};
inline constexpr QorTierTarget PORT = {"port", RECORD_RMI, QOR_FIELD(QorRmiCallData, port)};
inline constexpr QorTierTarget HOST = {"host", RECORD_RMI, QOR_FIELD(QorRmiCallData, host)};
inline constexpr QorTierTarget JNDI_NAME = {"JNDI name", RECORD_RMI, QOR_FIELD(QorRmiCallData, jndiName)};
inline constexpr QorTierTarget FILE_NAME = {"file", RECORD_FILE, 0, sizeof(QorIOCallData)};
inline constexpr QorTierTarget STUCK = {"stuck", RECORD_SERVER, QOR_FIELD(QorAppServerCallData, stuck)};
inline constexpr QorTierTarget HOGGER = {"hogging", RECORD_SERVER, QOR_FIELD(QorAppServerCallData, hogger)};
inline constexpr QorTierTarget APPLICATION = {"application", RECORD_SERVER,
                                              QOR_FIELD(QorAppServerCallData, applicationName)};
inline constexpr QorTierTarget MODULE = {"module", RECORD_SERVER,
                                         QOR_FIELD(QorAppServerCallData, moduleName)};
inline constexpr QorTierTarget WORK_MANAGER = {"work manager", RECORD_SERVER,
                                               QOR_FIELD(QorAppServerCallData, wmName)};
inline constexpr QorTierTarget SESSION = {"session", RECORD_SERVER,
                                          QOR_FIELD(QorAppServerCallData, sessionId)};

#undef QOR_FIELD

// ---- Tessar's JDBC driver

inline constexpr QorTableFrame JDBC_FRAMES[] = {
    {FRAME_DATABASE, "tessar.jdbc.driver.TessarStatement*", "*"},
    {FRAME_DATABASE, "tessar.jdbc.driver.TessarResultSetImpl", "*"},
    {FRAME_DATABASE, "tessar.jdbc.driver.Q5DPreparedStatement", "*"},
    {FRAME_DATABASE, "tessar.jdbc.driver.Q5DConnection*", "*"},
};

inline constexpr char DB_ACCESS_OF[] = "db_access,Ltessar/jdbc/dbaccess/DBAccess;";
inline constexpr char NATIVE_STATE_OF[] = "c_state,J";
inline constexpr char STATEMENT_SQL[] = "sql_query,Ljava/lang/String;";
inline constexpr char CURRENT_SQL[] =
    "statements,Ltessar/jdbc/driver/TessarStatement;|sqlObject,Ltessar/jdbc/driver/TessarSql;|"
    "originalSql,Ljava/lang/String;";
inline constexpr char CONNECTION_URL[] = "url,Ljava/lang/String;";
inline constexpr char CONNECTION_USER[] = "user,Ljava/lang/String;";
inline constexpr char CONNECTION_USER_NAME[] = "userName,Ljava/lang/String;";
inline constexpr char SESSION_STREAM[] =
    "net,Ltessar/net/ns/Communication;|sAtts,Ltessar/net/ns/SessionAtts;|"
    "ntInputStream,Ljava/io/InputStream;";
inline constexpr QorTableWay DIRECT_STATEMENT[] = {
    {&SQL, FORM_SQL, STATEMENT_SQL, nullptr},
    {&CONNECTION, FORM_DIRECT, "connection,Ltessar/jdbc/driver/TessarConnection;", nullptr},
};
inline constexpr QorTableWay PREPARED_STATEMENT[] = {
    {&CONNECTION, FORM_LAYERED, "connection,Ltessar/jdbc/driver/PhysicalConnection;", nullptr},
    {&CONNECTION, FORM_LAYERED, "q5Connection,Ltessar/jdbc/driver/Q5DConnection;", nullptr},
};
inline constexpr QorTableWay CALLABLE_STATEMENT[] = {
    {&CONNECTION, FORM_LAYERED, "q5Connection,Ltessar/jdbc/driver/Q5DConnection;", nullptr},
};
inline constexpr QorTableWay DIRECT_CONNECTION[] = {
    {&DB_URL, FORM_TEXT, CONNECTION_URL, nullptr},
    {&USER, FORM_TEXT, CONNECTION_USER, nullptr},
    {&SESSION_HOLDER, FORM_OBJECT, DB_ACCESS_OF, nullptr},
};
inline constexpr QorTableWay DB_ACCESS[] = {
    {&STREAM, FORM_OBJECT, SESSION_STREAM, nullptr},
    {&NATIVE_STATE, FORM_NUMBER, NATIVE_STATE_OF, nullptr},
};
// Of the two for the user, the one that the driver was seen to have is tried first.
inline constexpr QorTableWay LAYERED_CONNECTION[] = {
    {&CONNECTION, FORM_LAYERED, "", nullptr},
    {&DB_URL, FORM_TEXT, CONNECTION_URL, nullptr},
    {&USER, FORM_TEXT, CONNECTION_USER_NAME, nullptr},
    {&USER, FORM_TEXT, CONNECTION_USER, nullptr},
    {&SQL, FORM_SQL, CURRENT_SQL, nullptr},
    {&STREAM, FORM_OBJECT, SESSION_STREAM, nullptr},
};
inline constexpr QorTableWay METERED_STREAM[] = {
    {&STREAM, FORM_OBJECT, "realStream,Ljava/io/InputStream;", nullptr},
};

inline constexpr uint8_t BOTH = SPELL_SIGNATURE | SPELL_BARE;
inline constexpr QorTableObject JDBC_OBJECTS[] = {
    {"tessar/jdbc/driver/TessarPreparedStatement", FRAME_DATABASE, DIRECT_STATEMENT, BOTH, BOTH,
     AT_ONCE_WITH_SQL},
    {"tessar/jdbc/driver/TessarStatement", FRAME_DATABASE, DIRECT_STATEMENT, BOTH, BOTH, AT_ONCE_NOTHING},
    {"tessar/jdbc/driver/Q5DPreparedStatement", FRAME_DATABASE, PREPARED_STATEMENT, BOTH, BOTH,
     AT_ONCE_WITH_SQL},
    {"tessar/jdbc/driver/Q5DCallableStatement", FRAME_DATABASE, CALLABLE_STATEMENT, BOTH, BOTH, AT_ONCE_READ},
    {"tessar/jdbc/driver/Q5DConnection", FRAME_DATABASE, LAYERED_CONNECTION, SPELL_SIGNATURE, BOTH,
     AT_ONCE_READ},
    {"tessar/jdbc/driver/TessarConnection", 0, DIRECT_CONNECTION},
    {"tessar/jdbc/dbaccess/DBAccess", 0, DB_ACCESS},
    {"tessar/net/nt/MetricsEnabledInputStream", 0, METERED_STREAM},
};

// ---- The JVM's sockets, which a driver's stream or a rule leads to

inline constexpr QorTableWay SOCKET_STREAM[] = {
    {&SOCKET, FORM_OBJECT,
     "in,Ljava/io/InputStream;|this$0,Lsun/nio/ch/NioSocketImpl;|fd,Ljava/io/FileDescriptor;", nullptr},
    // jdk.net.usePlainSocketImpl
    {&SOCKET, FORM_OBJECT, "in,Ljava/io/InputStream;|fd,Ljava/io/FileDescriptor;", nullptr},
};
// An encrypted socket reads from the one that it is laid on, or from itself as a plain one.
inline constexpr QorTableWay ENCRYPTED_STREAM[] = {
    {&SOCKET, FORM_OBJECT,
     "this$0,Lsun/security/ssl/SSLSocketImpl;|self,Ljava/net/Socket;|impl,Ljava/net/SocketImpl;|"
     "fd,Ljava/io/FileDescriptor;",
     nullptr},
    {&SOCKET, FORM_OBJECT,
     "this$0,Lsun/security/ssl/SSLSocketImpl;|self,Ljava/net/Socket;|impl,Ljava/net/SocketImpl;|"
     "delegate,Ljava/net/SocketImpl;|fd,Ljava/io/FileDescriptor;",
     nullptr},
};
inline constexpr QorTableWay PLAIN_SOCKET[] = {
    {&SOCKET, FORM_OBJECT,
     "impl,Ljava/net/SocketImpl;|delegate,Ljava/net/SocketImpl;|fd,Ljava/io/FileDescriptor;", nullptr},
    {&SOCKET, FORM_OBJECT, "impl,Ljava/net/SocketImpl;|fd,Ljava/io/FileDescriptor;", nullptr},
};
inline constexpr QorTableWay ENCRYPTED_SOCKET[] = {
    {&SOCKET, FORM_OBJECT,
     "self,Ljava/net/Socket;|impl,Ljava/net/SocketImpl;|delegate,Ljava/net/SocketImpl;|"
     "fd,Ljava/io/FileDescriptor;",
     nullptr},
    {&SOCKET, FORM_OBJECT, "self,Ljava/net/Socket;|impl,Ljava/net/SocketImpl;|fd,Ljava/io/FileDescriptor;",
     nullptr},
};
inline constexpr QorTableWay CHANNEL_SOCKET[] = {
    {&SOCKET, FORM_OBJECT, "sc,Lsun/nio/ch/SocketChannelImpl;|fd,Ljava/io/FileDescriptor;", nullptr},
};

inline constexpr char ANY_SOCKET[] = "Ljava/net/Socket;"; // what a class without a row is taken for
inline constexpr QorTableObject SOCKET_OBJECTS[] = {
    {"java/net/Socket$SocketInputStream", 0, SOCKET_STREAM},
    {"sun/security/ssl/SSLSocketImpl$AppInputStream", 0, ENCRYPTED_STREAM},
    {"java/net/Socket", 0, PLAIN_SOCKET},
    {"sun/security/ssl/SSLSocketImpl", 0, ENCRYPTED_SOCKET},
    {"sun/nio/ch/SocketAdaptor", 0, CHANNEL_SOCKET},
};

// ---- Ferrule

inline constexpr QorTableFrame FERRULE_FRAMES[] = {
    {FRAME_RMI, "ferrule.rmi.cluster.ClusterableRemoteRef*", "*"},
    {FRAME_RMI, "ferrule.rjvm.ResponseImpl*", "*"},
    {FRAME_WEB, "ferrule.servlet.internal.ServletRequestImpl*", "*"},
    {FRAME_APP_SERVER, "ferrule.work.ExecuteThread*", "*"},
    {FRAME_APP_SERVER, "ferrule.servlet.internal.ServletStubImpl*", "execute*"},
};

inline constexpr char EVENTS_PAGE[] = "request,Ljavax/servlet/ServletRequest;|servletPath,Ljava/lang/String;";
inline constexpr char REMOTE_NAME[] =
    "replicaHandler,Lferrule/rmi/cluster/ReplicaHandler;|jndiName,Ljava/lang/String;";

inline constexpr QorTableWay FERRULE_REQUEST[] = {
    {&URL, FORM_TEXT, "servletPath,Ljava/lang/String;", "run"},
    {&URL, FORM_TEXT, "originalURI,Ljava/lang/String;", "execute"},
    {&SESSION, FORM_TEXT,
     "sessionHelper,Lferrule/servlet/internal/ServletRequestImpl$SessionHelper;|"
     "sessionID,Ljava/lang/String;",
     "execute"},
};
inline constexpr QorTableWay FERRULE_EVENTS[] = {
    {&URL, FORM_TEXT,
     "request,Ljavax/servlet/ServletRequest;|context,Lferrule/servlet/internal/WebAppServletContext;|"
     "contextName,Ljava/lang/String;",
     nullptr},
    {&URL, FORM_APPENDED, "request,Ljavax/servlet/ServletRequest;|relativeURI,Ljava/lang/String;", nullptr},
    {&PAGE, FORM_TEXT, EVENTS_PAGE, nullptr},
};
inline constexpr QorTableWay FERRULE_RESPONSE[] = {
    {&CALL_ID, FORM_CALL_ID, "rjvm,Lferrule/rjvm/RJVM;", nullptr},
    {&PORT, FORM_NUMBER, "rjvm,Lferrule/rjvm/RJVM;|remoteChannel,Lferrule/rmi/spi/Channel;|port,I", nullptr},
    {&HOST, FORM_ADDRESS,
     "rjvm,Lferrule/rjvm/RJVM;|remoteChannel,Lferrule/rmi/spi/Channel;|"
     "address,Ljava/net/InetSocketAddress;",
     nullptr},
};
inline constexpr QorTableWay FERRULE_REFERENCE[] = {
    {&JNDI_NAME, FORM_TEXT, REMOTE_NAME, nullptr},
};
inline constexpr QorTableWay FERRULE_THREAD[] = {
    {&STUCK, FORM_NUMBER_OR_NONE, "stuckThread,Z", nullptr},
    {&HOGGER, FORM_NUMBER_OR_NONE, "isHogger,Z", nullptr},
    {&APPLICATION, FORM_TEXT,
     "workManager,Lferrule/work/SelfTuningWorkManagerImpl;|applicationName,Ljava/lang/String;", nullptr},
    {&MODULE, FORM_TEXT, "workManager,Lferrule/work/SelfTuningWorkManagerImpl;|moduleName,Ljava/lang/String;",
     nullptr},
    {&WORK_MANAGER, FORM_TEXT,
     "workManager,Lferrule/work/SelfTuningWorkManagerImpl;|wmName,Ljava/lang/String;", nullptr},
};

inline constexpr QorTableObject FERRULE_OBJECTS[] = {
    {"ferrule/servlet/internal/ServletRequestImpl", FRAME_WEB, FERRULE_REQUEST, BOTH, BOTH, AT_ONCE_READ},
    {"ferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper", FRAME_PAGE | OBJECT_OF_FRAMEWORK,
     FERRULE_EVENTS, SPELL_SIGNATURE, SPELL_SIGNATURE | SPELL_WITHOUT_END},
    {"ferrule/servlet/internal/WebAppServletContext$ServletInvocationAction",
     FRAME_WEB,
     {},
     SPELL_SIGNATURE | SPELL_WITHOUT_L},
    {"ferrule/servlet/internal/WebAppServletContext", OBJECT_PASSED_OVER, {}},
    {"ferrule/servlet/internal/ServletResponseImpl", OBJECT_PASSED_OVER, {}},
    {"ferrule/rjvm/ResponseImpl", FRAME_RMI, FERRULE_RESPONSE},
    {"ferrule/rmi/cluster/ClusterableRemoteRef", FRAME_RMI, FERRULE_REFERENCE},
    {"ferrule/work/ExecuteThread", FRAME_APP_SERVER, FERRULE_THREAD},
};

// ---- Other servlet containers

inline constexpr QorTableFrame WEB_FRAMES[] = {
    {FRAME_WEB, "javax.servlet.http.HttpServlet*", "service*"},
    {FRAME_WEB, "org.glassfish.jersey.server.model.ResourceMethodInvoker*", "invoke*"},
    {FRAME_WEB, "com.sun.jersey.server.impl.application.WebApplicationImpl*", "handleRequest*"},
    {FRAME_WEB, "org.apache.jserv.JServConnection*", "*"},
};

inline constexpr QorTableWay JSERV[] = {
    {&URL, FORM_ENVIRONMENT, "env_vars,Ljava/util/Hashtable;", nullptr},
};
inline constexpr QorTableWay CATALINA[] = {
    {&URL, FORM_TEXT_TOLD,
     "request,Lorg/apache/catalina/connector/Request;|requestDispatcherPath,Ljava/lang/Object;|"
     "strValue,Ljava/lang/String;",
     nullptr},
};
inline constexpr QorTableWay HALCYON[] = {
    {&URL, FORM_TEXT, "servletPath,Lcom/halcyon/util/ByteString;|data,[B:offset+length", nullptr},
};
inline constexpr QorTableWay WEBSPHERE[] = {
    {&URL, FORM_TEXT,
     "_dispatchContext,Lcom/ibm/ws/webcontainer/webapp/WebAppDispatcherContext;|"
     "_servletPath,Ljava/lang/String;",
     nullptr},
};
inline constexpr QorTableWay GLASSFISH_JERSEY[] = {
    {&URL, FORM_TEXT, "httpMethod,Ljava/lang/String;", nullptr},
    {&URL, FORM_AFTER_DASH, "requestUri,Ljava/net/URI;|path,Ljava/lang/String;", nullptr},
};
inline constexpr QorTableWay SUN_JERSEY[] = {
    {&URL, FORM_TEXT, "method,Ljava/lang/String;", nullptr},
    {&URL, FORM_AFTER_DASH, "requestUri,Ljava/net/URI;|path,Ljava/lang/String;", nullptr},
};

inline constexpr uint8_t WITH_END = SPELL_SIGNATURE | SPELL_WITHOUT_L;
inline constexpr uint8_t WITH_L = SPELL_SIGNATURE | SPELL_WITHOUT_END;
inline constexpr QorTableObject WEB_OBJECTS[] = {
    {"org/apache/jserv/JServConnection", FRAME_WEB, JSERV, BOTH, BOTH, AT_ONCE_READ},
    {"org/apache/catalina/connector/RequestFacade", FRAME_WEB, CATALINA, WITH_END, WITH_END, AT_ONCE_READ},
    {"com/halcyon/server/http/HalcyonHttpServletRequest", FRAME_WEB, HALCYON, WITH_END, WITH_END},
    {"com/ibm/ws/webcontainer/srt/SRTServletRequest", FRAME_WEB, WEBSPHERE, WITH_END, WITH_END},
    {"org/glassfish/jersey/server/ContainerRequest", FRAME_WEB, GLASSFISH_JERSEY, WITH_END, WITH_L},
    {"com/sun/jersey/spi/container/ContainerRequest", FRAME_WEB, SUN_JERSEY, WITH_END, WITH_L},
};

// ---- The QRF framework

inline constexpr QorTableFrame QRF_FRAMES[] = {
    {FRAME_WEB, "tessar.qrfinternal.controller.engine.ControlFlowEngine*", "performControlFlow*"},
    {FRAME_PAGE, "tessar.qrfinternal.controller.engine.ControlFlowEngine", "performControlFlow"},
    {FRAME_WEB, "tessar.qrfinternal.view.faces.activedata.AdsFilter*", "doFilter*"},
    {FRAME_VIEW, "tessar.kvo.server.ViewObjectImpl", "getQueryHitCount"},
    {FRAME_VIEW, "tessar.kvo.server.ViewRowImpl*", "setAttribute*"},
    {FRAME_ENTITY, "tessar.kvo.server.EntityImpl", "doDML"},
    {FRAME_GROOVY_SCRIPT, "tessar.kvo.ExprEval*", "evaluate*"},
};

inline constexpr char PORT_PAGE[] = "mParent,Ltessar/qrfinternal/controller/state/ViewPortContextImpl;|"
                                    "mCachedPhysicalUri,Ljava/lang/String;";
inline constexpr char VIEW_NAME[] = "mViewDef,Ltessar/kvo/server/ViewDefImpl;|mObjName,Ljava/lang/String;";
inline constexpr char ATTRIBUTE_NAME[] = "mDef,Ltessar/kvo/server/RowDef;|mObjName,Ljava/lang/String;";
inline constexpr char ENTITY_NAME[] = "mEbi,Ltessar/kvo/server/EntityDefImpl;|mObjName,Ljava/lang/String;";
inline constexpr char SCRIPT_TEXT[] = "mExprStr,Ljava/lang/String;";

inline constexpr QorTableWay QRF_PORT[] = {{&PAGE, FORM_TEXT, PORT_PAGE, nullptr}};
inline constexpr QorTableWay QRF_VIEW[] = {{&NAME, FORM_TEXT, VIEW_NAME, nullptr}};
inline constexpr QorTableWay QRF_ATTRIBUTE[] = {{&NAME, FORM_TEXT, ATTRIBUTE_NAME, nullptr}};
inline constexpr QorTableWay QRF_ENTITY[] = {{&NAME, FORM_TEXT, ENTITY_NAME, nullptr}};
inline constexpr QorTableWay QRF_SCRIPT[] = {{&SCRIPT, FORM_RAW_TEXT, SCRIPT_TEXT, nullptr}};

// The object of an entity's frame is the local next to the event: the one before it, or after it when the
// event comes first.
inline constexpr QorTableObject QRF_OBJECTS[] = {
    {"tessar/qrfinternal/controller/state/ChildViewPortContextImpl", FRAME_PAGE | OBJECT_OF_FRAMEWORK,
     QRF_PORT},
    {"tessar/kvo/server/ViewObjectImpl", FRAME_VIEW | OBJECT_OF_FRAMEWORK, QRF_VIEW},
    {"tessar/kvo/server/ViewAttributeDefImpl", FRAME_VIEW, QRF_ATTRIBUTE},
    {"tessar/kvo/server/TransactionEvent", FRAME_ENTITY | OBJECT_OF_FRAMEWORK, QRF_ENTITY},
    {"tessar/kvo/ExprEval", FRAME_GROOVY_SCRIPT, QRF_SCRIPT},
};

// ---- Expression language and Groovy

inline constexpr QorTableFrame LANGUAGE_FRAMES[] = {
    {FRAME_EL, "com.sun.el.ValueExpressionImpl*", "getValue*"},
    {FRAME_EL, "com.sun.el.MethodExpressionImpl*", "invoke*"},
    {FRAME_GROOVY_LINE, "org.codehaus.groovy.runtime.callsite.AbstractCallSite*", "callCurrent*"},
    {FRAME_GROOVY_LINE, "org.codehaus.groovy.runtime.callsite.AbstractCallSite*", "call*"},
};

inline constexpr char EL_TEXT[] = "expr,Ljava/lang/String;";
inline constexpr char SITE_NAME[] =
    "name,Ljava/lang/String;"; // of the site being run, and of each in the array
inline constexpr char SITE_INDEX[] = "index,I";
inline constexpr char SITE_ARRAY[] = "array,Lorg/codehaus/groovy/runtime/callsite/CallSiteArray;|"
                                     "array,[Lorg/codehaus/groovy/runtime/callsite/CallSite;";

inline constexpr QorTableWay EL[] = {{&EXPRESSION, FORM_TEXT, EL_TEXT, nullptr}};
inline constexpr QorTableWay CALL_SITE[] = {
    {&CALL, FORM_TEXT, SITE_NAME, nullptr},
    {&CALL_INDEX, FORM_NUMBER_OR_NONE, SITE_INDEX, nullptr},
    {&CALL_SITES, FORM_OBJECT, SITE_ARRAY, nullptr},
};

inline constexpr QorTableObject LANGUAGE_OBJECTS[] = {
    {"com/sun/el/ValueExpressionImpl", FRAME_EL, EL},
    {"com/sun/el/MethodExpressionImpl", FRAME_EL, EL},
    {"org/codehaus/groovy/runtime/callsite/PogoMetaMethodSite$PogoMetaMethodSiteNoUnwrap", FRAME_GROOVY_LINE,
     CALL_SITE},
    {"org/codehaus/groovy/runtime/callsite/AbstractCallSite", FRAME_GROOVY_LINE, CALL_SITE},
};

// ---- The JVM's files

inline constexpr QorTableFrame FILE_FRAMES[] = {
    {FRAME_FILE, "java.io.FileInputStream*", "*"},
    {FRAME_FILE, "java.io.RandomAccessFile*", "*"},
    {FRAME_FILE, "java.io.FileOutputStream*", "*"},
};

inline constexpr QorTableWay FILE_READER[] = {
    {&FILE_NAME, FORM_DESCRIPTOR,
     "sd,Lsun/nio/cs/StreamDecoder;|in,Ljava/io/InputStream;|fd,Ljava/io/FileDescriptor;", nullptr},
};
inline constexpr QorTableWay RANDOM_FILE[] = {
    {&FILE_NAME, FORM_DESCRIPTOR, "fd,Ljava/io/FileDescriptor;", nullptr}};
inline constexpr QorTableWay BUFFERED_STREAM[] = {
    {&FILE_NAME, FORM_DESCRIPTOR, "in,Ljava/io/InputStream;|fd,Ljava/io/FileDescriptor;", nullptr},
};
inline constexpr QorTableWay FILE_DESCRIPTOR[] = {{&FILE_NAME, FORM_DESCRIPTOR, "", nullptr}};

inline constexpr QorTableObject FILE_OBJECTS[] = {
    {"java/io/FileReader", FRAME_FILE, FILE_READER},
    {"java/io/RandomAccessFile", FRAME_FILE, RANDOM_FILE, SPELL_SIGNATURE | SPELL_WHOLE},
    {"java/io/BufferedInputStream", FRAME_FILE, BUFFERED_STREAM},
    {"java/io/FileDescriptor", FRAME_FILE, FILE_DESCRIPTOR},
};

inline constexpr QorProduct ALL[] = {
    {"JDBC driver of Tessar", JDBC_FRAMES, JDBC_OBJECTS},
    {"sockets of the JVM", {}, SOCKET_OBJECTS},
    {"Ferrule", FERRULE_FRAMES, FERRULE_OBJECTS},
    {"servlet containers", WEB_FRAMES, WEB_OBJECTS},
    {"QRF", QRF_FRAMES, QRF_OBJECTS},
    {"EL, Groovy", LANGUAGE_FRAMES, LANGUAGE_OBJECTS},
    {"files of the JVM", FILE_FRAMES, FILE_OBJECTS},
};

} // namespace products
