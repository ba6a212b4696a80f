#include "server_walks.h"

#include "direct_start.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include "qorutil/vm_heap.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"
#include "sunprint/fields.h"
#include "sunprint/report/frame_report.h"
#include "sunprint/report/print_threads.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint64_t MIRROR_KLASS = 16; // where a java.lang.Class has its klass
constexpr int32_t LARGEST_PORT = 65535;
constexpr int32_t MAX_ELEMENTS = 10000; // of a server's lists

// ---- Marker classes --------------------------------------------------------------------------------------

struct Marker {
    jclass *reference;
    const char *prefix, *name; // as logged
    const char *object;        // the same of the klass
};
constexpr Marker JSERV = {&serverKlass1, "", "org/apache/jserv/JServ", "jserv obj"};
constexpr Marker ADMIN = {&serverKlass1, "", "ferrule/management/Admin", "ferrule webserver_obj"};
constexpr Marker WEB_APP = {&serverKlass2, "QOR Agent : ", "ferrule/servlet/internal/WebAppConfigManager",
                            "QOR Agent ferrule webserver_obj"};
constexpr Marker JSP_FACTORY = {&serverKlass1, " ", "com/halcyon/server/http/HalcyonJSPFactory",
                                "QVS HalcyonJSPFactory"};
constexpr Marker MONITOR_THREAD = {&serverKlass2, "", "com/halcyon/server/LumoMonitorThread",
                                   "QVS LumoMonitorThread"};

// The klass that a marker's reference leads to: its fields are the class's statics. 0 when there is none.
uint64_t KlassOf(const Marker &marker) {
    QorForgetPages();
    QorNoteSpaces();
    const auto handle = QorAddressOf(*marker.reference);
    if (handle == 0) {
        QORLOG(LOG_ERROR, "%sCould not find class %s", marker.prefix, marker.name);
        return 0;
    }
    const uint64_t mirror = QorWordAt(handle);
    if (mirror == 0) {
        QORLOG(LOG_ERROR, "%sNULL class %s", marker.prefix, marker.name);
        return 0;
    }
    const uint64_t klass = valid_oop(mirror) ? QorWordAt(mirror + MIRROR_KLASS) : 0;
    if (!valid_klass(klass)) {
        QORLOG(LOG_ERROR, "%s is NULL", marker.object);
        return 0;
    }
    return klass;
}

// ---- Chains of fields ------------------------------------------------------------------------------------

struct Link {
    const char *field, *signature;
    const char *prefix, *holder; // as logged
};

// Where the field is: in a klass, one of its statics. 0 for none.
uint64_t FindField(uint64_t object, const char *field, const char *signature) {
    return find_object_field(object, valid_klass(object) ? object : 0, field, signature);
}

// The object that a link leads to, or 0.
uint64_t Follow(uint64_t from, const Link &link) {
    const uint64_t place = FindField(from, link.field, link.signature);
    if (place == 0) {
        QORLOG(LOG_ERROR, "%sNo %s in %s", link.prefix, link.field, link.holder);
        return 0;
    }
    const uint64_t object = QorWordAt(place);
    if (object == 0)
        QORLOG(LOG_ERROR, "%sNULL %s in %s", link.prefix, link.field, link.holder);
    return object;
}

// A field's number if it can be a port, else 0; -1 without such a field.
int32_t PortIn(uint64_t object, const char *field) {
    const uint64_t place = FindField(object, field, "I");
    int64_t port = 0;
    if (place == 0)
        return -1;
    return QorReadField(place, 'I', &port) && port > 0 && port <= LARGEST_PORT ? static_cast<int32_t>(port)
                                                                               : 0;
}

