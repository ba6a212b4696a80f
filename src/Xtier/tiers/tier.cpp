#include "tier.h"

#include "qorlog.h"
#include "qorrequest.h"

#include <cstddef>
#include <cstring>

namespace {

// A text to compare with: a name that only begins like it passes too, unless it must be the whole name. A
// null text passes any name.
struct Name {
    const char *text;
    size_t compared; // characters, the terminator among them for a whole name
};

template <size_t N>
constexpr Name Begins(const char (&text)[N]) {
    return {text, N - 1};
}

template <size_t N>
constexpr Name Whole(const char (&text)[N]) {
    return {text, N};
}

constexpr Name ANY = {nullptr, 0};

// The first character settles nearly every test.
bool Passes(const Name &name, const char *text) {
    return !name.text || (*text == *name.text && strncmp(text, name.text, name.compared) == 0);
}

// ---- Frames, by class and method ----

struct FrameRow {
    Name className, method;
};

constexpr FrameRow RMI_FRAMES[] = {
    {Begins("ferrule.rmi.cluster.ClusterableRemoteRef"), ANY},
    {Begins("ferrule.rjvm.ResponseImpl"), ANY},
};

constexpr char CONTROL_FLOW_ENGINE[] = "tessar.qrfinternal.controller.engine.ControlFlowEngine";
constexpr char PERFORM_CONTROL_FLOW[] = "performControlFlow";

constexpr FrameRow WEB_FRAMES[] = {
    {Begins(CONTROL_FLOW_ENGINE), Begins(PERFORM_CONTROL_FLOW)},
    {Begins("tessar.qrfinternal.view.faces.activedata.AdsFilter"), Begins("doFilter")},
    {Begins("javax.servlet.http.HttpServlet"), Begins("service")},
    {Begins("org.glassfish.jersey.server.model.ResourceMethodInvoker"), Begins("invoke")},
    {Begins("com.sun.jersey.server.impl.application.WebApplicationImpl"), Begins("handleRequest")},
    {Begins("org.apache.jserv.JServConnection"), ANY},
    {Begins("ferrule.servlet.internal.ServletRequestImpl"), ANY},
};

constexpr FrameRow VIEW_OBJECT_FRAMES[] = {
    {Whole("tessar.kvo.server.ViewObjectImpl"), Whole("getQueryHitCount")},
    {Begins("tessar.kvo.server.ViewRowImpl"), Begins("setAttribute")},
};

constexpr FrameRow ENTITY_FRAMES[] = {
    {Whole("tessar.kvo.server.EntityImpl"), Whole("doDML")},
};

constexpr FrameRow PAGE_FRAMES[] = {
    {Whole(CONTROL_FLOW_ENGINE), Whole(PERFORM_CONTROL_FLOW)},
};

constexpr FrameRow GROOVY_LINE_FRAMES[] = {
    {Begins("org.codehaus.groovy.runtime.callsite.AbstractCallSite"), Begins("callCurrent")},
    {Begins("org.codehaus.groovy.runtime.callsite.AbstractCallSite"), Begins("call")},
};

constexpr FrameRow EL_FRAMES[] = {
    {Begins("com.sun.el.ValueExpressionImpl"), Begins("getValue")},
    {Begins("com.sun.el.MethodExpressionImpl"), Begins("invoke")},
};

constexpr FrameRow GROOVY_SCRIPT_FRAMES[] = {
    {Begins("tessar.kvo.ExprEval"), Begins("evaluate")},
};

constexpr FrameRow DATABASE_FRAMES[] = {
    {Begins("tessar.jdbc.driver.TessarStatement"), ANY},
    {Whole("tessar.jdbc.driver.TessarResultSetImpl"), ANY},
    {Whole("tessar.jdbc.driver.Q5DPreparedStatement"), ANY},
    {Begins("tessar.jdbc.driver.Q5DConnection"), ANY},
};

constexpr FrameRow FILE_FRAMES[] = {
    {Begins("java.io.FileInputStream"), ANY},
    {Begins("java.io.RandomAccessFile"), ANY},
    {Begins("java.io.FileOutputStream"), ANY},
};

constexpr FrameRow APP_SERVER_FRAMES[] = {
    {Begins("ferrule.work.ExecuteThread"), ANY},
    {Begins("ferrule.servlet.internal.ServletStubImpl"), Begins("execute")},
};

template <size_t N>
int32_t IsAnyOf(const FrameRow (&rows)[N], const QorFrameRecord *frame) {
    if (!frame)
        return 0;
    for (const FrameRow &row : rows)
        if (Passes(row.className, frame->className) && Passes(row.method, frame->method))
            return 1;
    return 0;
}

// ---- Objects, by the signature of their class ----

constexpr Name DATABASE_OBJECTS[] = {
    Begins("tessar/jdbc/driver/TessarPreparedStatement"),
    Begins("Ltessar/jdbc/driver/TessarPreparedStatement;"),
    Begins("tessar/jdbc/driver/TessarStatement"),
    Begins("Ltessar/jdbc/driver/TessarStatement;"),
    Begins("Ltessar/jdbc/driver/Q5DPreparedStatement;"),
    Begins("tessar/jdbc/driver/Q5DPreparedStatement"),
    Begins("tessar/jdbc/driver/Q5DCallableStatement"),
    Begins("Ltessar/jdbc/driver/Q5DCallableStatement;"),
    Begins("Ltessar/jdbc/driver/Q5DConnection;"),
};

constexpr Name WEB_OBJECTS[] = {
    Begins("org/apache/jserv/JServConnection"),
    Begins("Lorg/apache/jserv/JServConnection;"),
    Begins("Lferrule/servlet/internal/ServletRequestImpl;"),
    Begins("ferrule/servlet/internal/ServletRequestImpl"),
    Begins("org/apache/catalina/connector/RequestFacade;"),
    Begins("Lorg/apache/catalina/connector/RequestFacade;"),
    Begins("com/halcyon/server/http/HalcyonHttpServletRequest;"),
    Begins("Lcom/halcyon/server/http/HalcyonHttpServletRequest;"),
    Begins("com/ibm/ws/webcontainer/srt/SRTServletRequest;"),
    Begins("Lcom/ibm/ws/webcontainer/srt/SRTServletRequest;"),
    Begins("org/glassfish/jersey/server/ContainerRequest;"),
    Begins("Lorg/glassfish/jersey/server/ContainerRequest;"),
    Begins("com/sun/jersey/spi/container/ContainerRequest;"),
    Begins("Lcom/sun/jersey/spi/container/ContainerRequest;"),
    Begins("ferrule/servlet/internal/WebAppServletContext$ServletInvocationAction;"),
    Begins("Lferrule/servlet/internal/WebAppServletContext$ServletInvocationAction;"),
};

constexpr Name RMI_OBJECTS[] = {
    Begins("Lferrule/rmi/cluster/ClusterableRemoteRef;"),
    Begins("Lferrule/rjvm/ResponseImpl;"),
};

constexpr Name FILE_OBJECTS[] = {
    Begins("Ljava/io/FileReader;"),
    Whole("Ljava/io/RandomAccessFile;"),
    Begins("Ljava/io/BufferedInputStream;"),
    Begins("Ljava/io/FileDescriptor;"),
};

constexpr Name APP_SERVER_OBJECTS[] = {
    Begins("Lferrule/work/ExecuteThread;"),
};

constexpr char CHILD_VIEW_PORT[] = "Ltessar/qrfinternal/controller/state/ChildViewPortContextImpl;";
constexpr char VIEW_OBJECT[] = "Ltessar/kvo/server/ViewObjectImpl;";
constexpr char EVENTS_REQUEST[] = "Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper;";
constexpr char TRANSACTION_EVENT[] = "Ltessar/kvo/server/TransactionEvent;";

constexpr Name QRF_OBJECTS[] = {
    Begins(CHILD_VIEW_PORT),
    Begins(VIEW_OBJECT),
    Begins(EVENTS_REQUEST),
    Begins(TRANSACTION_EVENT),
};

constexpr Name PAGE_OBJECTS[] = {
    Begins(CHILD_VIEW_PORT),
    Begins(EVENTS_REQUEST),
};

constexpr Name VIEW_OBJECTS[] = {
    Begins(VIEW_OBJECT),
    Begins("Ltessar/kvo/server/ViewAttributeDefImpl;"),
};

constexpr Name ENTITY_OBJECTS[] = {
    Begins(TRANSACTION_EVENT),
};

constexpr Name GROOVY_SCRIPT_OBJECTS[] = {
    Begins("Ltessar/kvo/ExprEval;"),
};

constexpr Name GROOVY_LINE_OBJECTS[] = {
    Begins("Lorg/codehaus/groovy/runtime/callsite/PogoMetaMethodSite$PogoMetaMethodSiteNoUnwrap;"),
    Begins("Lorg/codehaus/groovy/runtime/callsite/AbstractCallSite;"),
};

constexpr Name EL_OBJECTS[] = {
    Begins("Lcom/sun/el/ValueExpressionImpl;"),
    Begins("Lcom/sun/el/MethodExpressionImpl;"),
};

constexpr Name PASSED_OVER_OBJECTS[] = {
    Begins("Lferrule/servlet/internal/WebAppServletContext;"),
    Begins("Lferrule/servlet/internal/ServletResponseImpl;"),
};

template <size_t N>
int32_t IsAnyOf(const Name (&rows)[N], const char *signature) {
    if (!signature)
        return 0;
    for (const Name &row : rows)
        if (Passes(row, signature))
            return 1;
    return 0;
}

// Any of these ends the search for a frame's object.
constexpr int32_t (*OBJECT_TESTS[])(const char *) = {
    IsQRFJspxFrameObject,
    IsQRFVoFrameObject,
    IsQRFEoFrameObject,
    isQRFGroovyScripFrameObject,
    isQRFGroovyCurrentLineFrameObject,
    isQRFELFrameObject,
    IsJSPFrame,
    IsDBFrame,
    IsRmiFrame,
    IsAppServerFrame,
    IsIOFrame,
};

void LogMissingFrame() {
    QORLOG(LOG_TRACE, "Qor Agent : QorFrameExtractedInfoObj class NULL");
}

} // namespace

