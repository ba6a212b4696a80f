#include "objects.h"

#include "failure.h"
#include "protocol.h"
#include "records.h"

namespace qorctl {

namespace {

struct ModifierWord {
    std::string_view start;
    const char *name;
};
constexpr ModifierWord MODIFIERS[] = {
    {"Static: ", "static"}, {"Public: ", "public"}, {"Private: ", "private"}, {"Protected: ", "protected"}};

// A record, or the word that stands behind the last one.
template <class T>
struct Row {
    T value;
    bool end = false;
};

bool StartsWith(std::string_view text, std::string_view start) {
    return text.substr(0, start.size()) == start;
}

// A field's type with its modifier in front.
std::string_view TakeModifier(std::string_view type, std::string *modifier) {
    for (const ModifierWord &word : MODIFIERS)
        if (StartsWith(type, word.start)) {
            *modifier = word.name;
            return type.substr(word.start.size());
        }
    return type;
}

bool IsReference(std::string_view signature) {
    return !signature.empty() && (signature[0] == '[' || (signature[0] == 'L' && signature.back() == ';'));
}

bool ReadLocal(std::string_view record, Row<Local> *row) {
    row->end = record == ROWS_END;
    if (row->end)
        return true;
    std::vector<std::string_view> field = Split(record, FIELD_SEP);
    int64_t tag = 0;
    if (field.size() != 4 || (field[0] != NO_VALUE && !ReadNumber(field[0], &tag)))
        return false;
    if (field[0] != NO_VALUE)
        row->value.tag = tag;
    row->value.type = JavaName(field[2]);
    row->value.value = field[3];
    return true;
}

bool ReadField(std::string_view record, std::string_view class_signature, Row<ObjectField> *row) {
    row->end = record == ROWS_END;
    if (row->end)
        return true;
    std::vector<std::string_view> part = Split(record, FIELD_SEP);
    if (part.size() != 5)
        return false;
    ObjectField &field = row->value;
    std::string_view signature = TakeModifier(part[2], &field.modifier);
    field.type = JavaName(signature);
    field.name = part[3];
    if (part[0] != NO_VALUE) {
        field.kind = FieldKind::REFERENCE;
        return ReadNumber(part[0], &field.tag);
    }
    if (field.modifier.empty() && IsReference(signature) && StartsWith(class_signature, signature))
        field.kind = FieldKind::NOT_SHOWN;
    else if (IsReference(signature))
        field.kind = FieldKind::NONE;
    else
        field.value = part[4];
    return true;
}

bool ReadObjectName(std::string_view record, std::string *signature) {
    if (!StartsWith(record, OBJECT_NAME))
        return false;
    *signature = record.substr(OBJECT_NAME.size());
    return true;
}

} // namespace

Locals DecodeLocals(const Reply &reply) {
    Locals locals;
    RecordReader reader(reply);
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_LOCALS)
            reader.Each<Row<Local>>(section, ReadLocal, [&](Row<Local> &&row) {
                if (!row.end)
                    locals.rows.push_back(std::move(row.value));
            });
        else
            reader.Unknown(section);
    }
    locals.jvm_microseconds = reply.jvm_microseconds;
    locals.cut = reader.cut();
    return locals;
}

ObjectView DecodeObject(const Reply &reply, int64_t tag) {
    ObjectView object;
    object.tag = tag;
    RecordReader reader(reply);
    std::string signature;
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_MESSAGE) {
            reader.Each<std::string>(section, ReadObjectName, [&](std::string &&name) {
                signature = std::move(name);
                object.classes.push_back({JavaName(signature), {}});
            });
        } else if (section.title == TITLE_OBJECT && !object.classes.empty()) {
            auto read = [&](std::string_view record, Row<ObjectField> *row) {
                return ReadField(record, signature, row);
            };
            reader.Each<Row<ObjectField>>(section, read, [&](Row<ObjectField> &&row) {
                if (!row.end)
                    object.classes.back().fields.push_back(std::move(row.value));
            });
        } else if (section.title == TITLE_NO_FIELDS || section.title == TITLE_OBJECT_PARENT) {
            reader.Skip(section);
        } else {
            reader.Unknown(section);
        }
    }
    object.jvm_microseconds = reply.jvm_microseconds;
    object.cut = reader.cut();
    return object;
}

const ObjectField *FindField(const ObjectView &object, std::string_view name) {
    for (const ObjectClass &entry : object.classes)
        for (const ObjectField &field : entry.fields)
            if (field.name == name)
                return &field;
    return nullptr;
}

} // namespace qorctl