// The port in the object that a chain of up to two links leads to from a marker class.
template <size_t LINKS>
int32_t PortAlong(const Marker &marker, const Link (&links)[LINKS]) {
    uint64_t at = KlassOf(marker);
    for (size_t i = 0; i + 1 < LINKS && at; i++)
        at = Follow(at, links[i]);
    if (at == 0)
        return 0;
    const Link &last = links[LINKS - 1];
    const int32_t port = PortIn(at, last.field);
    if (port < 0)
        QORLOG(LOG_ERROR, "%sNo %s in %s", last.prefix, last.field, last.holder);
    return std::max(port, 0);
}

// ---- Lists -----------------------------------------------------------------------------------------------

// The elements of an array of objects, untested; 0 for what is none.
int32_t LengthOf(uint64_t array) {
    return valid_oop(array) ? std::min(QorInt32At(array + ARRAY_LENGTH), MAX_ELEMENTS) : 0;
}

uint64_t ElementOf(uint64_t array, int32_t index) {
    return QorWordAt(array + ARRAY_ELEMENTS + static_cast<uint64_t>(index) * VM_WORD_SIZE);
}

int32_t PortOfContexts() {
    constexpr Link contexts = {"contexts", "[Lcom/halcyon/server/http/HalcyonPageContext;", "",
                               "com/halcyon/server/http/HalcyonJSPFactory"};
    const uint64_t klass = KlassOf(JSP_FACTORY);
    const uint64_t array = klass ? Follow(klass, contexts) : 0;
    const int32_t length = LengthOf(array);
    if (array && length <= 0)
        QORLOG(LOG_ERROR, "contexts Array is empty");
    for (int32_t i = 0; i < length && !qorLeave; i++) {
        const uint64_t place = FindField(ElementOf(array, i), "halcyonRequest",
                                         "Lcom/halcyon/server/http/HalcyonHttpServletRequest;");
        const uint64_t request = place ? QorWordAt(place) : 0;
        const int32_t port = request ? PortIn(request, "port") : 0;
        if (place == 0)
            QORLOG(LOG_ERROR, " No halcyonRequest in contexts[%d]", i);
        else if (request == 0)
            QORLOG(LOG_ERROR, "NULL halcyonRequest in contexts[%d]", i);
        else if (port < 0)
            QORLOG(LOG_ERROR, "No port in halcyonRequest[%d]", i);
        if (port > 0) {
            QORLOG(LOG_NOTE, "port is [%d]", port);
            return port;
        }
    }
    return 0;
}

// The list of services, or that of the listeners, each of which may have a port.
uint64_t ServicesOf(uint64_t klass) {
    constexpr Link services = {"servicesList", "Ljava/util/ArrayList;", "DIAG ", "LumoMonitorThread"};
    constexpr Link listeners[] = {
        {"appSrv", "Lcom/halcyon/server/ApplicationServer;", "", "LumoMonitorThread"},
        {"httpServer", "Lcom/halcyon/server/http/HttpServer;", "", "appSrv"},
        {"listeners", "Ljava/util/List;", "", "httpServer"},
    };
    if (const uint64_t list = Follow(klass, services))
        return list;
    QORLOG(LOG_ERROR, "Looking for appSrv in LumoMonitorThread");
    uint64_t at = klass;
    for (const Link &link : listeners)
        at = at ? Follow(at, link) : 0;
    return at;
}

int32_t PortOfServices() {
    constexpr Link elements = {"elementData", "[Ljava/lang/Object;", "", "Vector"};
    QORLOG(LOG_ERROR, " Searching for klass %s", MONITOR_THREAD.name);
    const uint64_t klass = KlassOf(MONITOR_THREAD);
    const uint64_t list = klass ? ServicesOf(klass) : 0;
    const uint64_t array = list ? Follow(list, elements) : 0;
    const int32_t length = LengthOf(array);
    if (array && length <= 0)
        QORLOG(LOG_ERROR, "Vector Array is empty");
    for (int32_t i = 0; i < length && !qorLeave; i++) {
        const uint64_t service = ElementOf(array, i); // null: the list has room left
        const int32_t port = service ? PortIn(service, "port") : 0;
        if (port > 0)
            return port;
        if (port < 0)
            QORLOG(LOG_ERROR, "No port in LumoServiceInfo[%d]", i);
    }
    return 0;
}

