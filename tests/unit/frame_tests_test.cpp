#include "LogCapture.h"
#include "Xtier/tiers/tier.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorrequest.h"

#include <gtest/gtest.h>
#include <string>

namespace {

struct FrameCase {
    int32_t (*test)(const QorFrameRecord *);
    const char *className, *method;
    bool passes;
};

// Frames that pass stand in the threads of the cross-tier tests; these are those at the edges.
const FrameCase FRAMES[] = {
    {IsRmiCallDataPresent, "ferrule.rjvm.ResponseImpl_1", "", true},
    {IsRmiCallDataPresent, "ferrule.rjvm.Response", "waitForData", false},
    {IsJSPRequestDataPresent, "tessar.qrfinternal.controller.engine.ControlFlowEngine2",
     "performControlFlowNow", true},
    {IsJSPRequestDataPresent, "tessar.qrfinternal.controller.engine.ControlFlowEngine", "perform", false},
    {IsJSPRequestDataPresent, "javax.servlet.http.HttpServlet", "doGet", false},
    {IsJSPRequestDataPresent, "com.sun.jersey.server.impl.application.WebApplicationImpl", "_handleRequest",
     false},
    {IsJSPRequestDataPresent, "com.sun.jersey.server.impl.application.WebApplicationImpl", "handleRequest",
     true},
    {IsJSPRequestDataPresent, "org.apache.jserv.JServConnection", "anything", true},
    {IsJSPRequestDataPresent, "ferrule.servlet.internal.ServletRequestImpl", "anything", true},
    {is_vo_frame, "tessar.kvo.server.ViewObjectImpl", "getQueryHitCount", true},
    {is_vo_frame, "tessar.kvo.server.ViewObjectImpl", "getQueryHitCounts", false},
    {is_vo_frame, "tessar.kvo.server.ViewObjectImpls", "getQueryHitCount", false},
    {is_vo_frame, "tessar.kvo.server.ViewRowImplBase", "setAttributeInternal", true},
    {is_eo_frame, "tessar.kvo.server.EntityImpl", "doDMLs", false},
    {is_eo_frame, "tessar.kvo.server.EntityImpl2", "doDML", false},
    {is_jspx_frame, "tessar.qrfinternal.controller.engine.ControlFlowEngine", "performControlFlow", true},
    {is_jspx_frame, "tessar.qrfinternal.controller.engine.ControlFlowEngine", "performControlFlowNow", false},
    {isGroovyLineDataPresent, "org.codehaus.groovy.runtime.callsite.AbstractCallSite", "callCurrent", true},
    {isGroovyLineDataPresent, "org.codehaus.groovy.runtime.callsite.AbstractCallSite", "getArray", false},
    {isELExpDataPresent, "com.sun.el.MethodExpressionImpl", "getValue", false},
    {isGroovyScriptDataPresent, "tessar.kvo.ExprEval", "run", false},
    {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarStatementWrapper", "x", true},
    {IsDBRequestDataPresent, "tessar.jdbc.driver.Q5DConnection", "x", true},
    {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarResultSetImpl", "x", true},
    {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarResultSetImpl2", "x", false},
    {IsDBRequestDataPresent, "tessar.jdbc.driver.Q5DPreparedStatement", "x", true},
    {IsDBRequestDataPresent, "tessar.jdbc.driver.Q5DPreparedStatementWrapper", "x", false},
    {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarPreparedStatement", "x", false},
    {IsIORequestDataPresent, "java.io.RandomAccessFile", "x", true},
    {IsIORequestDataPresent, "java.io.FileOutputStream", "x", true},
    {IsIORequestDataPresent, "java.io.FileReader", "x", false},
    {IsNetworkRequestDataPresent, "java.net.SocketInputStream", "socketRead0", false},
    {IsAppServerRequestDataPresent, "ferrule.servlet.internal.ServletStubImpl", "init", false},
};

struct ObjectCase {
    int32_t (*test)(const char *);
    const char *signature;
    bool passes, endsSearch;
};

const ObjectCase OBJECTS[] = {
    {IsDBFrame, "tessar/jdbc/driver/TessarPreparedStatement", true, true},
    {IsDBFrame, "Ltessar/jdbc/driver/TessarStatement;", true, true},
    {IsDBFrame, "Ltessar/jdbc/driver/TessarStatementWrapper;", false, false},
    {IsDBFrame, "tessar/jdbc/driver/TessarStatementWrapper", true, true},
    {IsDBFrame, "tessar/jdbc/driver/Q5DConnection", false, false},
    {IsDBFrame, "Ltessar/jdbc/driver/Q5DConnection;", true, true},
    {IsDBFrame, "tessar/jdbc/driver/Q5DCallableStatement", true, true},
    {IsDBFrame, "Ltessar/jdbc/driver/TessarResultSetImpl;", false, false},
    {IsJSPFrame, "org/apache/catalina/connector/RequestFacade", false, false},
    {IsJSPFrame, "ferrule/servlet/internal/WebAppServletContext$ServletInvocationAction;", true, true},
    {IsJSPFrame, "Lferrule/servlet/internal/WebAppServletContext;", false, false},
    {IsIOFrame, "Ljava/io/FileReader;beyond", true, true},
    {IsIOFrame, "Ljava/io/RandomAccessFile;beyond", false, false},
    {IsIOFrame, "Ljava/io/FileInputStream;", false, false},
    {IsQRFFrame, "Ltessar/kvo/server/TransactionEvent;", true, true},
    {IsQRFFrame, "Ltessar/kvo/server/ViewAttributeDefImpl;", false, true},
    {IsQRFJspxFrameObject, "Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper;", true, true},
    {IsQRFJspxFrameObject, "Ltessar/kvo/server/ViewObjectImpl;", false, true},
    {IsRmiFrame, "Ljava/lang/String;", false, false},
};

} // namespace

TEST(FrameTests, TakeFramesByClassAndMethod) {
    for (const FrameCase &row : FRAMES) {
        QorFrameRecord frame = {};
        frame.className = row.className;
        frame.method = row.method;
        EXPECT_EQ(row.test(&frame), row.passes ? 1 : 0) << row.className << " " << row.method;
    }
}

TEST(FrameTests, TakeObjectsBySignature) {
    for (const ObjectCase &row : OBJECTS) {
        EXPECT_EQ(row.test(row.signature), row.passes ? 1 : 0) << row.signature;
        EXPECT_EQ(QorIsObjectOfInterest(row.signature), row.endsSearch) << row.signature;
    }
    EXPECT_TRUE(QorIsPassedOverObject("Lferrule/servlet/internal/WebAppServletContext;"));
    EXPECT_TRUE(QorIsPassedOverObject("Lferrule/servlet/internal/ServletResponseImpl;"));
    EXPECT_FALSE(QorIsPassedOverObject("Lferrule/servlet/internal/ServletRequestImpl;"));
}

// A poll tests every frame of the application: its tests log nothing.
TEST(FrameTests, AreSilentDuringPolls) {
    QorFrameRecord frame = {};
    frame.className = "java.io.FileInputStream";
    frame.method = "read0";
    for (const int32_t poll : {0, 1}) {
        qorIsPollOrTrace = poll;
        LogCapture log(LOG_TRACE + 1);
        IsIORequestDataPresent(&frame);
        IsAppServerRequestDataPresent(&frame);
        EXPECT_EQ(log.count("IO Call Found java.io.FileInputStream"), 1 - poll);
        EXPECT_EQ(log.count("AppServer Call Not Found java.io.FileInputStream"), 1 - poll);
    }
    qorIsPollOrTrace = 0;
}
