#include "JvmFixture.h"
#include "LogCapture.h"
#include "ModelObjects.h"
#include "Xtier/tiers/XtierJSP.h"
#include "jvmti/JniCalls.h"

namespace {

struct WebRequests : SessionTest {
    static std::string urlOf(const std::string &signature, const char *method, jobject object) {
        const ModelEntry entry(LOCAL_WEB_REQUEST, signature, object, method, "app.Frame");
        QorJSPRequestData &record = objQorJSPRequestData;
        QorClearJSPRequestData(&record);
        record.requestDetail[0] = 'x';
        EXPECT_EQ(QorGetJSPRequestDataFromLocalVariable(&entry, &record), 0);
        if (record.requestUrl[0]) {
            EXPECT_EQ(record.requestDetail[0], 0) << signature;
        }
        return record.requestUrl;
    }
};

struct Server {
    const char *klass;
    std::vector<std::string> spellings;
    const char *method;
    const char *path; // where the URL's text is planted
    const char *before = "";
    const char *beforePath = nullptr;
    const char *between = "";
};

const Server SERVERS[] = {
    {"ferrule/servlet/internal/ServletRequestImpl",
     {"Lferrule/servlet/internal/ServletRequestImpl;", "ferrule/servlet/internal/ServletRequestImpl"},
     "run",
     "servletPath,Ljava/lang/String;"},
    {"ferrule/servlet/internal/ServletRequestImpl",
     {"Lferrule/servlet/internal/ServletRequestImpl;", "ferrule/servlet/internal/ServletRequestImpl"},
     "execute",
     "originalURI,Ljava/lang/String;"},
    {"org/apache/catalina/connector/RequestFacade",
     {"org/apache/catalina/connector/RequestFacade;", "Lorg/apache/catalina/connector/RequestFacade;"},
     "service",
     "request,Lorg/apache/catalina/connector/Request;|"
     "requestDispatcherPath,Ljava/lang/Object;=org/apache/tomcat/util/buf/MessageBytes|"
     "strValue,Ljava/lang/String;"},
    {"com/ibm/ws/webcontainer/srt/SRTServletRequest",
     {"com/ibm/ws/webcontainer/srt/SRTServletRequest;", "Lcom/ibm/ws/webcontainer/srt/SRTServletRequest;"},
     "service",
     "_dispatchContext,Lcom/ibm/ws/webcontainer/webapp/WebAppDispatcherContext;|"
     "_servletPath,Ljava/lang/String;"},
    {"org/glassfish/jersey/server/ContainerRequest",
     {"Lorg/glassfish/jersey/server/ContainerRequest", "Lorg/glassfish/jersey/server/ContainerRequest;"},
     "invoke",
     "requestUri,Ljava/net/URI;|path,Ljava/lang/String;",
     "GET",
     "httpMethod,Ljava/lang/String;",
     "-"},
    {"com/sun/jersey/spi/container/ContainerRequest",
     {"Lcom/sun/jersey/spi/container/ContainerRequest", "Lcom/sun/jersey/spi/container/ContainerRequest;"},
     "handleRequest",
     "requestUri,Ljava/net/URI;|path,Ljava/lang/String;",
     "PUT",
     "method,Ljava/lang/String;",
     "-"},
    {"ferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper",
     {"Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper;",
      "Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper"},
     "doFilter",
     "request,Ljavax/servlet/ServletRequest;=ferrule/servlet/internal/ServletRequestImpl|"
     "relativeURI,Ljava/lang/String;",
     "/context",
     "request,Ljavax/servlet/ServletRequest;=ferrule/servlet/internal/ServletRequestImpl|"
     "context,Lferrule/servlet/internal/WebAppServletContext;|contextName,Ljava/lang/String;",
     ""},
};

jobject makeBytes(const std::string &text, int offset, int length) {
    jobject request = MakeObject("com/halcyon/server/http/HalcyonHttpServletRequest");
    jbyteArray data = Env()->NewByteArray(static_cast<jsize>(text.size()));
    Env()->SetByteArrayRegion(data, 0, static_cast<jsize>(text.size()),
                              reinterpret_cast<const jbyte *>(text.data()));
    Plant(request, "servletPath,Lcom/halcyon/util/ByteString;|offset,I", std::to_string(offset));
    Plant(request, "servletPath,Lcom/halcyon/util/ByteString;|length,I", std::to_string(length));
    PlantObject(request, "servletPath,Lcom/halcyon/util/ByteString;|data,[B", data);
    return request;
}

jobject makeJServ(jobject table, jobject uri) {
    jobject connection = MakeObject("org/apache/jserv/JServConnection");
    PlantObject(connection, "env_vars,Ljava/util/Hashtable;", table);
    if (uri) {
        jclass klass = Env()->GetObjectClass(table);
        jmethodID put =
            Env()->GetMethodID(klass, "put", "(Ljava/lang/Object;Ljava/lang/Object;)Ljava/lang/Object;");
        Env()->CallObjectMethod(table, put, Text("REQUEST_URI"), uri);
        EXPECT_FALSE(Env()->ExceptionCheck());
    }
    return connection;
}

jobject newHashtable() {
    jclass klass = Env()->FindClass("java/util/Hashtable");
    return Env()->NewObject(klass, Env()->GetMethodID(klass, "<init>", "()V"));
}

constexpr char JSERV[] = "Lorg/apache/jserv/JServConnection;";

} // namespace

