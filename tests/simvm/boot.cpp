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

struct OwnPredicate {
    VtableKind kind;
    Word KlassVtable::*predicate;
    VtableKind of; // whose function it inherits, or its own
};
const OwnPredicate OWN_PREDICATES[] = {
    {VT_INSTANCE, &KlassVtable::isInstance, VT_INSTANCE},
    {VT_INSTANCE_REF, &KlassVtable::isInstance, VT_INSTANCE},
    {VT_INSTANCE_REF, &KlassVtable::isInstanceRef, VT_INSTANCE_REF},
    {VT_ARRAY, &KlassVtable::isArray, VT_ARRAY},
    {VT_TYPE_ARRAY, &KlassVtable::isArray, VT_ARRAY},
    {VT_TYPE_ARRAY, &KlassVtable::isTypeArray, VT_TYPE_ARRAY},
    {VT_OBJ_ARRAY, &KlassVtable::isArray, VT_ARRAY},
    {VT_OBJ_ARRAY, &KlassVtable::isObjArray, VT_OBJ_ARRAY},
    {VT_SYMBOL, &KlassVtable::isSymbol, VT_SYMBOL},
    {VT_METHOD, &KlassVtable::isMethod, VT_METHOD},
    {VT_CONST_METHOD, &KlassVtable::isConstMethod, VT_CONST_METHOD},
    {VT_METHOD_DATA, &KlassVtable::isMethodData, VT_METHOD_DATA},
    {VT_POOL, &KlassVtable::isConstantPool, VT_POOL},
    {VT_POOL_CACHE, &KlassVtable::isConstantPoolCache, VT_POOL_CACHE},
    {VT_IC_HOLDER, &KlassVtable::isCompiledICHolder, VT_IC_HOLDER},
    {VT_KLASS_KLASS, &KlassVtable::isKlass, VT_KLASS_KLASS},
    {VT_INSTANCE_KLASS_KLASS, &KlassVtable::isKlass, VT_KLASS_KLASS},
    {VT_INSTANCE_KLASS_KLASS, &KlassVtable::isInstanceKlass, VT_INSTANCE_KLASS_KLASS},
    {VT_ARRAY_KLASS_KLASS, &KlassVtable::isKlass, VT_KLASS_KLASS},
    {VT_ARRAY_KLASS_KLASS, &KlassVtable::isArrayKlass, VT_ARRAY_KLASS_KLASS},
    {VT_OBJ_ARRAY_KLASS_KLASS, &KlassVtable::isKlass, VT_KLASS_KLASS},
    {VT_OBJ_ARRAY_KLASS_KLASS, &KlassVtable::isArrayKlass, VT_ARRAY_KLASS_KLASS},
    {VT_OBJ_ARRAY_KLASS_KLASS, &KlassVtable::isObjArrayKlass, VT_OBJ_ARRAY_KLASS_KLASS},
    {VT_TYPE_ARRAY_KLASS_KLASS, &KlassVtable::isKlass, VT_KLASS_KLASS},
    {VT_TYPE_ARRAY_KLASS_KLASS, &KlassVtable::isArrayKlass, VT_ARRAY_KLASS_KLASS},
    {VT_TYPE_ARRAY_KLASS_KLASS, &KlassVtable::isTypeArrayKlass, VT_TYPE_ARRAY_KLASS_KLASS},
};
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
            As<Word>(head + at + placeShift[ID_KLASS_VTABLE][at]) = vm.statics.isOther;
        At(head, &KlassVtable::oopSize) = vm.statics.oopSize;
    }
    for (const OwnPredicate &own : OWN_PREDICATES)
        At(HeadOf(own.kind), own.predicate) = vm.statics.isOwn[own.of];
    for (auto &[kind, predicate] : BLOB_PREDICATES)
        At(HeadOf(kind), predicate) = vm.statics.isOwn[kind];
}

} // namespace

void Boot(const Options &options) {
    vm.options = options;
    void *library = dlopen(options.library.c_str(), RTLD_NOW);
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
