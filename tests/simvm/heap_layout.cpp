// The heap as memory: generations, spaces, and how room in them is taken.
#include "heap.h"

#include <sys/mman.h>

namespace simvm {

namespace {

constexpr size_t MB = 1 << 20;
constexpr Word PAGE = 4096;

template <class S>
Word NewSpace(HeapSpace *space, char letter, size_t bytes) {
    space->letter = letter;
    bool wide = letter == 'P' && vm.options.wide;
    bytes += wide ? WIDE_GAP : 0;
    space->bottom = space->top = Map(bytes + PAGE, !wide);
    space->end = space->bottom + bytes;
    mprotect(reinterpret_cast<void *>(space->end), PAGE, PROT_NONE);
    space->sizes = Map(bytes / 2, false);
    space->structure = Allocate(sizeof(S));
    At(space->structure, &S::bottom) = space->bottom;
    At(space->structure, &S::end) = space->end;
    At(space->structure, &S::top) = space->top;
    return space->structure;
}

// The young generation's spaces.
template <class GENERATION, class SPACE>
Word NewYoung() {
    const Word young = Allocate(sizeof(GENERATION));
    At(young, &GENERATION::eden) = NewSpace<SPACE>(&vm.eden, 'E', 4 * MB);
    At(young, &GENERATION::from) = NewSpace<SPACE>(&vm.from, 'F', MB);
    At(young, &GENERATION::to) = NewSpace<SPACE>(&vm.to, 'T', MB);
    return young;
}

// A generation of one space.
template <class GENERATION, class SPACE>
Word NewGeneration(HeapSpace *space, char letter, size_t bytes) {
    const Word generation = Allocate(sizeof(GENERATION));
    At(generation, &GENERATION::space) = NewSpace<SPACE>(space, letter, bytes);
    return generation;
}

Word NewConcurrent(HeapSpace *space, char letter, size_t bytes) {
    const Word generation = Allocate(sizeof(Generation)),
               structure = NewSpace<FreeListSpace>(space, letter, bytes);
    At(structure, &FreeListSpace::top) = space->bottom; // what it says means nothing
    At(structure, &FreeListSpace::indexedFreeWords) = 0;
    At(structure, &FreeListSpace::dictionary) = Allocate(sizeof(FreeListDictionary));
    At(generation, &Generation::cmsSpace) = structure;
    return generation;
}

void LayOutParallel() {
    *vm.statics.psPerm = NewGeneration<ParallelGeneration, ParallelSpace>(&vm.perm, 'P', 16 * MB);
    *vm.statics.psOld = NewGeneration<ParallelGeneration, ParallelSpace>(&vm.old, 'O', 8 * MB);
    *vm.statics.psYoung = NewYoung<ParallelGeneration, ParallelSpace>();
}

void LayOutGenerations() {
    const bool concurrent = vm.options.collector == Collector::CONCURRENT;
    const Word holder = Allocate(sizeof(PermGenerations));
    At(vm.heap, &CollectedHeap::perm) = holder;
    At(holder, &PermGenerations::generation) = concurrent
                                                   ? NewConcurrent(&vm.perm, 'P', 16 * MB)
                                                   : NewGeneration<Generation, Space>(&vm.perm, 'P', 16 * MB);
    At(vm.heap, &CollectedHeap::old) = concurrent ? NewConcurrent(&vm.old, 'C', 8 * MB)
                                                  : NewGeneration<Generation, Space>(&vm.old, 'O', 8 * MB);
    At(vm.heap, &CollectedHeap::young) = NewYoung<YoungGeneration, Space>();
}

// One byte; what follows is another variable's.
Word Flag(bool value) {
    return (POISON_WORD & ~Word(255)) | value;
}

} // namespace

void LayOutHeap() {
    vm.heap = Allocate(sizeof(CollectedHeap));
    *vm.statics.collectedHeap = vm.heap;
    At(vm.heap, &CollectedHeap::collecting) = 0;
    if (vm.options.collector == Collector::PARALLEL)
        LayOutParallel();
    else
        LayOutGenerations();
    *vm.statics.useParallel = Flag(vm.options.collector == Collector::PARALLEL);
    *vm.statics.useConcurrent = Flag(vm.options.collector == Collector::CONCURRENT);
    const HeapFlags &flags = vm.options.flags;
    *vm.statics.maxPermSize = flags.perm;
    *vm.statics.maxHeapSize = flags.heap;
    *vm.statics.maxNewSize = flags.young;
    *vm.statics.newRatio = flags.newRatio;
    *vm.statics.survivorRatio = flags.survivorRatio;
    *vm.statics.gcLockCount = 0;
    SetCollections({});
}

HeapSpace &SpaceOf(char letter) {
    for (HeapSpace *space : {&vm.perm, &vm.old, &vm.eden, &vm.from, &vm.to})
        if (space->letter == letter || (letter == 'O' && space == &vm.old))
            return *space;
    Fail("no such space");
}

Word AllocateObject(HeapSpace *space, int64_t bytes, Guarded structure) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    bytes = (bytes + 7) & ~7;
    bool guarded = structure == vm.options.guarded && structure != Guarded::NOTHING;
    Word at = guarded ? ((space->top + bytes + PAGE - 1) & ~(PAGE - 1)) - bytes : space->top;
    Word top = at + bytes + (guarded ? PAGE : 0);
    if (top > space->end)
        Fail("a space of the heap is full");
    if (guarded)
        mprotect(reinterpret_cast<void *>(at + bytes), PAGE, PROT_NONE);
    SizeAt(*space, at) = uint32_t(bytes / 8);
    memset(reinterpret_cast<void *>(at), 0, bytes);
    SetTop(space, top);
    return at;
}

