// Klasses, symbols, pools, methods and objects.
#include "simvm.h"

#include <sstream>

namespace simvm {

namespace {

constexpr int32_t POOL_ENTRIES = 96; // of a class, room for the methods that come later

Word NewVmObject(VtableKind kind, int64_t bytes) {
    Word oop = AllocateObject(&vm.perm, bytes);
    As<Oop>(oop) = {UNMARKED, vm.kindKlass[kind]};
    return oop;
}

// A klass object whose Klass part has that virtual table.
Word NewKlass(VtableKind kind, VtableKind kindOfKlass, int32_t statics = 0) {
    Word klass = NewVmObject(kindOfKlass, sizeof(Klass) + 8 + 8 * statics);
    At(klass, &Klass::vtable) = reinterpret_cast<Word>(vm.statics.vtables[kind]) + VTABLE_HEAD;
    return klass;
}

// The klasses of what the VM itself keeps in the heap. klassKlass is its own klass.
void DefineKinds() {
    vm.kindKlass[VT_KLASS_KLASS] = NewKlass(VT_KLASS_KLASS, VT_KLASS_KLASS);
    At(vm.kindKlass[VT_KLASS_KLASS], &Klass::klass) = vm.kindKlass[VT_KLASS_KLASS];
    for (VtableKind kind : {VT_SYMBOL, VT_METHOD, VT_CONST_METHOD, VT_POOL, VT_POOL_CACHE, VT_IC_HOLDER,
                            VT_INSTANCE_KLASS_KLASS, VT_ARRAY_KLASS_KLASS, VT_OBJ_ARRAY_KLASS_KLASS,
                            VT_TYPE_ARRAY_KLASS_KLASS, VT_METHOD_DATA})
        vm.kindKlass[kind] = NewKlass(kind, VT_KLASS_KLASS);
}

int32_t AddToPool(Class *owner, Word entry) {
    if (owner->poolUsed == owner->poolRoom)
        Fail("too many methods in a class");
    As<Word>(owner->pool + sizeof(ConstantPool) + 8 * owner->poolUsed) = entry;
    return owner->poolUsed++;
}

void PlaceFields(Class *owner) {
    int32_t statics = 0, end = owner->bytes;
    for (Field &field : owner->fields) {
        int32_t size = SizeOf(field.signature);
        if (field.isStatic) {
            field.offset = sizeof(Klass) + 8 * statics++;
        } else {
            field.offset = (end + size - 1) / size * size;
            end = field.offset + size;
        }
    }
    owner->bytes = (end + 7) & ~7;
}

void WriteFields(Class *owner) {
    constexpr int32_t SHORTS = sizeof(FieldEntry) / 2;
    int32_t length = SHORTS * owner->fields.size();
    Word array = AllocateObject(&vm.perm, sizeof(JavaArray) + 2 * length);
    As<Oop>(array) = {UNMARKED, ArrayClass("[S")->klass};
    As<JavaArray>(array).length = length;
    auto *entry = &As<FieldEntry>(array + sizeof(JavaArray));
    for (const Field &field : owner->fields)
        *entry++ = {uint16_t(field.isStatic ? METHOD_STATIC : 0),
                    uint16_t(AddToPool(owner, Intern(field.name))),
                    uint16_t(AddToPool(owner, Intern(field.signature))),
                    0,
                    uint16_t(field.offset),
                    uint16_t(field.offset >> 16),
                    0};
    At(owner->klass, &Klass::fields) = array;
}

void AddMirror(Class *owner) {
    Class *mirrors = FindClass("java/lang/Class");
    if (!mirrors || !owner->klass)
        return;
    Word mirror = AllocateObject(&vm.perm, mirrors->bytes);
    As<ClassMirror>(mirror) = {UNMARKED, mirrors->klass, owner->klass};
    At(owner->klass, &Klass::javaMirror) = mirror;
}

// Pairs of steps in bci and line: one byte where both are small, 255 and two numbers where not.
std::string LineTable(const std::vector<MethodLine> &lines, LineEnd end) {
    std::string table;
    MethodLine last = {0, 0};
    for (const MethodLine &line : lines) {
        int32_t bci = line.bci - last.bci, step = line.line - last.line;
        int32_t byte = bci * 8 + step;
        if (bci >= 0 && bci < 32 && step >= 0 && step < 8 && byte != 0 && byte != 255) {
            table.push_back(char(byte));
        } else {
            table.push_back(char(255));
            PutCompressed(&table, bci);
            PutCompressed(&table, step);
        }
        last = line;
    }
    if (lines.empty()) { // no line of any source
        table.push_back(char(255));
        PutCompressed(&table, 0);
        PutCompressed(&table, 1'000'000);
    }
    return end == LineEnd::MARKED ? table + '\0' : table + std::string(24, char(POISON));
}

Word WriteConstMethod(const MethodInfo &method, LineEnd end) {
    std::string lines = LineTable(method.lines, end);
    Word oop = NewVmObject(VT_CONST_METHOD, sizeof(ConstMethod) + method.codeSize + lines.size());
    At(oop, &ConstMethod::codeSize) = method.codeSize;
    At(oop, &ConstMethod::nameIndex) = AddToPool(method.holder, Intern(method.name));
    At(oop, &ConstMethod::signatureIndex) = AddToPool(method.holder, Intern(method.signature));
    memcpy(&As<char>(oop + sizeof(ConstMethod) + method.codeSize), lines.data(), lines.size());
    return oop;
}

} // namespace

void PutCompressed(std::string *out, int32_t value) {
    for (; value < -64 || value > 63; value >>= 7)
        out->push_back(char(value & 127));
    out->push_back(char(value + 192));
}

Word Intern(const std::string &text) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Word &symbol = vm.symbols[text];
    if (!symbol) {
        symbol = NewVmObject(VT_SYMBOL, sizeof(Symbol) + text.size());
        As<Symbol>(symbol).length = text.size();
        memcpy(&As<char>(symbol + sizeof(Symbol)), text.data(), text.size());
    }
    return symbol;
}

