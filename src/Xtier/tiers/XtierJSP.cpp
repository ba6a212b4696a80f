#include "XtierJSP.h"

#include "ObjectMap.h"
#include "ValueText.h"
#include "Xtier/walk/LocalWalk.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "qorStrUtils.h"
#include "qorlog.h"

#include <algorithm>
#include <cstring>
#include <iterator>

namespace {

// How a URL is made from a request object.
enum RequestForm {
    REQUEST_STRING,      // `path` leads to a String
    REQUEST_STRING_TOLD, // the same, and a miss is logged
    REQUEST_ENVIRONMENT, // `path` leads to a Hashtable with the URL under a key of its own
    REQUEST_BYTES,       // `path` leads to a range of a byte array
    REQUEST_VERB_PATH,   // `path` leads to the verb, `secondPath` to the path: verb, "-", path
    REQUEST_JOINED,      // `path` leads to the first half, `secondPath` to the second
};

// One row for each kind of request object and frame.
struct RequestRow {
    const char *signature, *otherSpelling; // of the request object
    const char *method;                    // only in frames of this method; null for any
    RequestForm form;
    const char *path, *secondPath; // object maps
    bool fromFrame;                // known to QorGetJSPRequest as well
};

constexpr RequestRow ROWS[] = {
    // Apache JServ
    {"org/apache/jserv/JServConnection", "Lorg/apache/jserv/JServConnection;", nullptr, REQUEST_ENVIRONMENT,
     "env_vars,Ljava/util/Hashtable;", nullptr, true},
    // Ferrule
    {"Lferrule/servlet/internal/ServletRequestImpl;", "ferrule/servlet/internal/ServletRequestImpl", "run",
     REQUEST_STRING, "servletPath,Ljava/lang/String;", nullptr, true},
    // Ferrule
    {"Lferrule/servlet/internal/ServletRequestImpl;", "ferrule/servlet/internal/ServletRequestImpl",
     "execute", REQUEST_STRING, "originalURI,Ljava/lang/String;", nullptr, true},
    // Tomcat
    {"org/apache/catalina/connector/RequestFacade;", "Lorg/apache/catalina/connector/RequestFacade;", nullptr,
     REQUEST_STRING_TOLD,
     "request,Lorg/apache/catalina/connector/Request;|requestDispatcherPath,Ljava/lang/Object;|"
     "strValue,Ljava/lang/String;",
     nullptr, true},
    // Lumo
    {"com/halcyon/server/http/HalcyonHttpServletRequest;",
     "Lcom/halcyon/server/http/HalcyonHttpServletRequest;", nullptr, REQUEST_BYTES,
     "servletPath,Lcom/halcyon/util/ByteString;", nullptr, false},
    // WebSphere
    {"com/ibm/ws/webcontainer/srt/SRTServletRequest;", "Lcom/ibm/ws/webcontainer/srt/SRTServletRequest;",
     nullptr, REQUEST_STRING,
     "_dispatchContext,Lcom/ibm/ws/webcontainer/webapp/WebAppDispatcherContext;|"
     "_servletPath,Ljava/lang/String;",
     nullptr, false},
    // Jersey (glassfish)
    {"Lorg/glassfish/jersey/server/ContainerRequest", "Lorg/glassfish/jersey/server/ContainerRequest;",
     nullptr, REQUEST_VERB_PATH, "httpMethod,Ljava/lang/String;",
     "requestUri,Ljava/net/URI;|path,Ljava/lang/String;", false},
    // Ferrule filter
    {"Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper;",
     "Lferrule/servlet/internal/RequestEventsFilter$EventsRequestWrapper", nullptr, REQUEST_JOINED,
     "request,Ljavax/servlet/ServletRequest;|context,Lferrule/servlet/internal/WebAppServletContext;|"
     "contextName,Ljava/lang/String;",
     "request,Ljavax/servlet/ServletRequest;|relativeURI,Ljava/lang/String;", false},
    // Jersey (sun)
    {"Lcom/sun/jersey/spi/container/ContainerRequest", "Lcom/sun/jersey/spi/container/ContainerRequest;",
     nullptr, REQUEST_VERB_PATH, "method,Ljava/lang/String;",
     "requestUri,Ljava/net/URI;|path,Ljava/lang/String;", false},
};

constexpr char ENVIRONMENT_KEY[] = "REQUEST_URI";
constexpr char STRING[] = "Ljava/lang/String;";
constexpr jint FRAME_REFERENCES = 1024;

// Classes whose frames the frame road acts on.
constexpr const char *FRAME_CLASSES[] = {
    "org.apache.jserv.JServConnection",
    "ferrule.servlet.internal.ServletRequestImpl",
};

// Appends what fits, whole characters.
void AppendCut(char *text, const char *added) {
    const auto length = static_cast<int32_t>(strlen(text));
    QorStrncpy(text + length, added, REQUEST_TEXT_SIZE - length, REQUEST_TEXT_SIZE);
    QorDropPartialCharacter(text, static_cast<int32_t>(strlen(text)));
}

void ReadEnvironment(jobject object, const char *path, char *url) {
    jobject table = QorFollowObjectMap(path, object), value = nullptr;
    if (!table)
        return;
    QorGetHashValue(&table, ENVIRONMENT_KEY, &value);
    char signature[NAME_SIZE] = "";
    // The application may have put anything there.
    if (value && QorGetObjectClassSignature(value, signature) == 0 && strcmp(signature, STRING) == 0)
        QorReadValueText(static_cast<jstring>(value), url, REQUEST_TEXT_SIZE);
}

void ReadBytes(jobject object, const char *path, char *url) {
    jobject bytes = QorFollowObjectMap(path, object), data = nullptr;
    if (!bytes)
        return;
    int32_t offset = 0, length = 0;
    if (QorGetIntObjectField(bytes, "offset", "I", &offset) == 0 &&
        QorGetIntObjectField(bytes, "length", "I", &length) == 0 &&
        QorGetObjField(bytes, "data", "[B", &data) == 0 && data)
        QorReadByteText(static_cast<jbyteArray>(data), offset, length, url, REQUEST_TEXT_SIZE);
}

// Two texts, each of which may be missing, with `between` where both are there.
void ReadTwo(jobject object, const RequestRow &row, const char *between, char *url) {
    char second[REQUEST_TEXT_SIZE];
    QorReadStringByMap(row.path, object, url, REQUEST_TEXT_SIZE);
    QorReadStringByMap(row.secondPath, object, second, REQUEST_TEXT_SIZE);
    if (!*second)
        return;
    if (*url)
        AppendCut(url, between);
    AppendCut(url, second);
}

void ReadUrl(jobject object, const RequestRow &row, char *url) {
    url[0] = 0;
    switch (row.form) {
    case REQUEST_STRING:
    case REQUEST_STRING_TOLD:
        if (QorReadStringByMap(row.path, object, url, REQUEST_TEXT_SIZE) < 0 &&
            row.form == REQUEST_STRING_TOLD)
            QORLOG_RATIONED(LOG_ERROR, "Qor Agent Error: Not able to get String Object for map %s", row.path);
        break;
    case REQUEST_ENVIRONMENT:
        ReadEnvironment(object, row.path, url);
        break;
    case REQUEST_BYTES:
        ReadBytes(object, row.path, url);
        break;
    case REQUEST_VERB_PATH:
        ReadTwo(object, row, "-", url);
        break;
    case REQUEST_JOINED:
        ReadTwo(object, row, "", url);
        break;
    }
}

const RequestRow *FindRow(const char *signature, const char *method) {
    for (const RequestRow &row : ROWS)
        if ((strcmp(signature, row.signature) == 0 || strcmp(signature, row.otherSpelling) == 0) &&
            (!row.method || strcmp(method, row.method) == 0))
            return &row;
    return nullptr;
}

} // namespace