bool HasFreeLists(const HeapSpace &space) {
    return vm.options.collector == Collector::CONCURRENT && (&space == &vm.perm || &space == &vm.old);
}

int64_t WordsOf(Word oop) {
    for (const HeapSpace *space : {&vm.perm, &vm.old, &vm.eden, &vm.from, &vm.to})
        if (oop >= space->bottom && oop < space->end)
            return SizeAt(*space, oop);
    return 0;
}

uint32_t &SizeAt(const HeapSpace &space, Word oop) {
    return As<uint32_t>(space.sizes + (oop - space.bottom) / 2);
}

void WriteChunk(Word at, Word words) {
    As<Word>(at + 8) = 1; // an odd link where an object has its klass
    As<Word>(at + 16) = words;
}

void SetTop(HeapSpace *space, Word top) {
    space->top = top;
    if (vm.options.collector == Collector::PARALLEL)
        At(space->structure, &ParallelSpace::top) = top;
    else if (!HasFreeLists(*space))
        At(space->structure, &Space::top) = top;
    else { // the rest is one chunk
        Word rest = (space->end - top) / 8, dictionary = At(space->structure, &FreeListSpace::dictionary);
        if (rest >= SMALLEST_CHUNK)
            WriteChunk(top, rest);
        At(dictionary, &FreeListDictionary::freeWords) =
            space->chunkWords + (rest >= SMALLEST_CHUNK ? rest : 0);
        At(space->structure, &FreeListSpace::indexedFreeWords) = space->indexedWords;
    }
}

void SetCollections(const CollectionFigures &figures) {
    vm.collections = figures;
    At(vm.heap, &CollectedHeap::collections) = figures.minor + figures.major;
    if (vm.options.collector == Collector::PARALLEL) {
        *vm.statics.psMajorCollections = (POISON_WORD << 32) | uint32_t(figures.major);
        *vm.statics.psMinorTime = figures.minorTime;
        *vm.statics.psMajorTime = figures.majorTime;
        return;
    }
    Word young = At(vm.heap, &CollectedHeap::young), old = At(vm.heap, &CollectedHeap::old);
    At(young, &YoungGeneration::collections) = figures.minor;
    At(young, &YoungGeneration::accumulatedTime) = figures.minorTime;
    At(old, &Generation::collections) = figures.major;
    At(old, &Generation::accumulatedTime) = figures.majorTime;
}

} // namespace simvm
