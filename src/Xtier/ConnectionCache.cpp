#include "ConnectionCache.h"

#include "AgingList.h"
#include "qorStrUtils.h"
#include "qorlog.h"

#include <cstdlib>
#include <cstring>

QorDBRequestData *gbDB_Info;
int32_t iDBInfoIndex;

namespace {

QorAgingList<QorDBRequestData> dbInfoAge;

// Connections without a hash, of rules that don't know the socket, differ by their URL.
bool IsOneUrl(const QorDBRequestData &known, const QorDBRequestData &record) {
    return record.connectionHash != 0 || strcmp(known.url, record.url) == 0;
}

bool IsKnown(const QorDBRequestData *record) {
    for (int32_t i = 0; i < iDBInfoIndex; i++) {
        const QorDBRequestData &known = gbDB_Info[i];
        if (known.connectionHash == record->connectionHash && IsOneUrl(known, *record) &&
            strncmp(known.threadName, record->threadName, DB_THREAD_NAME_SIZE) == 0 &&
            strncmp(known.threadKey, record->threadKey, DB_THREAD_KEY_SIZE) == 0)
            return true;
    }
    return false;
}

QorDBRequestData *TakeOldest(const QorDBRequestData *added) {
    QORLOG(LOG_TRACE, "Aging out JDBC Conn ID %d for JDBC Conn ID %d",
           static_cast<int>(dbInfoAge.oldest->localPort), static_cast<int>(added->localPort));
    return QorTakeOldest(&dbInfoAge);
}

template <size_t SIZE>
void CopyText(char (&dest)[SIZE], const char (&text)[SIZE]) {
    QorStrncpy(dest, text, SIZE, SIZE);
}

void CopyFields(QorDBRequestData *entry, const QorDBRequestData *record) {
    CopyText(entry->url, record->url);
    CopyText(entry->user, record->user);
    entry->localPort = record->localPort;
    entry->remotePort = record->remotePort;
    CopyText(entry->remoteHost, record->remoteHost);
    entry->connectionHash = record->connectionHash;
    entry->sqlRef = record->sqlRef;
    CopyText(entry->sqlText, record->sqlText);
    entry->dbType = record->dbType;
    CopyText(entry->threadName, record->threadName);
    CopyText(entry->threadKey, record->threadKey);
    entry->sampleTime = record->sampleTime;
    entry->fd = record->fd;
}

} // namespace

int32_t QorUpdateDbConnectionInfo(const QorDBRequestData *record) {
    if (!record) {
        QORLOG(LOG_ERROR, "QorUpdateDbConnectionInfo : Pointer to DB INFO NULL");
        return -1;
    }
    if (!gbDB_Info)
        gbDB_Info = static_cast<QorDBRequestData *>(calloc(DB_CONNECTIONS, sizeof *gbDB_Info));
    if (!gbDB_Info) {
        QORLOG(LOG_ERROR, "no memory for the connections that were seen");
        return -1;
    }
    if (IsKnown(record))
        return 0;
    QorDBRequestData *entry = iDBInfoIndex < DB_CONNECTIONS ? &gbDB_Info[iDBInfoIndex++] : TakeOldest(record);
    QorLinkAsNewest(&dbInfoAge, entry);
    CopyFields(entry, record);
    return 0;
}

void QorDropDbConnections() {
    free(gbDB_Info);
    gbDB_Info = nullptr;
    dbInfoAge = {};
    iDBInfoIndex = 0;
}