int32_t IsRmiCallDataPresent(const QorFrameRecord *frame) {
    return IsAnyOf(RMI_FRAMES, frame);
}

int32_t IsJSPRequestDataPresent(const QorFrameRecord *frame) {
    if (!frame) {
        LogMissingFrame();
        QORLOG(LOG_ERROR, "Qor Agent : IsJSPRequestDataPresent QorFrameExtractedInfoObj is NULL");
    }
    return IsAnyOf(WEB_FRAMES, frame);
}

int32_t is_vo_frame(const QorFrameRecord *frame) {
    return IsAnyOf(VIEW_OBJECT_FRAMES, frame);
}

int32_t is_eo_frame(const QorFrameRecord *frame) {
    return IsAnyOf(ENTITY_FRAMES, frame);
}

int32_t is_jspx_frame(const QorFrameRecord *frame) {
    return IsAnyOf(PAGE_FRAMES, frame);
}

int32_t isGroovyLineDataPresent(const QorFrameRecord *frame) {
    return IsAnyOf(GROOVY_LINE_FRAMES, frame);
}

int32_t isELExpDataPresent(const QorFrameRecord *frame) {
    return IsAnyOf(EL_FRAMES, frame);
}

int32_t isGroovyScriptDataPresent(const QorFrameRecord *frame) {
    return IsAnyOf(GROOVY_SCRIPT_FRAMES, frame);
}

