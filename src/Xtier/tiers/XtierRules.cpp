#include "XtierRules.h"

#include "RemoteUrl.h"
#include "RulePath.h"
#include "SocketAddresses.h"
#include "ValueText.h"
#include "XtierDb.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Session.h"
#include "platforms/linux.h"
#include "qorlog.h"

#include <cstdlib>
#include <cstring>
#include <ctime>
#include <initializer_list>

namespace {

constexpr jint REFERENCES = 128; // two for each step of a way
constexpr int32_t LARGEST_PORT = 65535;
constexpr int32_t RULE_FRAMES = 128; // of a thread, by their methods
constexpr char STRING[] = "Ljava/lang/String;", DESCRIPTOR[] = "Ljava/io/FileDescriptor;";

bool IsOfClass(jobject object, const char *signature) {
    char own[LOCAL_SIGNATURE_SIZE] = "";
    return QorGetObjectClassSignature(object, own) == 0 && strcmp(own, signature) == 0;
}

bool ReadText(const QorPathEnd &found, char *dest, int32_t capacity) {
    if (found.to != 0)
        QorReadByteText(static_cast<jbyteArray>(found.object), found.from, found.to - found.from, dest,
                        capacity);
    else if (IsOfClass(found.object, STRING))
        QorReadValueText(static_cast<jstring>(found.object), dest, capacity);
    return dest[0];
}

// A range of bytes has no id of the whole text.
bool ReadSql(const QorPathEnd &found, QorDBRequestData *record) {
    if (found.to == 0 && IsOfClass(found.object, STRING))
        QorReadSqlText(static_cast<jstring>(found.object), record);
    return record->sqlText[0];
}

bool ReadSocket(jobject socket, QorDBRequestData *record) {
    int64_t fd = -1;
    if (QorGetFdFromSocket(socket, &fd) < 0 || fd == -1)
        return false;
    record->fd = fd;
    QorReadConnectionHash(socket, record); // a connection of a pool keeps its socket
    QorExtractDBSocketData(fd, record);
    record->sampleTime = time(nullptr);
    return true;
}

bool ReadUrl(const QorPathEnd &found, char *url, int32_t capacity) {
    if (ReadText(found, url, capacity))
        QorHidePasswords(url);
    return url[0];
}

bool IsEmpty(const QorDBRequestData &record, QorTierField field) {
    switch (field) {
    case TIER_URL:
        return !record.url[0];
    case TIER_SQL:
        return !record.sqlText[0];
    case TIER_USER:
        return !record.user[0];
    default:
        return record.fd == -1;
    }
}

bool ReadDatabase(const QorPathEnd &found, QorTierField field, QorDBRequestData *record) {
    switch (field) {
    case TIER_URL:
        return ReadUrl(found, record->url, sizeof record->url);
    case TIER_SQL:
        return ReadSql(found, record);
    case TIER_USER:
        return ReadText(found, record->user, sizeof record->user);
    default:
        return ReadSocket(found.object, record);
    }
}

bool IsEmpty(const QorRmiCallData &record, QorTierField field) {
    switch (field) {
    case TIER_PORT:
        return record.port == 0;
    case TIER_NAME:
        return !record.jndiName[0];
    case TIER_URL:
        return !record.host[0] || !record.jndiName[0];
    case TIER_SOCKET:
        return !record.host[0] || record.port == 0;
    default:
        return !record.host[0];
    }
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
    if (!ReadText(found, url, sizeof url))
        return false;
    if (!record->host[0] && QorReadRemoteUrl(url, host, sizeof host, &port))
        TakePeer(host, port, record);
    if (!record->jndiName[0]) {
        QorHidePasswords(url);
        memcpy(record->jndiName, url, sizeof url);
    }
    return true;
}

bool ReadRemoteSocket(jobject socket, QorRmiCallData *record) {
    int64_t fd = -1;
    uint32_t localPort = 0, remotePort = 0;
    char host[RMI_HOST_SIZE] = "";
    if (QorGetFdFromSocket(socket, &fd) < 0 || fd == -1)
        return false;
    QorGetSocketAddresses(fd, &localPort, &remotePort, host, sizeof host);
    return TakePeer(host, static_cast<int32_t>(remotePort), record);
}

bool ReadPort(const QorPathEnd &found, QorRmiCallData *record) {
    char text[8] = "";
    const int32_t port = found.isNumber ? found.number : ReadText(found, text, sizeof text) ? atoi(text) : 0;
    record->port = port > 0 && port <= LARGEST_PORT ? port : 0;
    return record->port != 0;
}

bool ReadRemoteCall(const QorPathEnd &found, QorTierField field, QorRmiCallData *record) {
    switch (field) {
    case TIER_PORT:
        return ReadPort(found, record);
    case TIER_NAME: // that of a request is its path, with the query
        return ReadUrl(found, record->jndiName, sizeof record->jndiName);
    case TIER_URL:
        return ReadRemoteUrl(found, record);
    case TIER_SOCKET:
        return ReadRemoteSocket(found.object, record);
    default:
        return ReadText(found, record->host, sizeof record->host);
    }
}

// A file's name, or its descriptor, whose name the system has.
bool ReadFile(const QorPathEnd &found, char *name) {
    int32_t fd = -1;
    if (found.to != 0 || !IsOfClass(found.object, DESCRIPTOR))
        return ReadText(found, name, DB_URL_SIZE);
    if (QorGetIntObjectField(found.object, "fd", "I", &fd) < 0 || fd <= 0 ||
        QorGetFileNameFromFD(fd, name) != 0)
        return false;
    QorReplaceForeignBytes(name);
    QorBlankSeparators(name);
    return name[0];
}

bool IsWanted(const QorRuleRecords &records, uint32_t kind, QorTierField field) {
    switch (kind) {
    case TIER_DB:
        return IsEmpty(records.database, field);
    case TIER_RMI:
        return IsEmpty(records.rmi, field);
    default:
        return kind == TIER_WEB ? !records.url[0] : !records.file[0];
    }
}

bool Read(const QorPathEnd &found, uint32_t kind, QorTierField field, QorRuleRecords *records) {
    switch (kind) {
    case TIER_DB:
        return ReadDatabase(found, field, &records->database);
    case TIER_RMI:
        return ReadRemoteCall(found, field, &records->rmi);
    default:
        return kind == TIER_WEB ? ReadUrl(found, records->url, sizeof records->url)
                                : ReadFile(found, records->file);
    }
}

// An object known from sources alone is left alone once its first way has turned out not to fit; one that has
// led somewhere stays, whatever another class of that name has.
void Judge(const QorPathEnd &found, QorTierObject *object) {
    if (!object->isRead || object->fit != TIER_UNTRIED)
        return;
    if (!found.noSuchField) {
        object->fit = found.object || found.isNumber ? TIER_FITS : TIER_UNTRIED;
        return;
    }
    object->fit = TIER_OFF;
    QORLOG(LOG_ERROR, "Tier rules: line %d is off, as the loaded class has no such field: %.*s", object->line,
           static_cast<int>(object->signature.size()), object->signature.data());
}

void ReadObject(jobject object, QorTierObject *line, bool lastOnes, QorRuleRecords *records) {
    std::string_view &product = line->kind == TIER_RMI ? records->rmiProduct : records->databaseProduct;
    if (!line->product.empty() && !product.empty() && product != line->product)
        return; // a driver that is called inside another one's call: two calls don't mix
    for (const QorTierWay *way = line->begin; way != line->end && line->fit != TIER_OFF; way++) {
        if (way->isLast != lastOnes || !IsWanted(*records, line->kind, way->field))
            continue;
        const QorLocalFrame references(jvmtijni_env, REFERENCES);
        if (!references.pushed)
            return;
        const QorPathEnd found = QorFollowPath(way->way, object);
        if (way == line->begin)
            Judge(found, line);
        if ((!found.object && !found.isNumber) || !Read(found, line->kind, way->field, records))
            continue;
        if (!line->product.empty())
            product = line->product;
        if (line->isRead)
            records->kindsByRead |= line->kind;
    }
}

void ReadEntry(const QorAllThreadLocalInfoList &entry, bool lastOnes, QorRuleRecords *records) {
    for (int32_t i = 0; i < entry.ruleObjectCount; i++)
        for (QorTierObject *line = entry.ruleObjects[i].lines.first; line != entry.ruleObjects[i].lines.last;
             line++)
            if (line->kind & entry.tiers)
                ReadObject(entry.ruleObjects[i].object, line, lastOnes, records);
}

} // namespace

void QorClearRuleRecords(QorRuleRecords *records) {
    QorClearDBRequestData(&records->database);
    records->database.dbType = DB_TYPE_OTHER;
    QorClearRmiCallData(&records->rmi);
    records->url[0] = records->file[0] = 0;
    records->kindsByRead = 0;
    records->databaseProduct = records->rmiProduct = {};
}

void QorReadThreadByRules(const QorAllThreadLocalInfoList *newest, int64_t threadId,
                          QorRuleRecords *records) {
    const QorAllThreadLocalInfoList *frames[RULE_FRAMES];
    int32_t count = 0;
    for (const QorAllThreadLocalInfoList *entry = newest; entry && entry->threadId == threadId;
         entry = entry->next)
        if (entry->ruleObjectCount > 0 && count < RULE_FRAMES)
            frames[count++] = entry;
    for (const bool lastOnes : {false, true})
        for (int32_t i = count - 1; i >= 0; i--)
            ReadEntry(*frames[i], lastOnes, records);
}
