#include "client_port.h"

#include "RequestHandler/threads/all_threads.h"
#include "Xtier/ConnectionCache.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "reply/qorformat.h"

#include <cstdlib>

namespace {

// The connection of this process at a local port; null when none was seen. Port 0 is one that is not known.
const QorDBRequestData *FindConnection(uint32_t port) {
    if (port == 0)
        return nullptr;
    for (int32_t i = 0; i < iDBInfoIndex; ++i)
        if (gbDB_Info[i].localPort == port)
            return &gbDB_Info[i];
    return nullptr;
}

} // namespace

void QorShowDBXtierThreadInfo(uint32_t, QorText *reply, char **args) {
    if (!reply || !args[0]) {
        QORLOG(LOG_ERROR, "QorShowDBXtierThreadInfo console_buf is NULL or console_args[0] is NULL");
        return;
    }
    QorShowAllThreadRequest(QORREQ_MEMORY_ACTIVITY, reply, args); // all threads, for the connections' sake
    const QorDBRequestData *connection = FindConnection(static_cast<uint32_t>(atoi(args[0])));
    QorTextCut(reply, 0);
    if (!connection) {
        QorTextAppend(reply, NO_CLIENT_PORT);
        return;
    }
    QorTextAppend(reply, connection->threadName);
    QorTextAppend(reply, "|");
    QorTextAppend(reply, connection->threadKey);
}