// ---- Frames ----------------------------------------------------------------------------------------------

// A frame whose receiver leads to the port: by a field of its own, or one of an object that it refers to.
struct PortFrame {
    const char *server, *thread; // null: any thread
    const char *className;
    const char *via, *viaSignature; // null: the receiver itself
    const char *port;
};
constexpr PortFrame PORT_FRAMES[] = {
    {"JBoss", nullptr, "org.jboss.web.WebServer", nullptr, nullptr, "port"},
    {"GlassFish", nullptr, "com.sun.net.ssl.internal.ssl.SSLServerSocketImpl", "impl",
     "Ljava/net/SocketImpl;", "portToBind"},
    {"SAP", "SAP J2EE Engine MS Socket Listener", "java.net.SocketInputStream", "impl",
     "Ljava/net/PlainSocketImpl;", "port"},
    {"SAP", "CM New Element Listner", "java.net.PlainSocketImpl", nullptr, nullptr, "localport"},
    {"Tomcat", nullptr, "org.apache.tomcat.util.net.PoolTcpEndpoint", nullptr, nullptr, "port"},
};

int32_t portOfFrames; // what the scan in hand has found

bool HasPort(const QorWalkedThread &thread, const QorFrameInfo &frame, const QorFrameNames &names) {
    for (const PortFrame &row : PORT_FRAMES) {
        if (strcmp(webserver, row.server) != 0 || strcmp(names.className, row.className) != 0 ||
            (row.thread && strcmp(thread.name, row.thread) != 0))
            continue;
        const uint64_t place = row.via ? find_object_field(frame.receiver, 0, row.via, row.viaSignature) : 0;
        const uint64_t holder = row.via ? (place ? QorWordAt(place) : 0) : frame.receiver;
        portOfFrames = valid_oop(holder) ? std::max(PortIn(holder, row.port), 0) : 0;
        if (portOfFrames)
            return true;
    }
    return false;
}

} // namespace

int32_t findFerrulePort() {
    constexpr Link links[] = {
        {"localServer", "Lferrule/management/configuration/ServerMBean;", "DIAG ",
         "ferrule/management/Admin"},
        {"listenPort", "I", "DIAG ", "localServer"},
    };
    return PortAlong(ADMIN, links);
}

int32_t findFerrule9Port() {
    constexpr Link links[] = {
        {"servermbean", "Lferrule/management/configuration/ServerMBean;", "QOR Agent DIAG ",
         "ferrule/servlet/internal/WebAppConfigManager"},
        {"_ListenPort", "I", "", "servermbean"},
    };
    return PortAlong(WEB_APP, links);
}

int32_t findJServPort() {
    constexpr Link links[] = {
        {"listenSocket", "Ljava/net/ServerSocket;", "", "Ljava/net/ServerSocket;"},
        {"impl", "Ljava/net/SocketImpl;", "", "Ljava/net/SocketImpl;"},
        {"localport", "I", "", "SocketImpl"},
    };
    return PortAlong(JSERV, links);
}

int32_t findQVSPort() {
    const int32_t port = PortOfContexts();
    return port ? port : PortOfServices();
}

int32_t QorScanForPort() {
    if (!strstr(vend, "Sun Micro") && !strstr(vend, "Hewlett-Packard"))
        return 0;
    char unused[256]; // a scan writes nothing
    QorText text;
    QorTextStart(&text, unused, sizeof unused);
    char *args[2] = {};
    portOfFrames = 0;
    qorServerPortTest = HasPort;
    PrintSunThreads(QORREQ_SERVER_SCAN, &text, args);
    qorServerPortTest = nullptr;
    return portOfFrames;
}
