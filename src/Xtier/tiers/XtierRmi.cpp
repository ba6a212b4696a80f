#include "XtierRmi.h"

#include "ObjectMap.h"
#include "Xtier/walk/LocalWalk.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "qorlog.h"
#include "tier.h"

#include <cstdio>
#include <cstring>

namespace {

constexpr jint FRAME_REFERENCES = 1024;

// What is read from the response that a thread waits for.
constexpr char RESPONSE[] = "Lferrule/rjvm/ResponseImpl;";
constexpr char RESPONSE_PEER[] = "rjvm,Lferrule/rjvm/RJVM;";
constexpr char PEER_CHANNEL[] = "remoteChannel,Lferrule/rmi/spi/Channel;";
constexpr char CHANNEL_ADDRESS[] = "address,Ljava/net/InetSocketAddress;";

// And from the reference that it calls.
constexpr char REMOTE_REFERENCE[] = "Lferrule/rmi/cluster/ClusterableRemoteRef;";
constexpr char JNDI_NAME[] =
    "replicaHandler,Lferrule/rmi/cluster/ReplicaHandler;|jndiName,Ljava/lang/String;";

int32_t isRMIInfoInsideHolder; // 1 once this JVM has shown that InetSocketAddress keeps a holder

// The host of a socket address: a field of its own on JVMs up to 7, later one of a holder.
jobject FindHost(jobject address) {
    jobject host = nullptr, holder = nullptr;
    if (!isRMIInfoInsideHolder)
        QorGetObjField(address, "addr", "Ljava/net/InetAddress;", &host);
    if (host)
        return host;
    QorGetObjField(address, "holder", "Ljava/net/InetSocketAddress$InetSocketAddressHolder;", &holder);
    if (holder) {
        isRMIInfoInsideHolder = 1;
        QorGetObjField(holder, "addr", "Ljava/net/InetAddress;", &host);
    }
    return host;
}

// The number of an IPv4 address, 0 for any other: it has moved into a holder too.
int32_t ReadAddressNumber(jobject host) {
    int32_t number = 0;
    jobject holder = nullptr;
    if (QorGetIntObjectField(host, "address", "I", &number) == 0)
        return number;
    QorGetObjField(host, "holder", "Ljava/net/InetAddress$InetAddressHolder;", &holder);
    if (holder)
        QorGetIntObjectField(holder, "address", "I", &number);
    return number;
}

// The parts are those of a signed division: addresses from 128.0.0.0 on have negative ones, which the console
// puts together again.
void WriteHost(int32_t number, char *host) {
    constexpr int32_t FIRST = 1 << 24, SECOND = 1 << 16, THIRD = 1 << 8;
    snprintf(host, RMI_HOST_SIZE, "%d.%d.%d.%d", number / FIRST, number % FIRST / SECOND,
             number % SECOND / THIRD, number % THIRD);
}

void ReadResponse(jobject response, bool withHost, QorRmiCallData *record) {
    int32_t id = 0;
    QorGetIntObjectField(response, "id", "I", &id);
    jobject peer = QorFollowObjectMap(RESPONSE_PEER, response);
    if (!peer)
        return;
    // The connection's own number, where it has one.
    if (QorGetIntObjectField(peer, "id", "I", &record->callId) < 0)
        record->callId = id;
    jobject channel = QorFollowObjectMap(PEER_CHANNEL, peer);
    if (!channel)
        return;
    QorGetIntObjectField(channel, "port", "I", &record->port);
    if (!withHost)
        return;
    jobject address = QorFollowObjectMap(CHANNEL_ADDRESS, channel);
    jobject host = address ? FindHost(address) : nullptr;
    const int32_t number = host ? ReadAddressNumber(host) : 0;
    if (number != 0)
        WriteHost(number, record->host);
}

void ReadRmiObject(jobject object, const char *signature, bool withHost, QorRmiCallData *record) {
    QorLocalFrame frame(jvmtijni_env, FRAME_REFERENCES);
    if (strcmp(signature, RESPONSE) == 0)
        ReadResponse(object, withHost, record);
    else if (strcmp(signature, REMOTE_REFERENCE) == 0)
        QorReadStringByMap(JNDI_NAME, object, record->jndiName, sizeof record->jndiName);
}

} // namespace

int32_t QorGetRmiCallDataFromLocalVariable(const QorAllThreadLocalInfoList *entry, QorRmiCallData *record) {
    if (!entry || !record)
        return -1;
    if (!entry->objLocalVarHandle)
        QORLOG(LOG_TRACE, "QorGetRmiCallDataFromLocalVariable : Obj Null");
    else
        ReadRmiObject(entry->objLocalVarHandle, entry->strSignature, true, record);
    return 0;
}

int32_t QorGetRmiCallData(const QorThreadRecord *thread, const QorFrameRecord *frame,
                          QorRmiCallData *record) {
    if (!thread || !frame || !record)
        return -1;
    QorLocalFrame references(jvmtijni_env, FRAME_REFERENCES);
    QorLocalObjectRecord local;
    if (references.pushed && IsRmiCallDataPresent(frame) &&
        QorGetLocalObject(thread->tid, frame->methodId, &local) == 0 && local.object)
        ReadRmiObject(local.object, local.signature, false, record);
    return 0;
}
