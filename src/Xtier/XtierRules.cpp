#include "XtierRules.h"

#include "ValueText.h"
#include "XtierDb.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/Monitors.h"
#include "jvmti/Session.h"
#include "qortiers.h"

#include <algorithm>
#include <cstring>
#include <ctime>

namespace {

constexpr jint REFERENCES = 128; // two for each step of a way
constexpr char STRING[] = "Ljava/lang/String;";

// Where a way has led: an object, or a range of a byte array when `to` isn't 0.
struct Found {
    jobject object;
    int32_t from, to;
};

// The text behind the first of `ends`, which is cut off; null when there is none.
char *Cut(char *text, const char *ends) {
    char *const at = text ? strpbrk(text, ends) : nullptr;
    if (!at)
        return nullptr;
    *at = 0;
    return at + 1;
}

// As QorGetObjField, but silent: that another version has no such field is no news.
jobject FieldOf(jobject object, const char *name, const char *signature) {
    jclass klass = QorGetObjectClass(jvmtijni_env, object);
    jobject value = nullptr;
    if (klass && QorIsClassInitialized(klass))
        if (jfieldID field = QorGetFieldID(jvmtijni_env, klass, name, signature))
            value = QorGetObjectField(jvmtijni_env, object, field);
    QorDeleteLocalRef(jvmtijni_env, klass);
    return value;
}

jobject ElementOf(jobject array, jobject owner, const char *indexField) {
    int32_t index = 0;
    auto *const elements = static_cast<jobjectArray>(array);
    if (QorGetIntObjectField(owner, indexField, "I", &index) < 0 || index < 0 ||
        index >= QorGetArrayLength(jvmtijni_env, elements))
        return nullptr;
    return QorGetObjectArrayElement(jvmtijni_env, elements, index);
}

// Goes one step from the object; false when the way ends there. The rules' reader has seen to the form.
bool Follow(char *step, Found *at) {
    jobject const owner = at->object;
    char *const signature = Cut(step, ",");
    char *const end = strpbrk(signature, "@:");
    const bool isElement = end && *end == '@';
    char *const from = Cut(signature, "@:"), *const to = isElement ? nullptr : Cut(from, ":");
    at->object = FieldOf(owner, step, signature);
    if (!at->object)
        return false;
    if (isElement)
        at->object = ElementOf(at->object, owner, from);
    else if (to && (QorGetIntObjectField(owner, from, "I", &at->from) < 0 ||
                    QorGetIntObjectField(owner, to, "I", &at->to) < 0 || at->from < 0 || at->to <= at->from))
        at->object = nullptr;
    return at->object;
}

// The references of the way stay with the caller's frame.
Found FollowWay(std::string_view way, jobject object) {
    char copy[TIER_WAY_SIZE + 1];
    const size_t length = std::min(way.size(), sizeof copy - 1);
    memcpy(copy, way.data(), length);
    copy[length] = 0;
    Found at = {object, 0, 0};
    for (char *step = copy, *next; step; step = next) {
        next = Cut(step, "|");
        if (!Follow(step, &at))
            return {nullptr, 0, 0};
    }
    return at;
}

bool IsString(jobject object) {
    char own[LOCAL_SIGNATURE_SIZE] = "";
    return QorGetObjectClassSignature(object, own) == 0 && strcmp(own, STRING) == 0;
}

bool ReadText(const Found &found, char *dest, int32_t capacity) {
    if (found.to != 0)
        QorReadByteText(static_cast<jbyteArray>(found.object), found.from, found.to - found.from, dest,
                        capacity);
    else if (IsString(found.object))
        QorReadValueText(static_cast<jstring>(found.object), dest, capacity);
    return dest[0];
}

// A range of bytes has no id of the whole text.
bool ReadSql(const Found &found, QorDBRequestData *record) {
    if (found.to == 0 && IsString(found.object))
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

bool IsEmpty(const QorDBRequestData &record, QorTierField field) {
    switch (field) {
    case TIER_URL:
        return !record.url[0];
    case TIER_SQL:
        return !record.sqlText[0];
    case TIER_USER:
        return !record.user[0];
    case TIER_SOCKET:
        break;
    }
    return record.fd == -1;
}

bool ReadField(const Found &found, QorTierField field, QorDBRequestData *record) {
    switch (field) {
    case TIER_URL:
        if (ReadText(found, record->url, sizeof record->url))
            QorHidePasswords(record->url);
        return record->url[0];
    case TIER_SQL:
        return ReadSql(found, record);
    case TIER_USER:
        return ReadText(found, record->user, sizeof record->user);
    case TIER_SOCKET:
        break;
    }
    return ReadSocket(found.object, record);
}

// Calls `read(field, found)` for each way of the entry's object whose field `wants` says is wanted.
template <class Wants, class Read>
void ReadWays(const QorAllThreadLocalInfoList &entry, uint32_t kind, Wants wants, Read read) {
    const QorTierObjects objects = QorFindTierObjects(entry.strSignature);
    if (!entry.objLocalVarHandle || objects.first == objects.last)
        return;
    for (const QorTierObject *object = objects.first; object != objects.last; object++)
        for (const QorTierWay *way = object->begin; object->kind == kind && way != object->end; way++) {
            if (!wants(way->field))
                continue;
            const QorLocalFrame references(jvmtijni_env, REFERENCES);
            const Found found = references.pushed ? FollowWay(way->way, entry.objLocalVarHandle) : Found{};
            if (found.object)
                read(way->field, found);
        }
}

} // namespace

bool QorReadDatabaseByRules(const QorAllThreadLocalInfoList &entry, QorDBRequestData *record) {
    bool any = false;
    ReadWays(
        entry, TIER_DB, [record](QorTierField field) { return IsEmpty(*record, field); },
        [record, &any](QorTierField field, const Found &found) {
            any = ReadField(found, field, record) || any;
        });
    return any;
}

void QorReadUrlByRules(const QorAllThreadLocalInfoList &entry, char *url) {
    ReadWays(
        entry, TIER_WEB, [url](QorTierField) { return !url[0]; },
        [url](QorTierField, const Found &found) { ReadText(found, url, REQUEST_TEXT_SIZE); });
}
