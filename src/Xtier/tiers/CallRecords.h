// What the readers find out about a thread's work in the other tiers.
//
// The records are cleared for each thread and filled from the entries of its frames; a reader that fails
// leaves what it has not found empty. Texts are bounded, terminated and fit for a record (ValueText.h).
// Worker only.
#pragma once

#include <cstdint>

enum : int32_t {
    DB_URL_SIZE = 3072,
    REMOTE_HOST_SIZE = 128,
    DB_USER_SIZE = 64,
    DB_THREAD_NAME_SIZE = 256,
    DB_THREAD_KEY_SIZE = 50,
    SQL_TEXT_SIZE = 65536,
    REQUEST_TEXT_SIZE = 1024,
    GROOVY_SCRIPT_SIZE = 8192,
    GROOVY_LINE_SIZE = 512,
    GROOVY_CALL_SITES = 1000,
    RMI_HOST_SIZE = 256,
    SERVER_TEXT_SIZE = 1024,
};

// A database call, and an entry of the cache of connections.
struct QorDBRequestData {
    char url[DB_URL_SIZE];
    char remoteHost[REMOTE_HOST_SIZE];
    char user[DB_USER_SIZE];
    uint32_t localPort, remotePort; // 0 unknown
    int32_t connectionHash;         // JVMTI's hash code of the connection
    int64_t sqlRef;                 // reference of the SQL string as a bare number; printed, never used
    char threadName[DB_THREAD_NAME_SIZE];
    char threadKey[DB_THREAD_KEY_SIZE];
    int64_t sampleTime; // seconds since the epoch when the socket was read
    char sqlText[SQL_TEXT_SIZE];
    int32_t dbType;                // index of g_strDbTypeNames, or DB_TYPE_OTHER
    int64_t fd;                    // the connection's socket
    QorDBRequestData *prev, *next; // towards the less and the more recent, in the cache alone
};

enum : int32_t { DB_TYPE_OTHER = -1, DB_TYPE_TESSAR = 0, DB_TYPE_SYBASE = 2, DB_TYPE_COUNT = 4 };
extern const char *const g_strDbTypeNames[DB_TYPE_COUNT];

// Whether the call can be shown: its URL and its user have been read, or by rules the URL alone, as some
// databases have no users.
bool QorIsKnownDatabase(const QorDBRequestData &record);

// A web request, and what a framework frame works on.
struct QorJSPRequestData {
    char requestUrl[REQUEST_TEXT_SIZE];
    char requestDetail[REQUEST_TEXT_SIZE]; // no reader fills it
    char qrfObjectName[REQUEST_TEXT_SIZE];
    char elExpression[REQUEST_TEXT_SIZE];
    char groovyScript[GROOVY_SCRIPT_SIZE];
    char groovyCurrentLine[GROOVY_LINE_SIZE];
    char groovyCallSites[GROOVY_CALL_SITES][GROOVY_LINE_SIZE];
    int32_t groovyCallSiteCount; // rows in use; the others hold another thread's texts
    int32_t groovyCurrentIndex;  // -1 absent
};

// The record of the current thread; half a megabyte, so there is one.
extern QorJSPRequestData objQorJSPRequestData;

struct QorRmiCallData {
    char jndiName[DB_URL_SIZE];
    int32_t callId;
    int32_t port;
    char host[RMI_HOST_SIZE]; // by the tables an address whose parts are those of a signed number; by the
                              // rules a name or an address as it is
};

struct QorIOCallData {
    char fileName[DB_URL_SIZE];
    int32_t fd; // -1 until read
};

struct QorNetworkCallData {
    int32_t fd;   // -1 until read
    int32_t port; // -1 until read
    char host[REMOTE_HOST_SIZE];
};

struct QorAppServerCallData {
    int32_t stuck;  // 1 stuck, 0 not, -1 unknown
    int32_t hogger; // the same
    char applicationName[SERVER_TEXT_SIZE];
    char moduleName[SERVER_TEXT_SIZE];
    char wmName[SERVER_TEXT_SIZE];
    char sessionId[SERVER_TEXT_SIZE];
};

// Empties a record. Only what may be read again is written: first bytes, numbers and rows in use.
void QorClearDBRequestData(QorDBRequestData *record);
void QorClearJSPRequestData(QorJSPRequestData *record);
void QorClearRmiCallData(QorRmiCallData *record);
void QorClearIOCallData(QorIOCallData *record);
void QorClearNetworkCallData(QorNetworkCallData *record);
void QorClearAppServerCallData(QorAppServerCallData *record);
