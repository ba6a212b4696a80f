// Klasses, symbols, pools, methods and objects.
#include "simvm.h"

#include <algorithm>

namespace simvm {

namespace {

constexpr int32_t POOL_ENTRIES = 96; // of a class, room for the methods that come later

Word NewVmObject(VtableKind kind, int64_t bytes, int32_t structure = STRUCT_COUNT) {
    Word oop = AllocateObject(&vm.perm, bytes, structure);
    As<Oop>(oop) = {UNMARKED, vm.kindKlass[kind]};
    return oop;
}

// A klass object whose Klass part has that virtual table.
Word NewKlass(VtableKind kind, VtableKind kindOfKlass, int32_t statics = 0) {
    Word klass = NewVmObject(kindOfKlass, sizeof(Klass) + 8 + 8 * statics, ID_KLASS);
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

Class *DefineArray(const std::string &signature) {
    const std::string sizes = "ZBCSIFJD"; // of 1, 1, 2, 2, 4, 4, 8, 8 bytes
    size_t at = sizes.find(signature[1]);
    bool objects = at == std::string::npos;
    Class *array = &vm.classes[signature];
    *array = {signature, FindClass("java/lang/Object"), {}, 0, 0, 0, 0};
    array->klass = objects ? NewKlass(VT_OBJ_ARRAY, VT_OBJ_ARRAY_KLASS_KLASS)
                           : NewKlass(VT_TYPE_ARRAY, VT_TYPE_ARRAY_KLASS_KLASS);
    int32_t log2Size = objects ? 3 : int32_t(at) / 2;
    At(array->klass, &Klass::layoutHelper) = ~log2Size;
    At(array->klass, &Klass::arrayHeaderSize) = sizeof(JavaArray);
    At(array->klass, &Klass::name) = Intern(signature);
    return array;
}

Object *Describe(Word address, Word klass, int64_t bytes, char space) {
    As<Oop>(address) = {UNMARKED, klass};
    Object *object;
    if (vm.forgotten.empty()) {
        vm.objects.emplace_back();
        object = &vm.objects.back();
    } else {
        object = vm.forgotten.back();
        vm.forgotten.pop_back();
    }
    *object = {address, klass, bytes, space};
    return object;
}

int32_t SizeOf(const std::string &signature) {
    switch (signature[0]) {
    case 'Z':
    case 'B':
        return 1;
    case 'C':
    case 'S':
        return 2;
    case 'I':
    case 'F':
        return 4;
    default:
        return 8;
    }
}

int32_t AddToPool(Class *owner, Word entry) {
    if (owner->poolUsed == POOL_ENTRIES)
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
    As<Oop>(array) = {UNMARKED, DefineArray("[S")->klass};
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
std::string LineTable(const std::vector<MethodLine> &lines) {
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
    return table;
}

Word WriteConstMethod(const MethodInfo &method) {
    std::string lines = LineTable(method.lines);
    Word oop = NewVmObject(VT_CONST_METHOD, sizeof(ConstMethod) + method.codeSize + lines.size() + 1,
                           ID_CONST_METHOD);
    At(oop, &ConstMethod::codeSize) = method.codeSize;
    At(oop, &ConstMethod::nameIndex) = AddToPool(method.holder, Intern(method.name));
    At(oop, &ConstMethod::signatureIndex) = AddToPool(method.holder, Intern(method.signature));
    memcpy(&As<char>(oop + sizeof(ConstMethod) + method.codeSize), lines.c_str(), lines.size() + 1);
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
        symbol = NewVmObject(VT_SYMBOL, sizeof(Symbol) + text.size(), ID_SYMBOL);
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
    *owner = {name, above, std::move(fields), 0, 0, above ? above->bytes : int32_t(sizeof(Oop)), 1};
    PlaceFields(owner);
    bool reference = false;
    for (Class *up = owner; up; up = up->super)
        reference |= up->name == "java/lang/ref/Reference";
    owner->klass =
        NewKlass(reference ? VT_INSTANCE_REF : VT_INSTANCE, VT_INSTANCE_KLASS_KLASS, owner->fields.size());
    owner->pool = NewVmObject(VT_POOL, sizeof(ConstantPool) + 8 * POOL_ENTRIES, ID_POOL);
    At(owner->pool, &ConstantPool::holder) = owner->klass;
    At(owner->pool, &ConstantPool::length) = POOL_ENTRIES;
    At(owner->klass, &Klass::layoutHelper) = owner->bytes / 8;
    At(owner->klass, &Klass::super) = above ? above->klass : 0;
    At(owner->klass, &Klass::name) = Intern(name);
    At(owner->klass, &Klass::constants) = owner->pool;
    std::string file = name.substr(name.rfind('/') + 1);
    At(owner->klass, &Klass::sourceFile) = Intern(file.substr(0, file.find('$')) + ".java");
    WriteFields(owner);
    AddMirror(owner);
    return owner;
}

MethodInfo *DefineMethod(const std::string &holder, const std::string &name, const std::string &signature,
                         std::vector<MethodLine> lines, int32_t flags, int32_t codeSize) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Class *owner = FindClass(holder);
    if (!owner)
        owner = DefineClass(holder, "java/lang/Object");
    vm.methods.push_back({owner, name, signature, flags, codeSize, std::move(lines), 0});
    MethodInfo *method = &vm.methods.back();
    method->oop = NewVmObject(VT_METHOD, sizeof(Method), ID_METHOD);
    At(method->oop, &Method::constMethod) = WriteConstMethod(*method);
    At(method->oop, &Method::constants) = owner->pool;
    At(method->oop, &Method::accessFlags) = flags;
    At(method->oop, &Method::maxLocals) = 4;
    At(method->oop, &Method::parameterSize) = 1;
    return method;
}

void DefineVmClasses() {
    DefineKinds();
    vm.classes["java/lang/Object"] = {};
    DefineArray("[S");
    DefineClass("java/lang/Object", "");
    DefineClass("java/lang/Class", "java/lang/Object", {{"klass", "J", false, 0}});
    for (auto &[name, owner] : vm.classes)
        AddMirror(&owner);
    DefineClass("java/lang/String", "java/lang/Object",
                {{"value", "[C", false, 0}, {"offset", "I", false, 0}, {"count", "I", false, 0}});
    DefineClass("java/lang/ThreadGroup", "java/lang/Object");
    DefineClass("java/lang/Thread", "java/lang/Object",
                {{"name", "[C", false, 0},
                 {"group", "Ljava/lang/ThreadGroup;", false, 0},
                 {"eetop", "J", false, 0},
                 {"priority", "I", false, 0}});
    DefineClass("java/lang/ref/Reference", "java/lang/Object",
                {{"referent", "Ljava/lang/Object;", false, 0}});
    DefineClass("java/lang/ref/WeakReference", "java/lang/ref/Reference");
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
    return Describe(AllocateObject(&SpaceOf(space), type->bytes), type->klass, type->bytes, space);
}

Object *NewArray(const std::string &signature, int32_t length, char space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Class *type = FindClass(signature);
    if (!type)
        type = DefineArray(signature);
    int64_t bytes = (sizeof(JavaArray) + length * SizeOf(signature.substr(1)) + 7) & ~size_t(7);
    Object *array = Describe(AllocateObject(&SpaceOf(space), bytes), type->klass, bytes, space);
    As<JavaArray>(array->address).length = length;
    return array;
}

Object *NewChars(const std::string &text, char space) {
    Object *chars = NewArray("[C", text.size(), space);
    for (size_t i = 0; i < text.size(); i++)
        As<uint16_t>(chars->address + sizeof(JavaArray) + 2 * i) = uint8_t(text[i]);
    return chars;
}

Object *NewString(const std::string &text, char space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    Object *string = NewObject("java/lang/String", space), *chars = NewChars(text, space);
    SetField(string, "value", chars->address);
    SetField(string, "count", int32_t(text.size()));
    return string;
}

const Field *FindField(Word klass, const std::string &name) {
    for (auto &[text, type] : vm.classes)
        if (type.klass == klass)
            for (Class *owner = &type; owner; owner = owner->super)
                for (const Field &field : owner->fields)
                    if (field.name == name)
                        return &field;
    Fail(("no field " + name).c_str());
}

} // namespace simvm
