#include "LogCapture.h"
#include "Restore.h"
#include "Xtier/tiers/tier.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorrequest.h"

#include <gtest/gtest.h>

// Frames that pass are in the threads of the cross-tier tests; these are those at the edges.
TEST(FrameTests, TakeFramesByClassAndMethod) {
    const struct {
        int32_t (*test)(const QorFrameRecord *);
        const char *className, *method;
        bool passes;
    } rows[] = {
        {IsRmiCallDataPresent, "ferrule.rjvm.Response", "waitForData", false},
        {IsJSPRequestDataPresent, "tessar.qrfinternal.controller.engine.ControlFlowEngine2",
         "performControlFlowNow", true},
        {IsJSPRequestDataPresent, "tessar.qrfinternal.controller.engine.ControlFlowEngine", "perform", false},
        {IsJSPRequestDataPresent, "com.sun.jersey.server.impl.application.WebApplicationImpl",
         "_handleRequest", false},
        {IsJSPRequestDataPresent, "org.apache.jserv.JServConnection", "anything", true},
        {is_vo_frame, "tessar.kvo.server.ViewObjectImpl", "getQueryHitCount", true},
        {is_vo_frame, "tessar.kvo.server.ViewObjectImpl", "getQueryHitCounts", false},
        {is_vo_frame, "tessar.kvo.server.ViewRowImplBase", "setAttributeInternal", true},
        {is_jspx_frame, "tessar.qrfinternal.controller.engine.ControlFlowEngine", "performControlFlowNow",
         false},
        {isGroovyLineDataPresent, "org.codehaus.groovy.runtime.callsite.AbstractCallSite", "callCurrent",
         true},
        {isGroovyLineDataPresent, "org.codehaus.groovy.runtime.callsite.AbstractCallSite", "getArray", false},
        {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarStatementWrapper", "x", true},
        {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarResultSetImpl2", "x", false},
        {IsDBRequestDataPresent, "tessar.jdbc.driver.Q5DPreparedStatementWrapper", "x", false},
        {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarPreparedStatement", "x", false},
        {IsIORequestDataPresent, "java.io.RandomAccessFile", "x", true},
        {IsIORequestDataPresent, "java.io.FileReader", "x", false},
    };
    for (const auto &row : rows) {
        QorFrameRecord frame = {};
        frame.className = row.className;
        frame.method = row.method;
        EXPECT_EQ(row.test(&frame), row.passes ? 1 : 0) << row.className << " " << row.method;
    }
}

TEST(FrameTests, TakeObjectsBySignature) {
    const struct {
        int32_t (*test)(const char *);
        const char *signature;
        bool passes, endsSearch;
    } rows[] = {
        {IsDBFrame, "Ltessar/jdbc/driver/TessarStatement;", true, true},
        {IsDBFrame, "Ltessar/jdbc/driver/TessarStatementWrapper;", false, false},
        {IsDBFrame, "tessar/jdbc/driver/Q5DConnection", false, false},
        {IsDBFrame, "Ltessar/jdbc/driver/Q5DConnection;", true, true},
        {IsJSPFrame, "org/apache/catalina/connector/RequestFacade", false, false},
        {IsJSPFrame, "ferrule/servlet/internal/WebAppServletContext$ServletInvocationAction;", true, true},
        {IsIOFrame, "Ljava/io/FileReader;beyond", true, true},
        {IsIOFrame, "Ljava/io/RandomAccessFile;beyond", false, false},
        {IsQRFFrame, "Ltessar/kvo/server/ViewAttributeDefImpl;", false, true},
        {IsQRFJspxFrameObject, "Ltessar/kvo/server/ViewObjectImpl;", false, true},
        {IsRmiFrame, "Ljava/lang/String;", false, false},
    };
    for (const auto &row : rows) {
        EXPECT_EQ(row.test(row.signature), row.passes ? 1 : 0) << row.signature;
        EXPECT_EQ(QorIsObjectOfInterest(row.signature), row.endsSearch) << row.signature;
    }
    EXPECT_TRUE(QorIsPassedOverObject("Lferrule/servlet/internal/ServletResponseImpl;"));
    EXPECT_FALSE(QorIsPassedOverObject("Lferrule/servlet/internal/ServletRequestImpl;"));
}

// A poll tests every frame of the application.
TEST(FrameTests, AreSilentDuringPolls) {
    const Restore poll(qorIsPollOrTrace, 1);
    LogCapture log(LOG_TRACE + 1);
    QorFrameRecord frame = {};
    frame.className = "java.io.FileInputStream";
    frame.method = "read0";
    IsIORequestDataPresent(&frame);
    IsAppServerRequestDataPresent(&frame);
    EXPECT_EQ(log.text(), "");
}
