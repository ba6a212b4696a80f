#include "objects.h"

#include <cstdio>

namespace simvm {

namespace {

void DefineUtilities() {
    static bool done;
    if (done)
        return;
    done = true;
    for (const char *line :
         {"java/lang/AbstractStringBuilder value,[C count,I",
          "java/lang/StringBuffer < java/lang/AbstractStringBuilder",
          "java/util/Hashtable$Entry hash,I key,Ljava/lang/Object; value,Ljava/lang/Object; "
          "next,Ljava/util/Hashtable$Entry;",
          "java/util/Hashtable table,[Ljava/util/Hashtable$Entry; count,I",
          "java/util/Properties < java/util/Hashtable defaults,Ljava/util/Properties;",
          "java/util/HashMap$Entry key,Ljava/lang/Object; value,Ljava/lang/Object; hash,I "
          "next,Ljava/util/HashMap$Entry;",
          "java/util/HashMap table,[Ljava/util/HashMap$Entry; size,I"})
        DefineClass(line);
}

Object *NewChars16(const std::u16string &chars) {
    return NewElements("[C", std::vector<Value>(chars.begin(), chars.end()));
}

std::string Quoted(const std::u16string &chars) {
    std::string out = "\"";
    char unit[8];
    for (char16_t one : chars) {
        bool plain = one >= ' ' && one < 127 && one != '"' && one != '\\';
        snprintf(unit, sizeof unit, plain ? "%c" : "\\u%04x", one);
        out += unit;
    }
    return out + '"';
}

bool IsText(const Object *object) {
    return object->type->name == "java/lang/String" || object->type->name == "java/lang/StringBuffer";
}

} // namespace

Object *New(const std::string &className, const Fields &fields, char space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    DefineUtilities();
    Object *object = NewObject(className, space);
    for (auto &[name, value] : fields)
        Set(object, name, value);
    return object;
}

Object *NewElements(const std::string &signature, const std::vector<Value> &elements, char space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Object *array = NewArray(signature, elements.size(), space);
    for (size_t i = 0; i < elements.size(); i++)
        SetElement(array, i, elements[i]);
    return array;
}

Object *NewPartOf(const std::u16string &chars, int32_t offset, int32_t count) {
    return New("java/lang/String", {{"value", NewChars16(chars)}, {"offset", offset}, {"count", count}});
}

Object *NewBuffer(const std::string &text) {
    return New("java/lang/StringBuffer", {{"value", NewChars(text + "unused")}, {"count", text.size()}});
}

Object *NewTable(const std::string &className, int32_t buckets, const std::vector<TableEntry> &entries,
                 bool cyclic) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    std::string entryClass =
        className == "java/util/HashMap" ? "java/util/HashMap$Entry" : "java/util/Hashtable$Entry";
    Object *object = New(className, {}), *table = NewArray("[L" + entryClass + ";", buckets);
    std::map<int32_t, std::pair<Object *, Object *>> chains; // first and last entry
    for (const TableEntry &entry : entries) {
        int32_t hash = 0;
        for (char16_t one : CharsOf(entry.key))
            hash = int32_t(31u * uint32_t(hash) + one);
        Set(entry.key, "hash", hash);
        int32_t bucket = entry.bucket < 0 ? (hash & INT32_MAX) % buckets : entry.bucket;
        Object *made = New(entryClass, {{"hash", hash}, {"key", entry.key}, {"value", entry.value}});
        auto &[first, last] = chains[bucket];
        first ? Set(last, "next", made) : (first = made, SetElement(table, bucket, made));
        last = made;
    }
    for (auto &[bucket, chain] : chains)
        if (cyclic)
            Set(chain.second, "next", chain.first);
    Set(object, "table", table);
    Set(object, className == "java/util/HashMap" ? "size" : "count", entries.size());
    return object;
}

std::u16string CharsOf(const Object *text) {
    const Object *chars = text->type->name == "[C" ? text : Get(text, "value").object;
    size_t from = 0, count = chars->values.size();
    if (chars != text)
        count = Get(text, "count").number;
    if (text->type->name == "java/lang/String")
        from = Get(text, "offset").number;
    std::u16string out;
    for (size_t i = from; i < from + count && i < chars->values.size(); i++)
        out.push_back(char16_t(chars->values[i].number));
    return out;
}

std::string ValueText(const std::string &signature, const Value &value) {
    char text[32];
    if (signature[0] == 'F' || signature[0] == 'D')
        snprintf(text, sizeof text, "%.17g", value.real);
    else if (signature[0] != 'L' && signature[0] != '[')
        snprintf(text, sizeof text, "%ld", value.number);
    else if (!value.object)
        return "null";
    else if (IsText(value.object))
        return Quoted(CharsOf(value.object));
    else
        snprintf(text, sizeof text, "\"0x%lx\"", value.object->address);
    return text;
}

std::string ObjectText(const Object *object) {
    char address[32];
    snprintf(address, sizeof address, "%lx", object->address);
    std::string out =
        "{\"address\": \"" + std::string(address) + "\", \"class\": \"" + object->type->name + '"';
    bool array = object->type->name[0] == '[';
    if (object->type->name == "[C" || IsText(object))
        out += ", \"text\": " + Quoted(CharsOf(object));
    out += array ? ", \"elements\": [" : ", \"fields\": [";
    const std::vector<const Field *> fields = FieldsOf(object->type);
    for (size_t i = 0; i < object->values.size(); i++) {
        out += i ? ", " : "";
        if (array)
            out += ValueText(object->type->name.substr(1), object->values[i]);
        else
            out += "{\"name\": \"" + fields[i]->name + "\", \"type\": \"" + fields[i]->signature +
                   "\", \"value\": " + ValueText(fields[i]->signature, object->values[i]) + "}";
    }
    return out + "]}";
}

} // namespace simvm
