#include "Xtier/tiers/tier.h"
#include "jvmti/threads/ThreadSystem.h"

#include <gtest/gtest.h>

// Frames that pass are in the threads of the cross-tier tests; these are those at the edges.
TEST(FrameTests, TakeFramesByClassAndMethod) {
    const std::tuple<int32_t (*)(const QorFrameRecord *), const char *, const char *, bool> rows[] = {
        {IsRmiCallDataPresent, "ferrule.rjvm.Response", "waitForData", false},
        {IsJSPRequestDataPresent, "tessar.qrfinternal.controller.engine.ControlFlowEngine2",
         "performControlFlowNow", true},
        {IsJSPRequestDataPresent, "tessar.qrfinternal.controller.engine.ControlFlowEngine", "perform", false},
        {IsJSPRequestDataPresent, "com.sun.jersey.server.impl.application.WebApplicationImpl",
         "_handleRequest", false},
        {is_vo_frame, "tessar.kvo.server.ViewObjectImpl", "getQueryHitCount", true},
        {is_vo_frame, "tessar.kvo.server.ViewObjectImpl", "getQueryHitCounts", false},
        {isGroovyLineDataPresent, "org.codehaus.groovy.runtime.callsite.AbstractCallSite", "getArray", false},
        {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarStatementWrapper", "x", true},
        {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarResultSetImpl2", "x", false},
        {IsDBRequestDataPresent, "tessar.jdbc.driver.TessarPreparedStatement", "x", false},
        {IsIORequestDataPresent, "java.io.FileReader", "x", false},
    };
    for (const auto &[test, className, method, passes] : rows) {
        QorFrameRecord frame = {};
        frame.className = className;
        frame.method = method;
        EXPECT_EQ(test(&frame), passes ? 1 : 0) << className << " " << method;
    }
}
