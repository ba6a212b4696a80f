// Objects and their values: each is described first and then written.
#include "simvm.h"

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

} // namespace simvm