Class *FindClass(const std::string &name) {
    auto found = vm.classes.find(name);
    return found == vm.classes.end() ? nullptr : &found->second;
}

Class *DefineClass(const std::string &name, const std::string &super, std::vector<Field> fields) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Class *above = FindClass(super), *owner = &vm.classes[name];
    if (owner->klass)
        return owner;
    *owner = {name, above, std::move(fields), 0, 0, above ? above->bytes : int32_t(sizeof(Oop)), 1, 0, ""};
    owner->poolRoom = POOL_ENTRIES + 2 * owner->fields.size();
    PlaceFields(owner);
    bool reference = false;
    for (Class *up = owner; up; up = up->super)
        reference |= up->name == "java/lang/ref/Reference";
    owner->klass =
        NewKlass(reference ? VT_INSTANCE_REF : VT_INSTANCE, VT_INSTANCE_KLASS_KLASS, owner->fields.size());
    owner->pool = NewVmObject(VT_POOL, sizeof(ConstantPool) + 8 * owner->poolRoom);
    At(owner->pool, &ConstantPool::holder) = owner->klass;
    At(owner->pool, &ConstantPool::length) = owner->poolRoom;
    At(owner->klass, &Klass::layoutHelper) = owner->bytes / 8;
    At(owner->klass, &Klass::super) = above ? above->klass : 0;
    At(owner->klass, &Klass::name) = Intern(name);
    At(owner->klass, &Klass::constants) = owner->pool;
    std::string file = name.substr(name.rfind('/') + 1);
    owner->source = file.substr(0, file.find('$')) + ".java";
    At(owner->klass, &Klass::sourceFile) = Intern(owner->source);
    WriteFields(owner);
    AddMirror(owner);
    return owner;
}

