// Threads that stand in calls of other tiers: from the frame to the record.
#include "JvmFixture.h"
#include "ModelObjects.h"
#include "Walk.h"
#include "Xtier/FrameTests.h"
#include "Xtier/LocalWalk.h"
#include "Xtier/XtierAppServer.h"
#include "Xtier/XtierIO.h"
#include "Xtier/XtierJSP.h"
#include "Xtier/XtierQRF.h"
#include "Xtier/XtierRmi.h"
#include "jvmti/JniCalls.h"
#include "qorsettings.h"

#include <algorithm>
#include <functional>

namespace {

constexpr char TIERS[] = "qoragent/testing/Tiers";

// What is found of one thread.
struct Found {
    std::string url, page, objectName, expression, script, groovyLine, jndiName, host, file, session, server;
    int groovyLineNumber = 0, callId = 0, hogger = -1, state = 0;
};

struct TierCalls : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorGetLocalObjectsQuotaPct = 100;
    }
    void TearDown() override {
        QorCloseLocalWalk();
        qorGetLocalObjectsQuotaPct = 0;
        SessionTest::TearDown();
    }
};

void listFrame(const QorThreadRecord &thread, const QorFrameRecord &frame, QorAllThreadLocalInfoList **list) {
    const struct {
        int32_t kind;
        bool isOfKind;
    } ROWS[] = {
        {LOCAL_WEB_REQUEST, IsJSPRequestDataPresent(&frame) != 0},
        {LOCAL_VIEW_OR_ENTITY, is_vo_frame(&frame) || is_eo_frame(&frame)},
        {LOCAL_EL_EXPRESSION, isELExpDataPresent(&frame) != 0},
        {LOCAL_GROOVY, isGroovyLineDataPresent(&frame) || isGroovyScriptDataPresent(&frame)},
        {LOCAL_RMI_CALL, IsRmiCallDataPresent(&frame) != 0},
        {LOCAL_FILE_CALL, IsIORequestDataPresent(&frame) != 0},
        {LOCAL_APP_SERVER_CALL, IsAppServerRequestDataPresent(&frame) != 0},
    };
    for (const auto &row : ROWS)
        if (row.isOfKind)
            AddToThreadLocalInfoList(&thread, &frame, list, row.kind);
}

// Reads the entries of one thread, the newest first.
Found readEntries(const QorAllThreadLocalInfoList *list, int64_t tid) {
    QorJSPRequestData &web = objQorJSPRequestData;
    QorRmiCallData rmi;
    QorIOCallData file;
    QorAppServerCallData server;
    char page[REQUEST_TEXT_SIZE] = "";
    QorClearJSPRequestData(&web);
    QorClearRmiCallData(&rmi);
    QorClearIOCallData(&file);
    QorClearAppServerCallData(&server);
    for (; list; list = list->next) {
        if (list->threadId != tid || !list->objLocalVarHandle)
            continue;
        if (list->kind == LOCAL_WEB_REQUEST && !web.requestUrl[0]) {
            QorReadPageName(list, page);
            QorGetJSPRequestDataFromLocalVariable(list, &web);
        }
        if (list->kind == LOCAL_FILE_CALL && file.fd <= 0)
            QorGetIOCallDataFromLocalVariable(list, &file);
        QorReadFrameworkEntry(list, &web);
        QorGetRmiCallDataFromLocalVariable(list, &rmi);
        QorGetAppServerCallDataFromLocalVariable(list, &server);
    }
    const int32_t line = getGroovyCurrentLineNo(web.groovyScript, web.groovyCallSites,
                                                web.groovyCallSiteCount, web.groovyCurrentIndex, 1000);
    return {web.requestUrl,         page,         web.qrfObjectName, web.elExpression, web.groovyScript,
            web.groovyCurrentLine,  rmi.jndiName, rmi.host,          file.fileName,    server.sessionId,
            server.applicationName, line,         rmi.callId,        server.hogger,    0};
}

// All threads of the zoo by kind, after one walk for all their frames.
std::map<std::string, Found> readThreads() {
    std::map<std::string, Found> found;
    std::map<std::string, std::pair<int64_t, int32_t>> threads;
    Walk walk;
    QorAllThreadLocalInfoList *list = nullptr;
    while (walk.next()) {
        QorFrameRecord frame;
        for (walk.frames.index = 0; walk.frames.index < walk.frames.count; walk.frames.index++) {
            if (QorReadFrame(&walk.frames, FRAME_WITH_FILE_AND_LINE, &frame) < 0)
                continue;
            GetThreadEnhancedState(&frame, &walk.thread);
            listFrame(walk.thread, frame, &list);
        }
        if (strncmp(walk.thread.name, "zoo-", 4) == 0)
            threads[walk.thread.name + 4] = {walk.thread.tid, walk.thread.state};
    }
    EXPECT_EQ(QorGetLocalVariableForAllThread(list), 0);
    for (const auto &[kind, thread] : threads) {
        found[kind] = readEntries(list, thread.first);
        found[kind].state = thread.second;
    }
    FreeQorAllThreadLocalInfoList(list);
    return found;
}

bool endsWith(const std::string &text, const std::string &end) {
    return text.size() >= end.size() && text.compare(text.size() - end.size(), end.size(), end) == 0;
}

} // namespace

