// Boot: statics, virtual tables, and the order in which the rest is laid out.
#include "simvm.h"

#include <dlfcn.h>

namespace simvm {

Vm vm;
void ArrangePlaces();   // places.cpp
void LayOutHeap();      // heap_layout.cpp
void DefineVmClasses(); // classes.cpp
void BootCode();        // code.cpp

namespace {

using Predicate = Word KlassVtable::*;
struct OwnPredicate {
    VtableKind kind, of; // whose function it inherits, or its own
    Predicate predicate;
};

// Kinds of objects, and each kind of klass for them: both the array's predicates and its own.
std::vector<OwnPredicate> OwnPredicates() {
    using V = KlassVtable;
    std::vector<OwnPredicate> all = {{VT_INSTANCE_REF, VT_INSTANCE, &V::isInstance},
                                     {VT_TYPE_ARRAY, VT_ARRAY, &V::isArray},
                                     {VT_OBJ_ARRAY, VT_ARRAY, &V::isArray},
                                     {VT_OBJ_ARRAY_KLASS_KLASS, VT_ARRAY_KLASS_KLASS, &V::isArrayKlass},
                                     {VT_TYPE_ARRAY_KLASS_KLASS, VT_ARRAY_KLASS_KLASS, &V::isArrayKlass}};
    auto own = [&](VtableKind kind, Predicate predicate) { all.push_back({kind, kind, predicate}); };
    own(VT_INSTANCE, &V::isInstance), own(VT_INSTANCE_REF, &V::isInstanceRef), own(VT_ARRAY, &V::isArray);
    own(VT_TYPE_ARRAY, &V::isTypeArray), own(VT_OBJ_ARRAY, &V::isObjArray), own(VT_SYMBOL, &V::isSymbol);
    own(VT_METHOD, &V::isMethod), own(VT_CONST_METHOD, &V::isConstMethod), own(VT_POOL, &V::isConstantPool);
    own(VT_METHOD_DATA, &V::isMethodData), own(VT_POOL_CACHE, &V::isConstantPoolCache);
    own(VT_IC_HOLDER, &V::isCompiledICHolder), own(VT_INSTANCE_KLASS_KLASS, &V::isInstanceKlass);
    own(VT_ARRAY_KLASS_KLASS, &V::isArrayKlass), own(VT_OBJ_ARRAY_KLASS_KLASS, &V::isObjArrayKlass);
    own(VT_TYPE_ARRAY_KLASS_KLASS, &V::isTypeArrayKlass);
    for (VtableKind kind : {VT_KLASS_KLASS, VT_INSTANCE_KLASS_KLASS, VT_ARRAY_KLASS_KLASS,
                            VT_OBJ_ARRAY_KLASS_KLASS, VT_TYPE_ARRAY_KLASS_KLASS})
        all.push_back({kind, VT_KLASS_KLASS, &V::isKlass});
    return all;
}
const std::pair<VtableKind, Word BlobVtable::*> BLOB_PREDICATES[] = {
    {VT_BUFFER_BLOB, &BlobVtable::isBuffer},
    {VT_NMETHOD, &BlobVtable::isNmethod},
    {VT_RUNTIME_STUB, &BlobVtable::isRuntimeStub},
    {VT_I2C, &BlobVtable::isI2C},
    {VT_C2I, &BlobVtable::isC2I},
    {VT_OSR, &BlobVtable::isOsrAdapter}};

Word HeadOf(VtableKind kind) {
    return reinterpret_cast<Word>(vm.statics.vtables[kind]) + VTABLE_HEAD;
}

void FillVtables() {
    for (int kind = 0; kind < VTABLE_COUNT; kind++) {
        Word *table = vm.statics.vtables[kind];
        Word head = HeadOf(VtableKind(kind));
        table[0] = 0;
        for (int word = 1; word < VTABLE_WORDS; word++)
            table[word] = vm.statics.unasked;
        if (kind >= VT_BUFFER_BLOB) {
            for (size_t at = 0; at < sizeof(BlobVtable); at += 8)
                As<Word>(head + at) = vm.statics.isOther;
            continue;
        }
        for (size_t at = offsetof(KlassVtable, isInstance); at < sizeof(KlassVtable); at += 8)
            As<Word>(head + at + placeShift<KlassVtable>[at]) = vm.statics.isOther;
        At(head, &KlassVtable::oopSize) = vm.statics.oopSize;
    }
    for (const OwnPredicate &own : OwnPredicates())
        At(HeadOf(own.kind), own.predicate) = vm.statics.isOwn[own.of];
    for (auto &[kind, predicate] : BLOB_PREDICATES)
        At(HeadOf(kind), predicate) = vm.statics.isOwn[kind];
}

} // namespace

void Boot(const Options &options) {
    vm.options = options;
    if (options.library.empty())
        vm.options.library =
            std::string(SIMVM_FOLDER) + (options.isClient ? "/client" : "/server") + "/libjvm.so";
    void *library = dlopen(vm.options.library.c_str(), RTLD_NOW);
    if (!library)
        Fail(dlerror());
    reinterpret_cast<void (*)(Statics *)>(dlsym(library, "simvm_statics"))(&vm.statics);
    ArrangePlaces();
    FillVtables();
    *vm.statics.sizeOf = WordsOf;
    for (Word *none :
         {vm.statics.threadList, vm.statics.vmThread, vm.statics.vmQueue, vm.statics.monitorBlocks,
          vm.statics.systemLoader, vm.statics.globalHandles, vm.statics.dictionary, vm.statics.placeholders,
          vm.statics.loaderConstraints, vm.statics.systemLoaderLock})
        *none = 0;
    if (vm.statics.stackRegisters)
        *vm.statics.stackRegisters = 176;
    LayOutHeap();
    DefineVmClasses();
    if (options.wide)
        SetTop(&vm.perm, vm.perm.top + WIDE_GAP);
    BootCode();
}

} // namespace simvm
