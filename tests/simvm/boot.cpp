// Boot: statics, virtual tables, the collectors' generations and spaces.
#include "simvm.h"

#include <dlfcn.h>
#include <sys/mman.h>

namespace simvm {

Vm vm;
void ArrangePlaces();   // places.cpp
void DefineVmClasses(); // classes.cpp
void BootCode();        // code.cpp

namespace {

constexpr size_t MB = 1 << 20;
constexpr size_t GAP = 5ul << 30; // in perm, when it is wide: never touched

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

template <class S>
Word NewSpace(HeapSpace *space, char letter, size_t bytes, size_t structureBytes) {
    space->letter = letter;
    bool wide = letter == 'P' && vm.options.wide;
    bytes += wide ? GAP : 0;
    space->bottom = space->top = Map(bytes, !wide);
    space->end = space->bottom + bytes;
    space->structure = Allocate(structureBytes);
    At(space->structure, &S::bottom) = space->bottom;
    At(space->structure, &S::end) = space->end;
    At(space->structure, &S::top) = space->top;
    return space->structure;
}

template <class S>
Word NewGeneration() {
    Word generation = Allocate(sizeof(S));
    At(generation, &S::collections) = 0;
    At(generation, &S::accumulatedTime) = 0;
    return generation;
}

Word NewFreeListSpace(HeapSpace *space, char letter, size_t bytes) {
    Word structure = NewSpace<FreeListSpace>(space, letter, bytes, sizeof(FreeListSpace));
    At(structure, &FreeListSpace::top) = space->end; // what it says means nothing
    At(structure, &FreeListSpace::indexedFreeWords) = 0;
    At(structure, &FreeListSpace::dictionary) = Allocate(sizeof(FreeListDictionary));
    return structure;
}

void LayOutParallel() {
    Word young = Allocate(sizeof(ParallelGeneration)), old = Allocate(sizeof(ParallelGeneration)),
         perm = Allocate(sizeof(ParallelGeneration));
    *vm.statics.psYoung = young;
    *vm.statics.psOld = old;
    *vm.statics.psPerm = perm;
    size_t bytes = sizeof(ParallelSpace);
    At(perm, &ParallelGeneration::space) = NewSpace<ParallelSpace>(&vm.perm, 'P', 16 * MB, bytes);
    At(old, &ParallelGeneration::space) = NewSpace<ParallelSpace>(&vm.old, 'O', 8 * MB, bytes);
    At(young, &ParallelGeneration::eden) = NewSpace<ParallelSpace>(&vm.eden, 'E', 4 * MB, bytes);
    At(young, &ParallelGeneration::from) = NewSpace<ParallelSpace>(&vm.from, 'F', MB, bytes);
    At(young, &ParallelGeneration::to) = NewSpace<ParallelSpace>(&vm.to, 'T', MB, bytes);
    for (Word *counter : {vm.statics.psMajorCollections, vm.statics.psMajorTime, vm.statics.psMinorTime})
        *counter = 0;
}

void LayOutGenerations() {
    bool concurrent = vm.options.collector == Collector::CONCURRENT;
    Word young = NewGeneration<YoungGeneration>(), old = NewGeneration<Generation>(),
         perm = NewGeneration<Generation>(), holder = Allocate(sizeof(PermGenerations));
    At(vm.heap, &CollectedHeap::young) = young;
    At(vm.heap, &CollectedHeap::old) = old;
    At(vm.heap, &CollectedHeap::perm) = holder;
    At(holder, &PermGenerations::generation) = perm;
    if (concurrent) {
        At(perm, &Generation::cmsSpace) = NewFreeListSpace(&vm.perm, 'P', 16 * MB);
        At(old, &Generation::cmsSpace) = NewFreeListSpace(&vm.old, 'C', 8 * MB);
    } else {
        At(perm, &Generation::space) = NewSpace<Space>(&vm.perm, 'P', 16 * MB, sizeof(Space));
        At(old, &Generation::space) = NewSpace<Space>(&vm.old, 'O', 8 * MB, sizeof(Space));
    }
    At(young, &YoungGeneration::eden) = NewSpace<Space>(&vm.eden, 'E', 4 * MB, sizeof(Space));
    At(young, &YoungGeneration::from) = NewSpace<Space>(&vm.from, 'F', MB, sizeof(Space));
    At(young, &YoungGeneration::to) = NewSpace<Space>(&vm.to, 'T', MB, sizeof(Space));
}

void LayOutHeap() {
    vm.heap = Allocate(sizeof(CollectedHeap));
    *vm.statics.collectedHeap = vm.heap;
    At(vm.heap, &CollectedHeap::collecting) = 0;
    At(vm.heap, &CollectedHeap::collections) = 0;
    if (vm.options.collector == Collector::PARALLEL)
        LayOutParallel();
    else
        LayOutGenerations();
    *vm.statics.useParallel = vm.options.collector == Collector::PARALLEL;
    *vm.statics.useConcurrent = vm.options.collector == Collector::CONCURRENT;
    *vm.statics.maxPermSize = 64 * MB;
    *vm.statics.maxHeapSize = 128 * MB;
    *vm.statics.maxNewSize = 32 * MB;
    *vm.statics.newRatio = 2;
    *vm.statics.survivorRatio = 6;
    *vm.statics.gcLockCount = 0;
}

int64_t WordsOf(Word oop) {
    auto found = vm.sizes.find(oop);
    return found == vm.sizes.end() ? 0 : found->second / 8;
}

} // namespace

HeapSpace &SpaceOf(char letter) {
    for (HeapSpace *space : {&vm.perm, &vm.old, &vm.eden, &vm.from, &vm.to})
        if (space->letter == letter || (letter == 'O' && space == &vm.old))
            return *space;
    Fail("no such space");
}

Word AllocateObject(HeapSpace *space, int64_t bytes, int32_t structure) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    constexpr Word PAGE = 4096;
    bytes = (bytes + 7) & ~7;
    bool guarded = structure == vm.options.guarded && structure != STRUCT_COUNT;
    Word at = guarded ? ((space->top + bytes + PAGE - 1) & ~(PAGE - 1)) - bytes : space->top;
    Word top = at + bytes + (guarded ? PAGE : 0);
    if (top > space->end)
        Fail("a space of the heap is full");
    if (guarded)
        mprotect(reinterpret_cast<void *>(at + bytes), PAGE, PROT_NONE);
    vm.sizes[at] = bytes;
    memset(reinterpret_cast<void *>(at), 0, bytes);
    SetTop(space, top);
    return at;
}