TEST_F(WebRequests, ShowTheUrlOfEveryServer) {
    for (const Server &server : SERVERS)
        for (const std::string &value : TrialValues()) {
            QorLocalFrame references(Env(), 64);
            jobject request = MakeObject(server.klass);
            Plant(request, server.path, value);
            if (server.beforePath)
                Plant(request, server.beforePath, server.before);
            const std::string between = value.empty() ? "" : server.between;
            for (const std::string &signature : server.spellings)
                EXPECT_EQ(urlOf(signature, server.method, request),
                          Shown(server.before + between + value, REQUEST_TEXT_SIZE))
                    << signature;
        }
}

TEST_F(WebRequests, WithoutTheFieldsAreEmpty) {
    LogCapture log(1);
    for (const Server &server : SERVERS)
        for (const std::string &signature : server.spellings) {
            QorLocalFrame references(Env(), 64);
            EXPECT_EQ(urlOf(signature, server.method, MakeObject(server.klass)), "") << "null fields";
            EXPECT_EQ(urlOf(signature, server.method, MakeObject("java/lang/Object")), "") << "no fields";
        }
    EXPECT_EQ(log.count("Qor Agent Error: Not able to get String Object for map "
                        "request,Lorg/apache/catalina/connector/Request;|requestDispatcherPath,"
                        "Ljava/lang/Object;|strValue,Ljava/lang/String;"),
              1)
        << "one line a minute";
    EXPECT_EQ(log.count("Qor Agent Error: Not able to get String Object"), 1);
    EXPECT_EQ(urlOf("Lapp/Other;", "run", MakeObject("java/lang/Object")), "");

    // A frame in which the request isn't served.
    jobject request = MakeObject(SERVERS[0].klass);
    Plant(request, SERVERS[0].path, "/a");
    Plant(request, SERVERS[1].path, "/b");
    for (const char *method : {"service", "runs", "", "executeAll"})
        EXPECT_EQ(urlOf(SERVERS[0].spellings[0], method, request), "") << method;
}

TEST_F(WebRequests, ShowWhatThereIsOfTwoParts) {
    for (const Server &server : SERVERS) {
        if (!server.beforePath)
            continue;
        jobject first = MakeObject(server.klass), second = MakeObject(server.klass);
        Plant(first, server.beforePath, "HALF");
        Plant(second, server.path, "/half");
        EXPECT_EQ(urlOf(server.spellings[0], server.method, first), "HALF");
        EXPECT_EQ(urlOf(server.spellings[0], server.method, second), "/half");
    }
}

