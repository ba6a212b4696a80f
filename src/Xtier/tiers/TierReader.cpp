#include "TierReader.h"

#include "CallRecords.h"
#include "RemoteUrl.h"
#include "SocketAddresses.h"
#include "XtierDb.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "jvmti/ValueText.h"
#include "jvmti/threads/ThreadSystem.h"
#include "platforms/linux.h"
#include "qorStrUtils.h"
#include "qorlog.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>

namespace {

constexpr char STRING[] = "Ljava/lang/String;", DESCRIPTOR[] = "Ljava/io/FileDescriptor;";
constexpr char ENVIRONMENT_KEY[] = "REQUEST_URI";
constexpr int32_t LARGEST_PORT = 65535;

int32_t isRMIInfoInsideHolder; // 1 once this JVM has shown that InetSocketAddress keeps a holder

bool IsOfClass(jobject object, const char *signature) {
    char own[NAME_SIZE] = "";
    return object && QorGetObjectClassSignature(object, own) == 0 && strcmp(own, signature) == 0;
}

bool ReadRawText(const QorPathEnd &found, char *dest, int32_t capacity) {
    if (!found.object)
        return false; // the script of an earlier frame stays
    dest[0] = 0;
    QorReadString(jvmtijni_env, static_cast<jstring>(found.object), dest, capacity, BLANK_NOTHING);
    return dest[0];
}

// Appends what fits, whole characters.
void AppendCut(char *text, const char *added, int32_t capacity) {
    const auto length = static_cast<int32_t>(strlen(text));
    QorStrncpy(text + length, added, capacity - length, capacity);
    QorDropPartialCharacter(text, static_cast<int32_t>(strlen(text)));
}

bool AppendText(const QorPathEnd &found, const char *between, char *dest, int32_t capacity) {
    char text[REQUEST_TEXT_SIZE];
    if (!QorReadText(found, text, sizeof text))
        return false;
    if (*dest)
        AppendCut(dest, between, capacity);
    AppendCut(dest, text, capacity);
    return true;
}

bool ReadEnvironment(jobject table, char *dest, int32_t capacity) {
    jobject value = nullptr;
    dest[0] = 0;
    if (table)
        QorGetHashValue(&table, ENVIRONMENT_KEY, &value);
    // The application may have put anything there.
    if (IsOfClass(value, STRING))
        QorReadString(jvmtijni_env, static_cast<jstring>(value), dest, capacity, BLANK_SEPARATORS);
    return dest[0];
}

bool StoreNumber(const QorPathEnd &found, void *dest) {
    const auto number = static_cast<int32_t>(found.number);
    if (found.isNumber)
        memcpy(dest, &number, sizeof number);
    return found.isNumber;
}

bool ReadCallId(jobject peer, jobject call, int32_t *id) {
    int32_t number = 0;
    if (!peer)
        return false;
    if (QorGetIntObjectField(peer, "id", "I", &number) < 0)
        QorGetIntObjectField(call, "id", "I", &number);
    *id = number;
    return true;
}

// The host of a socket address: its own field on JVMs up to 7, later one of a holder.
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
bool ReadAddress(jobject address, char *dest, int32_t capacity) {
    constexpr int32_t FIRST = 1 << 24, SECOND = 1 << 16, THIRD = 1 << 8;
    jobject host = address ? FindHost(address) : nullptr;
    const int32_t number = host ? ReadAddressNumber(host) : 0;
    if (number == 0)
        return false;
    snprintf(dest, static_cast<size_t>(capacity), "%d.%d.%d.%d", number / FIRST, number % FIRST / SECOND,
             number % SECOND / THIRD, number % THIRD);
    return true;
}

// A name is any bytes.
bool ReadNameOfFile(int32_t fd, char *name) {
    if (fd <= 0 || QorGetFileNameFromFD(fd, name) != 0)
        return false;
    QorMakeFit(name);
    return name[0];
}

bool ReadDescriptor(jobject descriptor, QorIOCallData *file) {
    int32_t fd = -1;
    if (!descriptor || QorGetIntObjectField(descriptor, "fd", "I", &fd) < 0)
        return false;
    file->fd = fd;
    ReadNameOfFile(fd, file->fileName);
    return true;
}

bool ReadPath(const QorPathEnd &found, char *dest, int32_t capacity) {
    int32_t fd = -1;
    if (found.to != 0 || !IsOfClass(found.object, DESCRIPTOR))
        return QorReadText(found, dest, capacity);
    return QorGetIntObjectField(found.object, "fd", "I", &fd) == 0 && ReadNameOfFile(fd, dest);
}

bool ReadUrl(const QorPathEnd &found, char *dest, int32_t capacity) {
    if (QorReadText(found, dest, capacity))
        QorHidePasswords(dest);
    return dest[0];
}

bool ReadPort(const QorPathEnd &found, int32_t *port) {
    char text[8] = "";
    const int64_t number = found.isNumber                          ? found.number
                           : QorReadText(found, text, sizeof text) ? atoi(text)
                                                                   : 0;
    *port = number > 0 && number <= LARGEST_PORT ? static_cast<int32_t>(number) : 0;
    return *port != 0;
}

// A range of bytes has no id of the whole text.
bool ReadSql(const QorPathEnd &found, QorDBRequestData *record) {
    if (found.to == 0 && (found.isText || IsOfClass(found.object, STRING)))
        QorReadSqlText(static_cast<jstring>(found.object), record);
    return record->sqlText[0];
}

bool ReadSocket(jobject socket, QorDBRequestData *record) {
    int64_t fd = -1;
    if (!socket || QorGetFdFromSocket(socket, &fd) < 0 || fd == -1)
        return false;
    record->fd = fd;
    QorReadConnectionHash(socket, record); // a connection of a pool keeps its socket
    QorExtractDBSocketData(fd, record);
    record->sampleTime = time(nullptr);
    return true;
}

// Host and port come together, unless the host is known.
bool TakePeer(const char *host, int32_t port, QorRmiCallData *record) {
    if (!host[0])
        return false;
    if (!record->host[0])
        memcpy(record->host, host, strlen(host) + 1);
    if (record->port == 0)
        record->port = port;
    return true;
}

bool ReadRemoteUrl(const QorPathEnd &found, QorRmiCallData *record) {
    char url[DB_URL_SIZE] = "", host[RMI_HOST_SIZE];
    int32_t port = 0;
    if (!QorReadText(found, url, sizeof url))
        return false;
    if (!record->host[0] && QorReadRemoteUrl(url, host, sizeof host, &port))
        TakePeer(host, port, record);
    if (!record->jndiName[0]) {
        QorHidePasswords(url);
        memcpy(record->jndiName, url, sizeof url);
    }
    return true;
}

bool ReadPeer(jobject socket, QorRmiCallData *record) {
    int64_t fd = -1;
    uint32_t localPort = 0, remotePort = 0;
    char host[RMI_HOST_SIZE] = "";
    if (!socket || QorGetFdFromSocket(socket, &fd) < 0 || fd == -1)
        return false;
    QorGetSocketAddresses(fd, &localPort, &remotePort, host, sizeof host);
    return TakePeer(host, static_cast<int32_t>(remotePort), record);
}

} // namespace

