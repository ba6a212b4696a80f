#include "objects.h"

#include "base/failure.h"
#include "base/starts_with.h"
#include "protocol.h"
#include "records.h"

#include <fmt/format.h>

namespace qorctl {

namespace {

struct ModifierWord {
    std::string_view start;
    const char *name;
};
constexpr ModifierWord MODIFIERS[] = {{"Static: ", "static"},
                                      {"static ", "static"},
                                      {"Public: ", "public"},
                                      {"Private: ", "private"},
                                      {"Protected: ", "protected"}};

// A record, or the word that is after the last one.
template <class T>
struct Row {
    T value;
    bool end = false;
};

bool IsNoObject(std::string_view title) {
    return title == NULL_OBJECT || title == INVALID_OBJECT || title == NULL_ARRAY;
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
    if (field.size() < 4 || (field[0] != NO_VALUE && !ReadNumber(field[0], &tag)))
        return false;
    if (field[0] != NO_VALUE)
        row->value.tag = tag;
    row->value.type = JavaName(field[2]);
    row->value.value = field[3];
    return true;
}

// "java.lang.String Array D-1 Array D-2" as Java writes it.
std::string TypeByAddress(std::string_view text) {
    size_t brackets = 0, end = text.size();
    for (size_t at; (at = text.substr(0, end).rfind(ARRAY_DIMENSION)) != text.npos && at + 1 < end; end = at)
        ++brackets;
    std::string type(text.substr(0, end));
    for (; brackets > 0; --brackets)
        type += "[]";
    return type;
}

// "Array T" as Java writes it.
std::string LocalTypeByAddress(std::string_view text) {
    std::string dimensions;
    for (; StartsWith(text, ARRAY_OF); text.remove_prefix(ARRAY_OF.size()))
        dimensions += "[]";
    return (text == NO_VALUE ? "?" : std::string(text)) + dimensions; // types are kept of arguments alone
}

// A row of arguments or locals: address, flag, type and a label or a text; or a value.
bool ReadLocalByAddress(std::string_view record, Local *local) {
    std::vector<std::string_view> field = Split(record, FIELD_SEP);
    if (field.size() == 3)
        field.push_back(VIEW_OBJECT); // of the object or class that the frame runs in
    if (field.size() < 4)
        return false;
    local->type = LocalTypeByAddress(field[2]);
    if (field[0] == NO_VALUE) {
        local->value = field[3];
        return true;
    }
    local->isText = field[3] != VIEW_OBJECT && field[3] != VIEW_ARRAY && field[3] != VIEW_CLASS;
    if (local->isText)
        local->value = field[3];
    return ReadHex(field[0], &local->tag.emplace());
}

// "String Array Element[I] : TEXT", the first one a record, all others titles.
bool ReadStringElement(std::string_view title, ObjectField *field) {
    size_t end = title.find(TEXT_FOLLOWS);
    if (!StartsWith(title, STRING_ELEMENT) || end == title.npos)
        return false;
    field->type = "java.lang.String";
    field->name =
        fmt::format("Array Element {}", title.substr(STRING_ELEMENT.size(), end - STRING_ELEMENT.size()));
    field->value = title.substr(end + TEXT_FOLLOWS.size());
    return true;
}

// A row of fields or elements: address, flag, type, name and a label; or a value.
bool ReadFieldByAddress(std::string_view record, ObjectField *field) {
    std::vector<std::string_view> part = Split(record, FIELD_SEP);
    if (part.size() < 5)
        return ReadStringElement(record, field);
    field->type = TypeByAddress(TakeModifier(part[2], &field->modifier));
    field->name = part[3];
    if (part[0] != NO_VALUE) {
        field->kind = FieldKind::REFERENCE;
        return ReadHex(part[0], &field->tag);
    }
    field->kind = part[4] == NULL_OBJECT ? FieldKind::NONE : FieldKind::VALUE;
    field->value = field->kind == FieldKind::VALUE ? part[4] : "";
    return true;
}

bool ReadField(std::string_view record, std::string_view class_signature, Row<ObjectField> *row) {
    row->end = record == ROWS_END;
    if (row->end)
        return true;
    std::vector<std::string_view> part = Split(record, FIELD_SEP);
    if (part.size() < 5)
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

// A frame's section where the JVM is read by address; false for none.
bool AddSectionByAddress(const Section &section, RecordReader *reader, Locals *locals) {
    auto add = [&](Local &&row) { locals->rows.push_back(std::move(row)); };
    if (section.title == TITLE_FRAME || section.title == NO_LOCALS)
        reader->Skip(section);
    else if (section.title == TITLE_THIS_OBJECT || section.title == TITLE_THIS_CLASS ||
             section.title == TITLE_ARGUMENTS)
        reader->Each<Local>(section, ReadLocalByAddress, add);
    else if (section.title == NO_SUCH_FRAME || section.title == NO_SUCH_METHOD)
        locals->refusal = section.title;
    else
        return false;
    return true;
}

// The same of an object; its head says by a blank that it is of that road.
bool AddSectionByAddress(const Section &section, RecordReader *reader, ObjectView *object) {
    auto add = [&](ObjectField &&field) { object->classes.back().fields.push_back(std::move(field)); };
    ObjectField element;
    if (section.title == TITLE_OBJECT_PARENT && section.records.size() == 1)
        object->classes.push_back({TypeByAddress(section.records[0]), {}});
    else if (section.title == TITLE_OBJECT)
        reader->Each<ObjectField>(section, ReadFieldByAddress, add);
    else if (section.title == NO_FIELDS_EXIST || section.title == NO_FIELD_TABLE)
        reader->Skip(section);
    else if (ReadStringElement(section.title, &element))
        add(std::move(element));
    else
        return false;
    return true;
}

} // namespace

Locals DecodeLocals(const Reply &reply) {
    Locals locals;
    RecordReader reader(reply);
    bool by_address = false;
    for (const Section &section : reply.sections) {
        if (AddSectionByAddress(section, &reader, &locals))
            by_address = true;
        else if (section.title == TITLE_LOCALS && by_address)
            reader.Each<Local>(section, ReadLocalByAddress,
                               [&](Local &&row) { locals.rows.push_back(std::move(row)); });
        else if (section.title == TITLE_LOCALS)
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
    bool by_address = false;
    for (const Section &section : reply.sections) {
        if (section.title == TITLE_MESSAGE) {
            reader.Each<std::string>(section, ReadObjectName, [&](std::string &&name) {
                by_address = StartsWith(name, " ");
                signature = by_address ? TypeByAddress(name.substr(1)) : std::move(name);
                object.classes.push_back({JavaName(signature), {}});
            });
        } else if (object.classes.empty() && IsNoObject(section.title)) {
            reader.Skip(section);
        } else if (by_address) {
            if (!AddSectionByAddress(section, &reader, &object))
                reader.Unknown(section);
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