TEST_F(WebRequests, OfLumoAreARangeOfBytes) {
    const std::string longText(3000, 'b');
    const struct {
        std::string bytes;
        int offset, length;
        std::string url;
    } ROWS[] = {
        {"xx/path?yy", 2, 5, "/path"},
        {"/path", 0, 5, "/path"},
        {"/path", 0, 6, ""},
        {"/path", 3, 3, ""},
        {"/path", 2147483647, 2147483647, ""},
        {"/path", -1, 3, ""},
        {"/path", 0, 0, ""},
        {"/path", 0, -1, ""},
        {"", 0, 1, ""},
        {longText, 0, 3000, longText.substr(0, 1023)},
        {longText, 1, 1023, longText.substr(0, 1023)},
        {std::string("/a\0b", 4), 0, 4, "/a?b"},
        {"/\xe9t\xe9", 0, 4, "/?t?"},
        {"/\xc3\xa9\x1d\n", 0, 5, "/\xc3\xa9  "},
        {std::string(1022, 'b') + "\xc3\xa9", 0, 1024, std::string(1022, 'b')},
    };
    for (const auto &row : ROWS)
        for (const char *signature : {"com/halcyon/server/http/HalcyonHttpServletRequest;",
                                      "Lcom/halcyon/server/http/HalcyonHttpServletRequest;"}) {
            QorLocalFrame references(Env(), 64);
            EXPECT_EQ(urlOf(signature, "service", makeBytes(row.bytes, row.offset, row.length)), row.url)
                << row.offset << " " << row.length;
        }
    const std::string emoji = urlOf("Lcom/halcyon/server/http/HalcyonHttpServletRequest;", "service",
                                    makeBytes("/\xf0\x9f\x98\x80/end", 0, 9));
    EXPECT_EQ(emoji.find_first_not_of("?/end"), std::string::npos) << emoji;
    EXPECT_EQ(emoji.substr(emoji.size() - 4), "/end");

    jobject withoutArray = MakeObject("com/halcyon/server/http/HalcyonHttpServletRequest");
    Plant(withoutArray, "servletPath,Lcom/halcyon/util/ByteString;|length,I", "3");
    EXPECT_EQ(urlOf("Lcom/halcyon/server/http/HalcyonHttpServletRequest;", "service", withoutArray), "");
}

// Where JVMTI can't be asked for a table's lock, the table isn't read.
TEST_F(WebRequests, OfJServStandInATable) {
    for (const std::string &value : TrialValues())
        for (const char *signature : {JSERV, "org/apache/jserv/JServConnection"}) {
            QorLocalFrame references(Env(), 64);
            EXPECT_EQ(urlOf(signature, "run", makeJServ(newHashtable(), Text(value))),
                      gbQorJvmKeepsThreads ? Shown(value, REQUEST_TEXT_SIZE) : "");
        }
    EXPECT_EQ(urlOf(JSERV, "run", makeJServ(newHashtable(), nullptr)), "");
    EXPECT_EQ(urlOf(JSERV, "run", makeJServ(nullptr, nullptr)), "");
    EXPECT_EQ(urlOf(JSERV, "run", MakeObject("java/lang/Object")), "");
    EXPECT_EQ(urlOf(JSERV, "run", makeJServ(newHashtable(), newHashtable())), "")
        << "a value that is no text";
}

// The table's lock belongs to a thread that doesn't give it back: the reader must not wait for it.
TEST_F(WebRequests, AreNotWaitedFor) {
    jobject table = CallObject("qoragent/testing/Obstacles", "lockedTable", "()Ljava/util/Hashtable;");
    EXPECT_EQ(urlOf(JSERV, "run", makeJServ(table, nullptr)), "");
    CallVoid("qoragent/testing/Obstacles", "release", "()V");
    EXPECT_EQ(urlOf(JSERV, "run", makeJServ(table, nullptr)), gbQorJvmKeepsThreads ? "/locked" : "");

    jobject unborn = CallObject("qoragent/testing/Obstacles", "inInitializer", "()Ljava/lang/Object;");
    EXPECT_EQ(urlOf(SERVERS[0].spellings[0], "run", unborn), "");
    CallVoid("qoragent/testing/Obstacles", "release", "()V");
    EXPECT_EQ(urlOf(SERVERS[0].spellings[0], "run", unborn), "/born");
}
