// Objects and their values: each is described first and then written.
#include "objects.h"

namespace simvm {

namespace {

Object *Describe(Word address, Class *type, int64_t bytes, size_t values, char space) {
    As<Oop>(address) = {UNMARKED, type->klass};
    Object *object;
    if (vm.forgotten.empty()) {
        vm.objects.emplace_back();
        object = &vm.objects.back();
    } else {
        object = vm.forgotten.back();
        vm.forgotten.pop_back();
    }
    *object = {address, type->klass, bytes, space, type, std::vector<Value>(values)};
    return object;
}

struct Found {
    const Field *field;
    size_t index; // in FieldsOf
};
Found Find(const Class *type, const std::string &name) {
    for (const Class *owner = type; owner; owner = owner->super) {
        std::vector<const Field *> fields = FieldsOf(owner);
        for (size_t i = fields.size(); i-- > 0;) // its own come last
            if (fields[i]->name == name)
                return {fields[i], i};
    }
    Fail(("no field " + name + " in " + type->name).c_str());
}

template <class T>
void Write(Word place, T value) {
    memcpy(&As<char>(place), &value, sizeof value);
}

} // namespace

int32_t SizeOf(const std::string &signature) {
    const std::string sizes = "ZBCSIFJD"; // of 1, 1, 2, 2, 4, 4, 8, 8 bytes
    size_t at = sizes.find(signature[0]);
    return at == std::string::npos ? 8 : 1 << at / 2;
}

void WriteValue(Word place, const std::string &signature, const Value &value) {
    if (signature[0] == 'L' || signature[0] == '[')
        return Write(place, value.object ? value.object->address : 0);
    if (signature[0] == 'F')
        return Write(place, float(value.real));
    if (signature[0] == 'D')
        return Write(place, value.real);
    memcpy(&As<char>(place), &value.number, SizeOf(signature));
}

std::vector<const Field *> FieldsOf(const Class *type) {
    std::vector<const Field *> fields;
    if (type->super)
        fields = FieldsOf(type->super);
    for (const Field &field : type->fields)
        if (!field.isStatic)
            fields.push_back(&field);
    return fields;
}

void Set(Object *object, const std::string &field, Value value) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Found found = Find(object->type, field);
    object->values[found.index] = value;
    WriteValue(object->address + found.field->offset, found.field->signature, value);
}

Value Get(const Object *object, const std::string &field) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    return object->values[Find(object->type, field).index];
}

void SetStatic(Class *type, const std::string &name, Value value) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    for (Field &field : type->fields)
        if (field.isStatic && field.name == name) {
            field.value = value;
            return WriteValue(type->klass + field.offset, field.signature, value);
        }
    Fail(("no static " + name + " in " + type->name).c_str());
}

void SetElement(Object *array, int32_t index, Value value) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    std::string signature = array->type->name.substr(1);
    array->values.at(index) = value;
    WriteValue(array->address + sizeof(JavaArray) + index * SizeOf(signature), signature, value);
}

void Forget(Object *object) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    object->address = 0;
    vm.forgotten.push_back(object);
}

Object *NewObject(const std::string &className, char space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Class *type = FindClass(className);
    if (!type)
        type = DefineClass(className, "java/lang/Object");
    return Describe(AllocateObject(&SpaceOf(space), type->bytes), type, type->bytes, FieldsOf(type).size(),
                    space);
}

Object *NewArray(const std::string &signature, int32_t length, char space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Class *type = ArrayClass(signature);
    int64_t bytes = (sizeof(JavaArray) + length * SizeOf(signature.substr(1)) + 7) & ~size_t(7);
    Object *array = Describe(AllocateObject(&SpaceOf(space), bytes), type, bytes, length, space);
    As<JavaArray>(array->address).length = length;
    return array;
}

Object *NewChars(const std::string &text, char space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Object *chars = NewArray("[C", text.size(), space);
    for (size_t i = 0; i < text.size(); i++)
        SetElement(chars, i, uint8_t(text[i]));
    return chars;
}

Object *NewString(const std::string &text, char space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Object *string = NewObject("java/lang/String", space);
    Set(string, "value", NewChars(text, space));
    Set(string, "count", text.size());
    return string;
}

// ---- objects of java.lang and java.util
// ------------------------------------------------------------------

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

} // namespace simvm