int32_t IsDBRequestDataPresent(const QorFrameRecord *frame) {
    if (!frame)
        LogMissingFrame();
    const int32_t found = IsAnyOf(DATABASE_FRAMES, frame);
    if (found && !qorIsPollOrTrace)
        QORLOG(LOG_TRACE, "DB Request Found");
    return found;
}

int32_t IsIORequestDataPresent(const QorFrameRecord *frame) {
    const int32_t found = IsAnyOf(FILE_FRAMES, frame);
    if (frame && !qorIsPollOrTrace) {
        if (found)
            QORLOG(LOG_TRACE, "IO Call Found %s", frame->className);
        else
            QORLOG(LOG_TRACE, "IO Call Not Found %s", frame->className);
    }
    return found;
}

int32_t IsNetworkRequestDataPresent(const QorFrameRecord *) {
    return 0;
}

int32_t IsAppServerRequestDataPresent(const QorFrameRecord *frame) {
    const int32_t found = IsAnyOf(APP_SERVER_FRAMES, frame);
    if (frame && !qorIsPollOrTrace) {
        if (found)
            QORLOG(LOG_TRACE, "AppServer Call Found %s", frame->className);
        else
            QORLOG(LOG_TRACE, "AppServer Call Not Found %s", frame->className);
    }
    return found;
}

int32_t IsDBFrame(const char *signature) {
    return IsAnyOf(DATABASE_OBJECTS, signature);
}

int32_t IsJSPFrame(const char *signature) {
    return IsAnyOf(WEB_OBJECTS, signature);
}

int32_t IsRmiFrame(const char *signature) {
    return IsAnyOf(RMI_OBJECTS, signature);
}

int32_t IsIOFrame(const char *signature) {
    return IsAnyOf(FILE_OBJECTS, signature);
}

int32_t IsAppServerFrame(const char *signature) {
    return IsAnyOf(APP_SERVER_OBJECTS, signature);
}

int32_t IsQRFFrame(const char *signature) {
    return IsAnyOf(QRF_OBJECTS, signature);
}

int32_t IsQRFJspxFrameObject(const char *signature) {
    return IsAnyOf(PAGE_OBJECTS, signature);
}

int32_t IsQRFVoFrameObject(const char *signature) {
    return IsAnyOf(VIEW_OBJECTS, signature);
}

int32_t IsQRFEoFrameObject(const char *signature) {
    return IsAnyOf(ENTITY_OBJECTS, signature);
}

int32_t isQRFGroovyScripFrameObject(const char *signature) {
    return IsAnyOf(GROOVY_SCRIPT_OBJECTS, signature);
}

int32_t isQRFGroovyCurrentLineFrameObject(const char *signature) {
    return IsAnyOf(GROOVY_LINE_OBJECTS, signature);
}

int32_t isQRFELFrameObject(const char *signature) {
    return IsAnyOf(EL_OBJECTS, signature);
}

bool QorIsPassedOverObject(const char *signature) {
    return IsAnyOf(PASSED_OVER_OBJECTS, signature) != 0;
}

bool QorIsObjectOfInterest(const char *signature) {
    for (const auto test : OBJECT_TESTS)
        if (test(signature))
            return true;
    return false;
}