bool QorReadText(const QorPathEnd &found, char *dest, int32_t capacity) {
    dest[0] = 0;
    if (found.to != 0 && found.object)
        QorReadByteText(static_cast<jbyteArray>(found.object), found.from, found.to - found.from, dest,
                        capacity);
    else if (found.object && (found.isText || IsOfClass(found.object, STRING)))
        QorReadString(jvmtijni_env, static_cast<jstring>(found.object), dest, capacity, BLANK_SEPARATORS);
    return dest[0];
}

bool QorStoreValue(QorTierForm form, const QorPathEnd &found, jobject start, void *dest, int32_t size) {
    auto *const text = static_cast<char *>(dest);
    auto *const number = static_cast<int32_t *>(dest);
    auto *const database = static_cast<QorDBRequestData *>(dest);
    auto *const call = static_cast<QorRmiCallData *>(dest);
    switch (form) {
    case FORM_TEXT:
    case FORM_TEXT_TOLD:
        return QorReadText(found, text, size);
    case FORM_RAW_TEXT:
        return ReadRawText(found, text, size);
    case FORM_URL:
        return ReadUrl(found, text, size);
    case FORM_APPENDED:
        return AppendText(found, "", text, size);
    case FORM_AFTER_DASH:
        return AppendText(found, "-", text, size);
    case FORM_ENVIRONMENT:
        return ReadEnvironment(found.object, text, size);
    case FORM_NUMBER_OR_NONE:
        *number = -1;
        return StoreNumber(found, dest);
    case FORM_NUMBER:
        return StoreNumber(found, dest);
    case FORM_CALL_ID:
        return ReadCallId(found.object, start, number);
    case FORM_ADDRESS:
        return ReadAddress(found.object, text, size);
    case FORM_DESCRIPTOR:
        return ReadDescriptor(found.object, static_cast<QorIOCallData *>(dest));
    case FORM_PATH:
        return ReadPath(found, text, size);
    case FORM_PORT:
        return ReadPort(found, number);
    case FORM_SQL:
        return ReadSql(found, database);
    case FORM_SOCKET:
        return ReadSocket(found.object, database);
    case FORM_PEER:
        return ReadPeer(found.object, call);
    case FORM_REMOTE_URL:
        return ReadRemoteUrl(found, call);
    case FORM_OBJECT:
    case FORM_DIRECT:
    case FORM_LAYERED:
        break;
    }
    return false;
}

int32_t QorReadByTables(jobject object, const char *signature, const char *method, QorTierRecord kind,
                        void *record) {
    const QorTableObject *row = QorFindTableObject(signature);
    int32_t result = 0;
    if (!row)
        return 0;
    for (const QorTableWay &way : row->ways) {
        const QorTierTarget &target = *way.target;
        if (target.record != kind || (way.method && strcmp(method, way.method) != 0))
            continue;
        const QorPathEnd found = QorFollowPath(way.way, object, PATH_LOGGED);
        QorStoreValue(way.form, found, object, static_cast<char *>(record) + target.offset,
                      static_cast<int32_t>(target.size));
        if (!found.IsThere() && way.form == FORM_TEXT_TOLD)
            QORLOG_RATIONED(LOG_ERROR, "Qor Agent Error: Not able to get String Object for map %s", way.way);
        result = found.IsThere() ? 1 : -1;
        if (found.object != object)
            QorDeleteLocalRef(jvmtijni_env, found.object);
    }
    return result;
}

const char *QorWayTo(const QorTableObject &row, const QorTierTarget &target) {
    for (const QorTableWay &way : row.ways)
        if (way.target == &target)
            return way.way;
    return nullptr;
}