void SetTop(HeapSpace *space, Word top) {
    space->top = top;
    bool freeLists = vm.options.collector == Collector::CONCURRENT && (space == &vm.perm || space == &vm.old);
    if (vm.options.collector == Collector::PARALLEL)
        At(space->structure, &ParallelSpace::top) = top;
    else if (!freeLists)
        At(space->structure, &Space::top) = top;
    else { // the rest is one free chunk: an odd link where an object has its klass, then its size in words
        As<Word>(top + 8) = 1;
        As<Word>(top + 16) = (space->end - top) / 8;
        Word dictionary = At(space->structure, &FreeListSpace::dictionary);
        At(dictionary, &FreeListDictionary::freeWords) = (space->end - top) / 8;
    }
}

void Boot(const Options &options) {
    vm.options = options;
    void *library = dlopen(options.library.c_str(), RTLD_NOW);
    if (!library)
        Fail(dlerror());
    reinterpret_cast<void (*)(Statics *)>(dlsym(library, "simvm_statics"))(&vm.statics);
    ArrangePlaces();
    FillVtables();
    *vm.statics.sizeOf = WordsOf;
    *vm.statics.threadList = 0;
    if (vm.statics.stackRegisters)
        *vm.statics.stackRegisters = 176;
    LayOutHeap();
    DefineVmClasses();
    if (options.wide)
        SetTop(&vm.perm, vm.perm.top + GAP);
    BootCode();
}

} // namespace simvm
