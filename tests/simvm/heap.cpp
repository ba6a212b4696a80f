// The heap as memory: generations, spaces, and how room in them is taken.
#include "simvm.h"

#include <sys/mman.h>

namespace simvm {

namespace {

constexpr Word PAGE = 4096;
HeapSpace *const SPACES[] = {&vm.perm, &vm.old, &vm.eden, &vm.from, &vm.to};

// What the concurrent collector's says of its top means nothing.
Word NewSpace(HeapSpace *space, char letter, size_t megabytes) {
    const size_t bytes = megabytes << 20;
    const Word bottom = Map(bytes + PAGE, true);
    auto *made = Make<Space>();
    Word *const top = vm.options.collector == Collector::PARALLEL ? &made->parallelTop : &made->top;
    *space = {letter, Word(made), bottom, bottom, bottom + bytes, Map(bytes / 2, false), top, 0, 0};
    mprotect(reinterpret_cast<void *>(space->end), PAGE, PROT_NONE);
    made->bottom = *top = bottom;
    made->end = space->end;
    if (HasFreeLists(*space)) {
        made->indexedFreeWords = 0;
        made->dictionary = Word(Make<FreeListDictionary>());
    }
    return Word(made);
}

void LayOutGenerations() {
    const bool listed = vm.options.collector == Collector::CONCURRENT;
    const Word perm = NewSpace(&vm.perm, 'P', 16), old = NewSpace(&vm.old, listed ? 'C' : 'O', 8),
               young[] = {NewSpace(&vm.eden, 'E', 4), NewSpace(&vm.from, 'F', 1), NewSpace(&vm.to, 'T', 1)};
    Word *places;
    if (vm.options.collector == Collector::PARALLEL) {
        auto *perms = Make<ParallelGeneration>(), *olds = Make<ParallelGeneration>(),
             *youngs = Make<ParallelGeneration>();
        perms->space = perm;
        olds->space = old;
        places = youngs->young;
        *vm.statics.psPerm = Word(perms);
        *vm.statics.psOld = Word(olds);
        *vm.statics.psYoung = Word(youngs);
    } else {
        Word Generation::*const member = listed ? &Generation::cmsSpace : &Generation::space;
        auto *perms = Make<Generation>(), *olds = Make<Generation>();
        auto *holder = Make<PermGenerations>();
        perms->*member = perm;
        olds->*member = old;
        holder->generation = Word(perms);
        vm.heap->perm = Word(holder);
        vm.heap->old = Word(olds);
        vm.heap->young = Word(Make<YoungGeneration>());
        places = At(vm.heap->young, &YoungGeneration::young);
    }
    std::copy_n(young, 3, places);
    vm.survivors = places + 1;
}

uint32_t &SizeAt(const HeapSpace &space, Word oop) {
    return As<uint32_t>(space.sizes + (oop - space.bottom) / 2);
}

void WriteChunk(Word at, Word words) {
    As<Word>(at + 8) = 1; // an odd link where an object has its klass
    As<Word>(at + 16) = words;
}

// One byte; what follows is another variable's.
Word Flag(bool value) {
    return (POISON_WORD & ~Word(255)) | value;
}

} // namespace

void LayOutHeap() {
    vm.heap = Make<CollectedHeap>();
    *vm.statics.collectedHeap = Word(vm.heap);
    vm.heap->collecting = 0;
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
    for (HeapSpace *space : SPACES)
        if (space->letter == letter)
            return *space;
    return vm.old; // of either kind
}

Word AllocateObject(HeapSpace *space, int64_t bytes) {
    const Locked held(vm.lock);
    Word at = space->top;
    SetTop(space, at + ((bytes + 7) & ~7));
    SizeAt(*space, at) = uint32_t((bytes + 7) / 8);
    memset(reinterpret_cast<void *>(at), 0, space->top - at);
    return at;
}

bool HasFreeLists(const HeapSpace &space) {
    return vm.options.collector == Collector::CONCURRENT && (&space == &vm.perm || &space == &vm.old);
}

int64_t WordsOf(Word oop) {
    for (const HeapSpace *space : SPACES)
        if (oop >= space->bottom && oop < space->end)
            return SizeAt(*space, oop);
    return 0;
}

void SetTop(HeapSpace *space, Word top) {
    space->top = top;
    if (!HasFreeLists(*space)) {
        *space->written = top;
        return;
    }
    const Word rest = FreeAbove(*space); // is one chunk
    auto &made = As<Space>(space->structure);
    if (rest)
        WriteChunk(top, rest);
    As<FreeListDictionary>(made.dictionary).freeWords = space->chunkWords + rest;
    made.indexedFreeWords = space->indexedWords;
}

Word FreeAbove(const HeapSpace &space) {
    constexpr Word SMALLEST_CHUNK = 3; // in words, with its link and size
    const Word rest = (space.end - space.top) / 8;
    return rest < SMALLEST_CHUNK ? 0 : rest;
}

void SetCollections(const CollectionFigures &figures) {
    vm.collections = figures;
    vm.heap->collections = figures.minor + figures.major;
    if (vm.options.collector == Collector::PARALLEL) {
        *vm.statics.psMajorCollections = (POISON_WORD << 32) | uint32_t(figures.major);
        *vm.statics.psMinorTime = figures.minorTime;
        *vm.statics.psMajorTime = figures.majorTime;
        return;
    }
    Word young = vm.heap->young, old = vm.heap->old;
    At(young, &YoungGeneration::collections) = figures.minor;
    At(young, &YoungGeneration::accumulatedTime) = figures.minorTime;
    At(old, &Generation::collections) = figures.major;
    At(old, &Generation::accumulatedTime) = figures.majorTime;
}

// Fills the heap's spaces with objects and with what isn't one.

namespace {

std::mt19937 random;
std::vector<Object *> made; // what later ones refer to

// Room that begins with these words and goes on as what was there before, poison or zeros.
Word AddGap(HeapSpace *space, int64_t bytes, std::initializer_list<Word> words, uint8_t filling = 0) {
    const Word at = space->top;
    SetTop(space, at + bytes);
    memset(&As<char>(at), filling, bytes);
    memcpy(&As<char>(at), words.begin(), std::min(size_t(bytes), 8 * words.size()));
    return at;
}

Object *AnyMade() {
    return made[random() % made.size()];
}

// ---- objects
// -----------------------------------------------------------------------------------------------

void AddObjects(HeapSpace *space, int64_t count) {
    static const char *const SIGNATURES[] = {"[Z", "[C", "[I", "[J", "[[I", "[Ljava/lang/Object;"};
    for (; count > 0; count--) {
        const Fields fields = {{"size", int32_t(random())}, {"price", random() / 7.0}, {"next", AnyMade()}};
        const char *const signature = SIGNATURES[random() % 6];
        const std::vector<Value> values(random() % 40, strlen(signature) > 2 ? AnyMade() : Value(random()));
        switch (random() % 4) {
        case 0:
            made.push_back(New("heap/Empty", {}, space->letter));
            break;
        case 1:
            made.push_back(New("heap/Special", fields, space->letter));
            Set(made.back(), "first", AnyMade());
            break;
        case 2:
            made.push_back(NewString("text " + std::to_string(random()), space->letter));
            break;
        default:
            made.push_back(NewArray(signature, values, space->letter));
        }
    }
}

void AddVmKinds(HeapSpace *, int64_t) {
    for (const VtableKind kind : {VT_constantPoolCache, VT_compiledICHolder, VT_methodData, VT_arrayKlass}) {
        const Word at = NewVmObject(kind, sizeof(Klass) + 8 * kind);
        if (kind != VT_arrayKlass)
            continue;
        At(at, &Klass::vtable) = HeadOf(VT_array);
        At(at, &Klass::name) = Intern("heap/AnyArray");
    }
    for (const char *text : {"", "a|b", "two\nlines", "caf\xc3\xa9\x01\x7f~"})
        Intern(text);
}

// ---- what isn't an object
// ----------------------------------------------------------------------------------

void AddStale(HeapSpace *space, int64_t bytes) {
    const Word at = AddGap(space, bytes, {});
    for (Word word = at; word + 8 <= at + bytes; word += 8) {
        const Word CONTENT[] = {0, POISON_WORD, random() % 1000, AnyMade()->address, ~Word(0)};
        As<Word>(word) = CONTENT[random() % 5];
    }
}

void AddChunk(HeapSpace *space, int64_t words) {
    constexpr Word DICTIONARY_WORDS = 257;
    WriteChunk(AddGap(space, 8 * words, {}, POISON), words);
    (Word(words) < DICTIONARY_WORDS ? space->indexedWords : space->chunkWords) += words;
    SetTop(space, space->top);
}

void AddWrongChunk(HeapSpace *space, int64_t words) {
    constexpr int64_t ONE_TOO_MANY = -2; // words more than the space has left
    const Word at = AddGap(space, 64, {});
    WriteChunk(at, words == ONE_TOO_MANY ? (space->end - at) / 8 + 1 : words);
}

// Where free lists are, the limit is the space's end.
void AddAcross(HeapSpace *space, int64_t bytes) {
    constexpr int64_t LONGER = 64;
    if (HasFreeLists(*space))
        AddChunk(space, (space->end - space->top - bytes) / 8);
    AddGap(space, bytes, {UNMARKED, ArrayClass("[B")->klass, Word(bytes - sizeof(JavaArray) + LONGER)});
}

const std::map<std::string, void (*)(HeapSpace *space, int64_t amount)> ADDERS = {
    {"objects", AddObjects},
    {"stale", AddStale},
    {"no-klass", [](HeapSpace *space, int64_t bytes) { AddGap(space, bytes, {UNMARKED}); }},
    {"link",
     [](HeapSpace *space, int64_t bytes) {
         AddGap(space, bytes, {UNMARKED, AnyMade()->address + !HasFreeLists(*space)}, POISON);
     }},
    {"half-array",
     [](HeapSpace *space, int64_t bytes) {
         AddGap(space, bytes, {UNMARKED, ArrayClass("[J")->klass, random() % 2 ? 1u << 31 : 1u << 29});
     }},
    {"vm-kinds", AddVmKinds},
    {"across", AddAcross},
    {"chunk", AddChunk},
    {"wrong-chunk", AddWrongChunk}};

} // namespace

void FillHeap(const char *pieces, uint32_t seed) {
    const Locked held(vm.lock);
    random.seed(seed);
    made = {New("java/lang/Object", {}, 'O')};
    ArrayClass("[B"), ArrayClass("[J"); // gaps have them
    for (const char *line :
         {"heap/Item next,Lheap/Item; size,I price,D tag,B",
          "heap/Special < heap/Item first,Lheap/Item; all,[Ljava/lang/Object; on,Z", "heap/Empty"})
        DefineClass(line);
    std::istringstream words(pieces);
    int64_t amount;
    char letter;
    for (std::string piece; words >> letter >> piece >> amount;) {
        HeapSpace &space = SpaceOf(letter);
        if (HasFreeLists(space) || piece.find("chunk") == std::string::npos)
            ADDERS.at(piece)(&space, amount);
    }
}

// Gaps lie between objects, or beside each other where that makes one run. 2^61 + 8 words are 64 bytes again.
const char TRICKY_HEAP[] = R"(
P chunk 3 P vm-kinds 0 P objects 20 P chunk 5000 P link 40
P wrong-chunk 0 P objects 20 P no-klass 64 P chunk 256 P no-klass 8
P vm-kinds 0 O chunk 4 O chunk 257 O objects 300 O wrong-chunk 1
O objects 5 O wrong-chunk -1 O wrong-chunk -2 O objects 5 O wrong-chunk 2305843009213693960
O chunk 30 O wrong-chunk 0 O objects 5 O half-array 48 O link 24 O objects 200 O across 40
E stale 8 E objects 300 E stale 4096 E objects 2 E no-klass 128
E stale 64 E link 56 E half-array 24
E objects 300 E half-array 80
)";

} // namespace simvm