Class *DefineClass(const std::string &line) {
    std::istringstream words(line);
    std::string name, word, super = "java/lang/Object";
    std::vector<Field> fields;
    bool known = true;
    for (words >> name; words >> word;)
        if (word == "<")
            words >> super;
        else if (word == "?")
            known = false;
        else {
            bool isStatic = word[0] == '*';
            size_t comma = word.find(',');
            fields.push_back({word.substr(isStatic, comma - isStatic), word.substr(comma + 1), isStatic, 0});
        }
    if (!FindClass(super))
        Fail(("no class " + super).c_str());
    Class *owner = DefineClass(name, super, std::move(fields));
    if (!known)
        owner->source = "", At(owner->klass, &Klass::sourceFile) = 0;
    return owner;
}

Class *ArrayClass(const std::string &signature) {
    if (Class *known = FindClass(signature))
        return known;
    bool objects = SizeOf(signature.substr(1)) == 8 && signature[1] != 'J' && signature[1] != 'D';
    Class *array = &vm.classes[signature];
    array->name = signature;
    array->super = FindClass("java/lang/Object");
    array->klass = objects ? NewKlass(VT_OBJ_ARRAY, VT_OBJ_ARRAY_KLASS_KLASS)
                           : NewKlass(VT_TYPE_ARRAY, VT_TYPE_ARRAY_KLASS_KLASS);
    At(array->klass, &Klass::layoutHelper) = ~__builtin_ctz(SizeOf(signature.substr(1)));
    At(array->klass, &Klass::arrayHeaderSize) = sizeof(JavaArray);
    At(array->klass, &Klass::name) = Intern(signature);
    if (array->super)
        At(array->klass, &Klass::super) = array->super->klass;
    AddMirror(array);
    return array;
}

MethodInfo *DefineMethod(const std::string &holder, const std::string &name, const std::string &signature,
                         std::vector<MethodLine> lines, int32_t flags, int32_t codeSize, LineEnd end) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Class *owner = FindClass(holder);
    if (!owner)
        owner = DefineClass(holder, "java/lang/Object");
    vm.methods.push_back({owner, name, signature, flags, codeSize, std::move(lines), 0});
    MethodInfo *method = &vm.methods.back();
    method->oop = NewVmObject(VT_METHOD, sizeof(Method));
    At(method->oop, &Method::constMethod) = WriteConstMethod(*method, end);
    At(method->oop, &Method::constants) = owner->pool;
    At(method->oop, &Method::accessFlags) = flags;
    At(method->oop, &Method::maxLocals) = 4;
    At(method->oop, &Method::parameterSize) = 1;
    return method;
}

void DefineVmClasses() {
    DefineKinds();
    vm.classes["java/lang/Object"] = {};
    ArrayClass("[S");
    DefineClass("java/lang/Object", "");
    At(FindClass("[S")->klass, &Klass::super) = FindClass("java/lang/Object")->klass;
    DefineClass("java/lang/Class", "java/lang/Object", {{"klass", "J", false, 0}});
    for (auto &[name, owner] : vm.classes)
        AddMirror(&owner);
    for (const char *line : {"java/lang/String value,[C offset,I count,I hash,I",
                             "java/lang/ThreadGroup parent,Ljava/lang/ThreadGroup; name,Ljava/lang/String;",
                             "java/lang/Thread name,[C group,Ljava/lang/ThreadGroup; eetop,J priority,I",
                             "java/lang/ref/Reference referent,Ljava/lang/Object;",
                             "java/lang/ref/WeakReference < java/lang/ref/Reference"})
        DefineClass(line);
    vm.threadGroup = NewObject("java/lang/ThreadGroup", vm.old.letter);
    Set(vm.threadGroup, "name", NewString("main", vm.old.letter));
}

// Objects and their values: each is described first and then written.

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
