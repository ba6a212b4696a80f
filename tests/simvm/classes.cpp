// Klasses, symbols, pools, methods and objects.
#include "simvm.h"

namespace simvm {

Word NewVmObject(VtableKind kind, int64_t bytes) {
    Word oop = AllocateObject(&vm.perm, bytes);
    As<Oop>(oop) = {UNMARKED, vm.kindKlass[kind]};
    return oop;
}

namespace {

constexpr int32_t POOL_ENTRIES = 256; // of a class, room for the methods that come later

int32_t SizeOf(const std::string &signature) {
    const std::string sizes = "ZBCSIFJD"; // of 1, 1, 2, 2, 4, 4, 8, 8 bytes
    size_t at = sizes.find(signature[0]);
    return at == std::string::npos ? 8 : 1 << at / 2;
}

// A klass object whose Klass part has that virtual table.
Word NewKlass(VtableKind kind, VtableKind kindOfKlass, int32_t statics = 0) {
    const Word klass = NewVmObject(kindOfKlass, sizeof(Klass) + 8 + 8 * statics);
    At(klass, &Klass::vtable) = HeadOf(kind);
    return klass;
}

int32_t AddToPool(Class *owner, Word entry) {
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

// Of each field seven numbers of 16 bits: flags, name, signature, initial value, both halves of the offset,
// generic signature.
void WriteFields(Class *owner) {
    std::vector<Value> numbers;
    for (const Field &field : owner->fields) {
        const int32_t name = AddToPool(owner, Intern(field.name)),
                      signature = AddToPool(owner, Intern(field.signature));
        numbers.insert(numbers.end(), {field.isStatic ? METHOD_STATIC : 0, name, signature, 0,
                                       field.offset & 0xffff, field.offset >> 16, 0});
    }
    At(owner->klass, &Klass::fields) = NewArray("[S", numbers, 'P')->address;
}

void AddMirror(Class *owner) {
    if (owner->klass && FindClass("java/lang/Class"))
        owner->mirror = At(owner->klass, &Klass::javaMirror) =
            New("java/lang/Class", {{"klass", owner->klass}}, 'P')->address;
}

// What klasses of instances and of arrays have in common.
Word TakeKlass(Class *owner, Word klass, int32_t layoutHelper) {
    owner->klass = klass;
    At(klass, &Klass::layoutHelper) = layoutHelper;
    At(klass, &Klass::super) = owner->super ? owner->super->klass : 0;
    At(klass, &Klass::name) = Intern(owner->name);
    AddMirror(owner);
    return klass;
}

// Pairs of steps in bci and line: one byte where both are small, 255 and two numbers where not.
std::string LineTable(const std::vector<MethodLine> &lines, bool isMarked) {
    std::string table;
    MethodLine last = {0, 0};
    for (const MethodLine &line : lines) {
        const int32_t bci = line.bci - last.bci, step = line.line - last.line, byte = bci * 8 + step;
        const bool isSmall = bci >= 0 && bci < 32 && step >= 0 && step < 8 && byte != 0 && byte != 255;
        table.push_back(char(isSmall ? byte : 255));
        if (!isSmall)
            PutCompressed(&table, bci), PutCompressed(&table, step);
        last = line;
    }
    return isMarked ? table + '\0' : table + std::string(24, char(POISON));
}

Word WriteConstMethod(const MethodInfo &method) {
    const std::string lines = LineTable(method.lines, !(method.flags & METHOD_STATIC));
    Word oop = NewVmObject(VT_constMethod, sizeof(ConstMethod) + method.codeSize + lines.size());
    auto &made = As<ConstMethod>(oop);
    made.codeSize = method.codeSize;
    made.nameIndex = AddToPool(method.holder, Intern(method.name));
    made.signatureIndex = AddToPool(method.holder, Intern(method.signature));
    memcpy(&As<char>(oop + sizeof(ConstMethod) + method.codeSize), lines.data(), lines.size());
    return oop;
}

void LayOutClass(Class *owner) {
    owner->bytes = owner->super ? owner->super->bytes : int32_t(sizeof(Oop));
    PlaceFields(owner);
    const bool isReference = owner->name.find("java/lang/ref/") == 0;
    const Word klass = TakeKlass(
        owner, NewKlass(isReference ? VT_instanceRef : VT_instance, VT_instanceKlass, owner->fields.size()),
        owner->bytes / 8);
    owner->pool = NewVmObject(VT_constantPool, sizeof(ConstantPool) + 8 * POOL_ENTRIES);
    As<ConstantPool>(owner->pool).holder = klass;
    As<ConstantPool>(owner->pool).length = POOL_ENTRIES;
    At(klass, &Klass::constants) = owner->pool;
    At(klass, &Klass::sourceFile) = Intern(owner->source);
    WriteFields(owner);
}

} // namespace

void PutCompressed(std::string *out, int32_t value) {
    for (; value < -64 || value > 63; value >>= 7)
        out->push_back(char(value & 127));
    out->push_back(char(value + 192));
}

Word Intern(const std::string &text) {
    const Locked held(vm.lock);
    Word &symbol = vm.symbols[text];
    if (!symbol) {
        symbol = NewVmObject(VT_symbol, sizeof(Symbol) + text.size());
        As<Symbol>(symbol).length = text.size();
        memcpy(&As<char>(symbol + sizeof(Symbol)), text.data(), text.size());
    }
    return symbol;
}

Class *FindClass(const std::string &name) {
    auto found = vm.classes.find(name);
    return found == vm.classes.end() ? nullptr : &found->second;
}

Class *DefineClass(const std::string &line) {
    const Locked held(vm.lock);
    std::istringstream words(line);
    std::string name, word, super = "java/lang/Object";
    words >> name;
    Class *owner = &vm.classes[name];
    if (owner->klass)
        return owner;
    owner->name = name;
    owner->source = name.substr(name.rfind('/') + 1);
    owner->source = owner->source.substr(0, owner->source.find('$')) + ".java";
    while (words >> word)
        if (word == "<")
            words >> super;
        else {
            const bool isStatic = word[0] == '*';
            const size_t comma = word.find(',');
            owner->fields.push_back(
                {word.substr(isStatic, comma - isStatic), word.substr(comma + 1), isStatic, 0});
        }
    owner->super = name == super ? nullptr : FindClass(super);
    LayOutClass(owner);
    return owner;
}

Class *ArrayClass(const std::string &signature) {
    if (Class *known = FindClass(signature))
        return known;
    Class *array = &vm.classes[signature];
    array->name = signature;
    array->super = FindClass("java/lang/Object");
    const bool ofObjects = strchr("L[", signature[1]);
    const Word klass = TakeKlass(
        array,
        NewKlass(ofObjects ? VT_objArray : VT_typeArray, ofObjects ? VT_objArrayKlass : VT_typeArrayKlass),
        ~__builtin_ctz(SizeOf(signature.substr(1))));
    At(klass, &Klass::arrayHeaderSize) = sizeof(JavaArray);
    return array;
}

MethodInfo *DefineMethod(const std::string &holder, const std::string &name, const std::string &signature,
                         std::vector<MethodLine> lines, int32_t flags) {
    const int32_t codeSize = lines.empty() ? 0 : 64;
    vm.methods.push_back({DefineClass(holder), name, signature, flags, codeSize, std::move(lines), 0});
    MethodInfo *method = &vm.methods.back();
    const Word oop = method->oop = NewVmObject(VT_method, sizeof(Method));
    auto &made = As<Method>(oop);
    made.constMethod = WriteConstMethod(*method);
    made.constants = method->holder->pool;
    made.accessFlags = flags;
    made.maxLocals = 4;
    made.parameterSize = 1;
    return method;
}

// The klasses of what the VM itself keeps in the heap come first, klassKlass, which is its own klass, before
// all.
void DefineVmClasses() {
    Word &first = vm.kindKlass[VT_klass];
    first = NewKlass(VT_klass, VT_klass);
    At(first, &Klass::klass) = first;
    for (int kind = 0; kind < VTABLE_COUNT; kind++)
        if (KIND_LETTERS[kind] && kind != VT_klass)
            vm.kindKlass[kind] = NewKlass(VtableKind(kind), VT_klass);
    ArrayClass("[S");
    DefineClass("java/lang/Object");
    At(FindClass("[S")->klass, &Klass::super) = FindClass("java/lang/Object")->klass;
    DefineClass("java/lang/Class klass,J");
    for (auto &[name, owner] : vm.classes)
        AddMirror(&owner);
    for (const char *line :
         {"java/lang/String value,[C offset,I count,I hash,I", "java/lang/ThreadGroup",
          "java/lang/Thread name,[C eetop,J",
          "java/util/Hashtable$Entry hash,I key,Ljava/lang/Object; value,Ljava/lang/Object; "
          "next,Ljava/util/Hashtable$Entry;",
          "java/util/Hashtable table,[Ljava/util/Hashtable$Entry; count,I",
          "java/util/Properties < java/util/Hashtable defaults,Ljava/util/Properties;",
          "java/util/HashMap$Entry key,Ljava/lang/Object; value,Ljava/lang/Object; hash,I "
          "next,Ljava/util/HashMap$Entry;",
          "java/util/HashMap table,[Ljava/util/HashMap$Entry; size,I"})
        DefineClass(line);
    vm.threadGroup = New("java/lang/ThreadGroup", {}, vm.old.letter);
}

// Objects and their values: each is described first and then written.

namespace {

Object *Describe(Class *type, int64_t bytes, const std::vector<Value> &values, char space) {
    const Word address = AllocateObject(&SpaceOf(space), bytes);
    As<Oop>(address) = {UNMARKED, type->klass};
    vm.objects.push_back({address, bytes, space, type, values});
    return &vm.objects.back();
}

struct Found {
    const Field *field;
    size_t index; // in FieldsOf
};
Found Find(const Class *type, const std::string &name) {
    std::vector<const Field *> fields = FieldsOf(type);
    for (size_t i = fields.size(); i-- > 0;) // its own come last
        if (fields[i]->name == name)
            return {fields[i], i};
    Fail("no such field");
}

} // namespace

void WriteValue(Word place, const std::string &signature, const Value &value) {
    Word bits = value.number;
    const float single = float(value.real);
    switch (signature[0]) {
    case 'L':
    case '[':
        bits = value.object ? value.object->address : 0;
        break;
    case 'F':
        memcpy(&bits, &single, sizeof single);
        break;
    case 'D':
        memcpy(&bits, &value.real, sizeof value.real);
    }
    memcpy(&As<char>(place), &bits, SizeOf(signature));
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
    const Locked held(vm.lock);
    Found found = Find(object->type, field);
    object->values[found.index] = value;
    WriteValue(object->address + found.field->offset, found.field->signature, value);
}

Value Get(const Object *object, const std::string &field) {
    const Locked held(vm.lock);
    return object->values[Find(object->type, field).index];
}

void SetStatic(Class *type, const std::string &name, Value value) {
    for (Field &field : type->fields)
        if (field.isStatic && field.name == name) {
            field.value = value;
            WriteValue(type->klass + field.offset, field.signature, value);
        }
}

void Forget(const Object *object) {
    const Locked held(vm.lock);
    vm.objects.remove_if([=](const Object &one) { return &one == object; });
}

Object *New(const std::string &className, const Fields &fields, char space) {
    const Locked held(vm.lock);
    Class *type = DefineClass(className);
    Object *object = Describe(type, type->bytes, std::vector<Value>(FieldsOf(type).size()), space);
    for (auto &[name, value] : fields)
        Set(object, name, value);
    return object;
}

Object *NewArray(const std::string &signature, const std::vector<Value> &elements, char space) {
    const Locked held(vm.lock);
    Class *type = ArrayClass(signature);
    const std::string element = signature.substr(1);
    const size_t length = elements.size(), size = SizeOf(element);
    Object *array = Describe(type, (sizeof(JavaArray) + length * size + 7) & ~size_t(7), elements, space);
    As<JavaArray>(array->address).length = length;
    for (size_t i = 0; i < length; i++)
        WriteValue(array->address + sizeof(JavaArray) + i * size, element, elements[i]);
    return array;
}

Object *NewChars(const std::string &text, char space) {
    const auto *first = reinterpret_cast<const uint8_t *>(text.data());
    return NewArray("[C", std::vector<Value>(first, first + text.size()), space);
}

Object *NewString(const std::string &text, char space) {
    return New("java/lang/String", {{"value", NewChars(text, space)}, {"count", text.size()}}, space);
}

} // namespace simvm
