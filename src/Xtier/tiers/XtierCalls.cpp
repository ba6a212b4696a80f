#include "XtierCalls.h"

#include "SocketAddresses.h"
#include "TierReader.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "platforms/linux.h"
#include "qorlog.h"

#include <cstring>

static_assert(FILE_NAME_SIZE == sizeof QorIOCallData::fileName, "the name is written there");

namespace {

constexpr jint FRAME_REFERENCES = 1024;
constexpr char DESCRIPTOR[] = "Ljava/io/FileDescriptor;";
constexpr char EXECUTE_THREAD[] = "Lferrule/work/ExecuteThread;";
constexpr char STUCK_MARK[] = "[STUCK]"; // what the server puts before the name of a stuck thread

// What the tables say of the entry's object; 0 without one, too.
int32_t Read(const QorAllThreadLocalInfoList &entry, QorTierRecord kind, void *record) {
    const QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    return QorReadByTables(entry.objLocalVarHandle, entry.strSignature, entry.methodName, kind, record);
}

} // namespace

int32_t QorGetRmiCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorRmiCallData *record) {
    if (!entry || !record)
        return -1;
    if (!entry->objLocalVarHandle)
        QORLOG(LOG_TRACE, "QorGetRmiCallDataFromLocalVariable : Obj Null");
    else
        Read(*entry, RECORD_RMI, record);
    return 0;
}

int32_t QorGetIOCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorIOCallData *record) {
    if (!entry || !record)
        return -1;
    record->fd = -1;
    if (!entry->objLocalVarHandle)
        QORLOG(LOG_TRACE, "QorGetIOCallDataFromLocalVariable : Obj Null");
    else
        Read(*entry, RECORD_FILE, record);
    return 0;
}

int32_t QorGetAppServerCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                                 QorAppServerCallData *record) {
    if (!entry || !record)
        return -1;
    if (!entry->objLocalVarHandle) {
        QORLOG(LOG_TRACE, "QorGetAppServerCallDataFromLocalVariable : Obj Null");
        return 0;
    }
    if (Read(*entry, RECORD_SERVER, record) == 0)
        return 0;
    if (strcmp(entry->strSignature, EXECUTE_THREAD) != 0) {
        QORLOG(LOG_TRACE, "Qor Agent Session Id %s", record->sessionId);
        return 0;
    }
    if (record->stuck < 0 && strncmp(entry->threadName, STUCK_MARK, strlen(STUCK_MARK)) == 0)
        record->stuck = 1;
    QORLOG(LOG_TRACE, " AppServer Data stuck %d Hogger %d applicationName %s moduleName %s wmName %s",
           record->stuck, record->hogger, record->applicationName, record->moduleName, record->wmName);
    return 0;
}

void QorExtractNetworkSocketData(int32_t fd, QorNetworkCallData *record) {
    uint32_t localPort = 0, remotePort = 0;
    QorGetSocketAddresses(fd, &localPort, &remotePort, record->host, sizeof record->host);
    record->port = static_cast<int32_t>(remotePort);
    QORLOG(LOG_TRACE, "Network Local Port: %d", static_cast<int32_t>(localPort));
    QORLOG(LOG_TRACE, "Network remote Port %d", record->port);
    QORLOG(LOG_TRACE, "Network remote Host %s", record->host);
}

int32_t QorGetNetworkCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry,
                                               QorNetworkCallData *record) {
    if (!entry || !record)
        return -1;
    record->fd = record->port = -1;
    record->host[0] = 0;
    if (!entry->objLocalVarHandle) {
        QORLOG(LOG_TRACE, "QorGetNetworkCallDataFromLocalVariable : Obj Null");
        return 0;
    }
    int32_t fd = -1;
    if (strcmp(entry->strSignature, DESCRIPTOR) != 0 ||
        QorGetIntObjectField(entry->objLocalVarHandle, "fd", "I", &fd) < 0)
        return 0;
    record->fd = fd;
    if (fd > 0)
        QorExtractNetworkSocketData(fd, record);
    return 0;
}
