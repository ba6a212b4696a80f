#include "XtierNetwork.h"

#include "SocketAddresses.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "qorlog.h"

#include <cstring>

namespace {

constexpr char DESCRIPTOR[] = "Ljava/io/FileDescriptor;";
constexpr jint FRAME_REFERENCES = 1024;

} // namespace

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
    if (strcmp(entry->strSignature, DESCRIPTOR) != 0)
        return 0;
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    int32_t fd = -1;
    if (QorGetIntObjectField(entry->objLocalVarHandle, "fd", "I", &fd) < 0)
        return 0;
    record->fd = fd;
    if (fd > 0)
        QorExtractNetworkSocketData(fd, record);
    return 0;
}
