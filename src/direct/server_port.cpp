#include "server_port.h"

#include "server_walks.h"

#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include "gc_lock.h"
#include "qorutil/vm_heap.h"

#include <algorithm>
#include <cstring>
#include <ctime>

std::atomic<int32_t> serverAwaited;

namespace {

constexpr int32_t LONGEST_WAIT_SECONDS = 60; // all sleeps together: the application waits for its agent
constexpr long SLICE_NSEC = 100 * 1000 * 1000;
constexpr int32_t SLICES_PER_SECOND = 10;

// A port that was read while no collection moved objects; looked for once more if one did.
int32_t BetweenCollections(int32_t (*find)()) {
    for (int32_t tries = 0; tries < 2; tries++) {
        const uint32_t collections = QorCollectionCount();
        const bool quiet = !QorIsCollecting();
        const int32_t port = find();
        if (port == 0 || (quiet && !QorIsCollecting() && QorCollectionCount() == collections))
            return port;
    }
    return 0;
}

// False when the agent is asked to leave.
bool Sleep(int32_t seconds) {
    for (int32_t slices = seconds * SLICES_PER_SECOND; slices > 0 && !qorLeave; slices--) {
        const timespec slice = {0, SLICE_NSEC};
        nanosleep(&slice, nullptr);
    }
    return !qorLeave;
}

// Scans until the port is there or the time is over.
int32_t AwaitTomcat() {
    int32_t slept = 0;
    for (int32_t delay = 2;; delay *= 2) {
        if (const int32_t port = BetweenCollections(QorScanForPort))
            return port;
        const int32_t now = std::min(delay, LONGEST_WAIT_SECONDS - slept);
        if (delay > qormaxbackoff || now == 0) {
            QORLOG(LOG_ERROR, "Tomcat Port not Found in max retries");
            return 0;
        }
        qor_enable_gc();
        if (!Sleep(now))
            return 0;
        qor_disable_gc(GC_WAIT_BOUNDED);
        slept += now;
    }
}

int32_t FindTomcat() {
    // The engine on the main thread's stack is of no use: only its connectors' threads have the port.
    QORLOG(LOG_WARNING, "Tomcat.main does not contain org.apache.catalina.core.StandardEngine");
    serverAwaited = 1;
    const int32_t port = AwaitTomcat();
    serverAwaited = 0;
    if (port == 0)
        QORLOG(LOG_ERROR, "Tomcat.httpProcessor does not contain org.apache.tomcat.util.net.PoolTcpEndpoint");
    return port;
}

int32_t FindFerrule() {
    const int32_t port = BetweenCollections(findFerrulePort);
    return port ? port : BetweenCollections(findFerrule9Port);
}

int32_t FindQvs() {
    return ext_jvm_id_str[0] ? 0 : BetweenCollections(findQVSPort);
}

int32_t FindJServ() {
    return BetweenCollections(findJServPort);
}

int32_t FindByScan() {
    return BetweenCollections(QorScanForPort);
}

struct Server {
    const char *word;
    int32_t (*find)();
};
constexpr Server SERVERS[] = {
    {"Apache JServ", FindJServ}, {"QVS", FindQvs},         {"Tomcat", FindTomcat}, {"SAP", FindByScan},
    {"GlassFish", FindByScan},   {"Ferrule", FindFerrule}, {"JBoss", FindByScan},
};

} // namespace

void QorIdentifyServer() {
    QORLOG(LOG_DETAIL, "webserver is %s", webserver);
    for (const Server &server : SERVERS) {
        if (strncmp(webserver, server.word, WEBSERVER_SIZE) != 0)
            continue;
        qor_disable_gc(GC_WAIT_BOUNDED);
        if (const int32_t port = server.find())
            QorSetJvmPort(port);
        if (qorlocks[0])
            qor_enable_gc();
    }
}