TEST_F(TierCalls, AreReadFromTheirFrames) {
    CallVoid(TIERS, "start", "()V");
    std::map<std::string, Found> found = readThreads();
    CallVoid(TIERS, "stop", "()V");
    const std::map<std::string, const char *> urls = {
        {"jserv", "/jserv"},
        {"ferrule-run", "/ferrule"},
        {"ferrule-execute", "/original/ferrule"},
        {"ferrule-service", ""},
        {"tomcat", "/tomcat"},
        {"lumo", "/lumo"},
        {"websphere", "/websphere"},
        {"jersey", "GET-/a/b"},
        {"sun-jersey", "POST-/c"},
        {"filter", "/context/faces/page"},
        {"page", ""},
        {"server", "/served"},
    };
    for (const auto &[kind, url] : urls) {
        ASSERT_EQ(found.count(kind), 1u) << kind;
        EXPECT_EQ(found[kind].url, url) << kind;
    }
    EXPECT_EQ(found["page"].page, "/pages/orders.jspx");
    EXPECT_EQ(found["filter"].page, "/faces/page");
    EXPECT_EQ(found["view"].objectName, "OrdersView");
    EXPECT_EQ(found["attribute"].objectName, "OrderTotal");
    EXPECT_EQ(found["entity"].objectName, "OrderEntity");
    EXPECT_EQ(found["value-el"].expression, "#{orders.total}");
    EXPECT_EQ(found["method-el"].expression, "#{orders.save}");
    EXPECT_EQ(found["groovy"].groovyLine, "check");
    EXPECT_EQ(found["groovy"].groovyLineNumber, 2);
    EXPECT_EQ(found["server"].server, "orders");
    EXPECT_EQ(found["server"].session, "session of /served");
    EXPECT_EQ(found["server"].hogger, 1);
    EXPECT_EQ(found["remote"].jndiName, "ejb/Orders");
    EXPECT_EQ(found["remote"].host, "-63.-87.-254.-251");
    EXPECT_EQ(found["remote"].callId, 77);
    EXPECT_EQ(found["remote"].state, STATE_RMI_WAIT);
}

// A native method's arguments are no locals of a Java frame, but its descriptor is found all the same.
TEST_F(TierCalls, ShowTheFileOnEveryJvm) {
    ZooVisit zoo("file-read,file-read-bytes,file-reader,random-access-read,file-write,socket-read");
    std::map<std::string, Found> found = readThreads();
    // The writer copies its bytes before it looks at its descriptor.
    for (int round = 0; round < 1000 && found["file-write"].file.empty(); round++)
        found = readThreads();
    for (const char *kind :
         {"file-read", "file-read-bytes", "file-reader", "random-access-read", "file-write"})
        EXPECT_TRUE(endsWith(found[kind].file, std::string("/") + kind)) << kind << ": " << found[kind].file;
    EXPECT_EQ(found["socket-read"].file, "");
}

// The road that reads a frame at once, without a list.
TEST_F(TierCalls, AreReadFromOneFrame) {
    CallVoid(TIERS, "start", "()V");
    const struct {
        const char *kind, *klass, *method, *url;
    } ROWS[] = {
        {"zoo-jserv", "org.apache.jserv.JServConnection", "run", "/jserv"},
        {"zoo-ferrule-run", "ferrule.servlet.internal.ServletRequestImpl", "run", "/ferrule"},
        {"zoo-ferrule-execute", "ferrule.servlet.internal.ServletRequestImpl", "execute",
         "/original/ferrule"},
        {"zoo-tomcat", "javax.servlet.http.HttpServlet", "service", ""}, // not a frame of this road
        {"zoo-view", "tessar.kvo.server.ViewObjectImpl", "getQueryHitCount", ""},
        {"zoo-remote", "ferrule.rjvm.ResponseImpl", "waitForData", ""},
    };
    for (const auto &row : ROWS) {
        Walk walk;
        ASSERT_TRUE(walk.find(row.kind));
        QorFrameRecord frame;
        bool isThere = false;
        for (walk.frames.index = 0; !isThere && walk.frames.index < walk.frames.count; walk.frames.index++)
            isThere = QorReadFrame(&walk.frames, FRAME_METHOD_AND_CLASS, &frame) == 0 &&
                      std::string(frame.className) == row.klass && std::string(frame.method) == row.method;
        ASSERT_TRUE(isThere) << row.klass;
        QorJSPRequestData &record = objQorJSPRequestData;
        QorClearJSPRequestData(&record);
        EXPECT_EQ(QorGetJSPRequest(&walk.thread, &frame, &record), 0);
        EXPECT_STREQ(record.requestUrl, row.url) << row.kind;
        char name[REQUEST_TEXT_SIZE] = "";
        EXPECT_EQ(getQRFData(&walk.thread, &frame,
                             "mViewDef,Ltessar/kvo/server/ViewDefImpl;|mObjName,Ljava/lang/String;", name),
                  0);
        EXPECT_STREQ(name, row.kind == std::string("zoo-view") ? "OrdersView" : "");
        QorRmiCallData rmi;
        QorClearRmiCallData(&rmi);
        EXPECT_EQ(QorGetRmiCallData(&walk.thread, &frame, &rmi), 0);
        EXPECT_STREQ(rmi.host, "");
    }
    CallVoid(TIERS, "stop", "()V");
}
