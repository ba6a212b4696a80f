#include "CallRecords.h"

#include <algorithm>

const char *const g_strDbTypeNames[DB_TYPE_COUNT] = {
    "DEEPDIVE_TESSAR_DB",
    "DEEPDIVE_IBM_DB2",
    "DEEPDIVE_SYBASE",
    "DEEPDIVE_SQL_SERVER",
};

QorJSPRequestData objQorJSPRequestData;

bool QorIsKnownDatabase(const QorDBRequestData &record) {
    return record.url[0] && (record.user[0] || record.dbType == DB_TYPE_OTHER);
}

void QorClearDBRequestData(QorDBRequestData *record) {
    record->url[0] = record->remoteHost[0] = record->user[0] = 0;
    record->localPort = record->remotePort = 0;
    record->connectionHash = 0;
    record->sqlRef = 0;
    record->threadName[0] = record->threadKey[0] = 0;
    record->sampleTime = 0;
    record->sqlText[0] = 0;
    record->dbType = DB_TYPE_TESSAR;
    record->fd = -1;
    record->prev = record->next = nullptr;
}

void QorClearJSPRequestData(QorJSPRequestData *record) {
    record->requestUrl[0] = record->requestDetail[0] = 0;
    record->qrfObjectName[0] = record->elExpression[0] = 0;
    record->groovyScript[0] = record->groovyCurrentLine[0] = 0;
    const int32_t used = std::min<int32_t>(record->groovyCallSiteCount, GROOVY_CALL_SITES);
    for (int32_t i = 0; i < used; i++)
        record->groovyCallSites[i][0] = 0;
    record->groovyCallSiteCount = 0;
    record->groovyCurrentIndex = -1;
}

void QorClearRmiCallData(QorRmiCallData *record) {
    record->jndiName[0] = record->host[0] = 0;
    record->callId = record->port = 0;
}

void QorClearIOCallData(QorIOCallData *record) {
    record->fileName[0] = 0;
    record->fd = -1;
}

void QorClearNetworkCallData(QorNetworkCallData *record) {
    record->fd = record->port = -1;
    record->host[0] = 0;
}

void QorClearAppServerCallData(QorAppServerCallData *record) {
    record->stuck = record->hogger = -1;
    record->applicationName[0] = record->moduleName[0] = record->wmName[0] = record->sessionId[0] = 0;
}