int32_t QorGetJSPRequestDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                              QorJSPRequestData *record) {
    if (!entry) {
        QORLOG(LOG_ERROR, "QorGetJSPRequestDataFromLocalVariable : ptrQorAllThreadLocalInfoList NULL");
        return -1;
    }
    if (!record) {
        QORLOG(LOG_ERROR, "QorGetJSPRequestDataFromLocalVariable : ptrQorJSPRequestData NULL");
        return -1;
    }
    if (!entry->objLocalVarHandle)
        return 0;
    const RequestRow *row = FindRow(entry->strSignature, entry->methodName);
    if (!row)
        return 0;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    if (!frame.pushed)
        QORLOG(LOG_ERROR, "QorAgent : Out of Memory XtierJSP");
    ReadUrl(entry->objLocalVarHandle, *row, record->requestUrl);
    record->requestDetail[0] = 0;
    return 0;
}

int32_t QorGetJSPRequest(const QorThreadRecord *thread, const QorFrameRecord *frame,
                         QorJSPRequestData *record) {
    if (!thread) {
        QORLOG(LOG_ERROR, "QorGetJSPRequest : ptrThrInfo NULL");
        return -1;
    }
    if (!frame) {
        QORLOG(LOG_ERROR, "QorGetJSPRequest : QorFrameExtractedInfoObj NULL");
        return -1;
    }
    if (!record) {
        QORLOG(LOG_ERROR, "QorGetJSPRequest : ptrQorJSPRequestData NULL");
        return -1;
    }
    const bool isRequest =
        std::any_of(std::begin(FRAME_CLASSES), std::end(FRAME_CLASSES),
                    [frame](const char *name) { return strcmp(frame->className, name) == 0; });
    if (!isRequest || record->requestUrl[0])
        return 0;
    QorLocalFrame references(jvmtijni_env, FRAME_REFERENCES);
    QorLocalObjectRecord local;
    if (!references.pushed || QorGetLocalObject(thread->tid, frame->methodId, &local) < 0 || !local.object)
        return 0;
    const RequestRow *row = FindRow(local.signature, frame->method);
    if (!row || !row->fromFrame)
        return 0;
    ReadUrl(local.object, *row, record->requestUrl);
    record->requestDetail[0] = 0;
    return 0;
}
