#include "XtierRules.h"

#include "TierReader.h"
#include "jvmti/JniCalls.h"
#include "jvmti/Session.h"
#include "qorlog.h"

#include <cstddef>

namespace {

constexpr jint REFERENCES = 128;     // two for each step of a way
constexpr int32_t RULE_FRAMES = 128; // of a thread, by their methods

#define QOR_FIELD(field) offsetof(QorRuleRecords, field), sizeof(QorRuleRecords::field)

// What a field of an `object` line is for a record.
struct FieldRow {
    uint32_t kind;
    QorTierField field;
    QorTierForm form;
    size_t offset, size;
};
constexpr FieldRow FIELDS[] = {
    {TIER_DB, TIER_URL, FORM_URL, QOR_FIELD(database.url)},
    {TIER_DB, TIER_SQL, FORM_SQL, QOR_FIELD(database)},
    {TIER_DB, TIER_USER, FORM_TEXT, QOR_FIELD(database.user)},
    {TIER_DB, TIER_SOCKET, FORM_SOCKET, QOR_FIELD(database)},
    {TIER_RMI, TIER_HOST, FORM_TEXT, QOR_FIELD(rmi.host)},
    {TIER_RMI, TIER_PORT, FORM_PORT, QOR_FIELD(rmi.port)},
    {TIER_RMI, TIER_NAME, FORM_URL, QOR_FIELD(rmi.jndiName)}, // of a request its path, with the query
    {TIER_RMI, TIER_URL, FORM_REMOTE_URL, QOR_FIELD(rmi)},
    {TIER_RMI, TIER_SOCKET, FORM_PEER, QOR_FIELD(rmi)},
    {TIER_WEB, TIER_URL, FORM_URL, QOR_FIELD(url)},
    {TIER_FILE, TIER_PATH, FORM_PATH, QOR_FIELD(file)},
};

#undef QOR_FIELD

const FieldRow *FindField(uint32_t kind, QorTierField field) {
    for (const FieldRow &row : FIELDS)
        if (row.kind == kind && row.field == field)
            return &row;
    return nullptr;
}

// Whether the field is still empty.
bool IsWanted(const QorRuleRecords &records, const FieldRow &row) {
    const QorRmiCallData &rmi = records.rmi;
    switch (row.form) {
    case FORM_SQL:
        return !records.database.sqlText[0];
    case FORM_SOCKET:
        return records.database.fd == -1;
    case FORM_PORT:
        return rmi.port == 0;
    case FORM_REMOTE_URL:
        return !rmi.host[0] || !rmi.jndiName[0];
    case FORM_PEER:
        return !rmi.host[0] || rmi.port == 0;
    default:
        return !*(reinterpret_cast<const char *>(&records) + row.offset);
    }
}

// An object known from sources alone is left alone once its first way has turned out not to fit; one that has
// led somewhere stays, whatever another class of that name has.
void Judge(const QorPathEnd &found, QorTierObject *object) {
    if (!object->isRead || object->fit != TIER_UNTRIED)
        return;
    if (found.missingAt < 0) {
        object->fit = found.IsThere() ? TIER_FITS : TIER_UNTRIED;
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
        const FieldRow *const field = FindField(line->kind, way->field);
        if (way->isLast != lastOnes || !field || !IsWanted(*records, *field))
            continue;
        const QorLocalFrame references(jvmtijni_env, REFERENCES);
        if (!references.pushed)
            return;
        const QorPathEnd found = QorFollowPath(way->way, object, PATH_SILENT);
        if (way == line->begin)
            Judge(found, line);
        char *const dest = reinterpret_cast<char *>(records) + field->offset;
        if (!found.IsThere() ||
            !QorStoreValue(field->form, found, object, dest, static_cast<int32_t>(field->size)))
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
