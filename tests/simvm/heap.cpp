// Fills the heap's spaces with objects and with what isn't one.
#include "heap.h"
#include "objects.h"

#include <random>

namespace simvm {

namespace {

constexpr int32_t ODD_HEADER = 28; // of arrays of floats in such a heap
constexpr Word DICTIONARY_WORDS = 257;
constexpr int64_t ONE_TOO_MANY = -2;
constexpr int64_t OVERFLOWING = (1l << 61) + 8; // in bytes it is 64 again

std::mt19937 random;
std::vector<Object *> made; // what later ones refer to

Word TakeRoom(HeapSpace *space, int64_t bytes) {
    Word at = space->top;
    if (at + bytes > space->end)
        Fail("a space of the heap is full");
    SetTop(space, at + bytes);
    return at;
}

Word AddGap(HeapSpace *space, int64_t bytes, bool chunk, uint8_t filling) {
    Word at = TakeRoom(space, bytes);
    memset(&As<char>(at), filling, bytes);
    vm.gaps[at] = {bytes, chunk};
    return at;
}

Object *AnyMade() {
    return made[random() % made.size()];
}

// ---- objects
// -----------------------------------------------------------------------------------------------

void DefineClasses() {
    for (const char *line :
         {"heap/Item next,Lheap/Item; size,I price,D tag,B",
          "heap/Special < heap/Item first,Lheap/Item; all,[Ljava/lang/Object; on,Z", "heap/Empty"})
        DefineClass(line);
}

Object *NewItem(char space) {
    static const char *const NAMES[] = {"heap/Item", "heap/Special", "heap/Empty"};
    Object *item = NewObject(NAMES[random() % 3], space);
    if (item->bytes > int64_t(sizeof(Oop))) {
        Set(item, "size", int32_t(random()));
        Set(item, "price", random() / 7.0);
        Set(item, "next", AnyMade());
    }
    if (item->type->name == "heap/Special")
        Set(item, "first", AnyMade());
    return item;
}

Object *NewAnyArray(char space) {
    static const char *const SIGNATURES[] = {"[Z", "[B", "[C",  "[S",  "[I",
                                             "[J", "[D", "[[I", "[[J", "[Ljava/lang/Object;"};
    std::string signature = SIGNATURES[random() % 10];
    int32_t length = random() % 3 ? random() % 40 : 0;
    Object *array = NewArray(signature, length, space);
    for (int32_t i = 0; i < length; i++)
        if (signature[1] == 'L' || signature[1] == '[')
            SetElement(array, i, random() % 4 ? AnyMade() : nullptr);
        else
            SetElement(array, i, int64_t(random()) << 20);
    return array;
}

void AddObjects(HeapSpace *space, int64_t count) {
    for (; count > 0; count--) {
        unsigned kind = random() % 5;
        made.push_back(kind < 2    ? NewItem(space->letter)
                       : kind == 2 ? NewString("text " + std::to_string(random()), space->letter)
                                   : NewAnyArray(space->letter));
    }
}

// An array whose values aren't described.
void AddArray(HeapSpace *space, Class *type, int32_t length, int64_t bytes) {
    Word at = AllocateObject(space, bytes);
    As<JavaArray>(at) = {UNMARKED, type->klass, length, 0};
    vm.objects.push_back({at, type->klass, bytes, space->letter, nullptr});
}

void AddOddArray(HeapSpace *space, int32_t length) {
    Class *odd = ArrayClass("[F");
    At(odd->klass, &Klass::arrayHeaderSize) = ODD_HEADER;
    AddArray(space, odd, length, (ODD_HEADER + 4 * length + 7) & ~7);
}

void AddVmKinds(HeapSpace *space) {
    for (auto &[kind, bytes] : {std::pair<VtableKind, int64_t>{VT_POOL_CACHE, 64},
                                {VT_IC_HOLDER, 40},
                                {VT_METHOD_DATA, 120},
                                {VT_ARRAY_KLASS_KLASS, int64_t(sizeof(Klass))}}) {
        Word at = AllocateObject(space, bytes);
        As<Oop>(at) = {UNMARKED, vm.kindKlass[kind]};
        if (kind != VT_ARRAY_KLASS_KLASS)
            continue;
        At(at, &Klass::vtable) = reinterpret_cast<Word>(vm.statics.vtables[VT_ARRAY]) + VTABLE_HEAD;
        At(at, &Klass::name) = Intern("heap/AnyArray");
    }
    for (const char *text : {"", "a|b", "two\nlines", "caf\xc3\xa9\x01\x7f~"})
        Intern(text);
}

// ---- what isn't an object
// ----------------------------------------------------------------------------------

void AddStale(HeapSpace *space, int64_t bytes) {
    Word at = AddGap(space, bytes, false, POISON);
    for (Word word = at; word + 8 <= at + bytes; word += 8) {
        const Word CONTENT[] = {0, POISON_WORD, random() % 1000, AnyMade()->address, ~Word(0)};
        As<Word>(word) = CONTENT[random() % 5];
    }
}

void AddLink(HeapSpace *space, int64_t bytes) {
    Word at = AddGap(space, bytes, false, POISON);
    As<Oop>(at) = {UNMARKED, AnyMade()->address + (HasFreeLists(*space) ? 0 : 1)};
}

void AddHalfArray(HeapSpace *space, int64_t bytes) {
    Word at = AddGap(space, bytes, false, 0);
    Word klass = ArrayClass("[J")->klass;
    As<JavaArray>(at) = {UNMARKED, klass, random() % 2 ? INT32_MIN : 1 << 29, 0};
}

void AddForwarded(HeapSpace *space) {
    made.push_back(NewString("forwarded", space->letter));
    As<Oop>(made.back()->address).mark = AnyMade()->address | 3;
}

void AddChunk(HeapSpace *space, int64_t words) {
    WriteChunk(AddGap(space, 8 * words, true, POISON), words);
    (Word(words) < DICTIONARY_WORDS ? space->indexedWords : space->chunkWords) += words;
    SetTop(space, space->top);
}

void AddWrongChunk(HeapSpace *space, int64_t words) {
    Word at = AddGap(space, 64, false, 0);
    WriteChunk(at, words == ONE_TOO_MANY ? (space->end - at) / 8 + 1 : words);
}

void AddLast(HeapSpace *space, int64_t left) {
    int64_t room = space->end - left - space->top;
    AddArray(space, ArrayClass("[J"), int32_t((room - sizeof(JavaArray)) / 8), room);
}

// Where free lists are, the limit is the space's end.
void AddAcross(HeapSpace *space, int64_t bytes) {
    constexpr int32_t LONGER = 64;
    if (HasFreeLists(*space))
        AddChunk(space, (space->end - space->top - bytes) / 8);
    Word klass = ArrayClass("[B")->klass, at = AddGap(space, bytes, false, 0);
    Oop head = {UNMARKED, klass};
    int32_t length = int32_t(bytes - sizeof(JavaArray)) + LONGER;
    memcpy(&As<char>(at), &head, sizeof head);
    if (at + sizeof(JavaArray) <= space->end)
        As<JavaArray>(at).length = length;
}

void Add(HeapSpace *space, const PieceRow &row) {
    switch (row.piece) {
    case Piece::OBJECTS:
        return AddObjects(space, row.amount);
    case Piece::STALE:
        return AddStale(space, row.amount);
    case Piece::NO_KLASS:
        As<Word>(AddGap(space, row.amount, false, 0)) = UNMARKED;
        return;
    case Piece::LINK:
        return AddLink(space, row.amount);
    case Piece::HALF_ARRAY:
        return AddHalfArray(space, row.amount);
    case Piece::FORWARDED:
        return AddForwarded(space);
    case Piece::ODD_ARRAY:
        return AddOddArray(space, int32_t(row.amount));
    case Piece::VM_KINDS:
        return AddVmKinds(space);
    case Piece::ACROSS:
        return AddAcross(space, row.amount);
    case Piece::LAST:
        return AddLast(space, row.amount);
    case Piece::CHUNK:
        return HasFreeLists(*space) ? AddChunk(space, row.amount) : void();
    case Piece::WRONG_CHUNK:
        return HasFreeLists(*space) ? AddWrongChunk(space, row.amount) : void();
    }
}

} // namespace

void FillHeap(const std::vector<PieceRow> &pieces, uint32_t seed) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    random.seed(seed);
    made = {NewObject("java/lang/Object", 'O')};
    DefineClasses();
    for (const char *signature : {"[B", "[J"})
        ArrayClass(signature);
    for (const PieceRow &row : pieces)
        Add(&SpaceOf(row.space), row);
}

using P = Piece;
// Gaps lie between objects, or beside each other where that makes one run.
const std::vector<PieceRow> &TrickyHeap() {
    static const std::vector<PieceRow> pieces = {
        {'P', P::CHUNK, 3},        {'P', P::VM_KINDS, 0},
        {'P', P::OBJECTS, 20},     {'P', P::CHUNK, 5000},
        {'P', P::LINK, 40},        {'P', P::WRONG_CHUNK, 0},
        {'P', P::OBJECTS, 20},     {'P', P::NO_KLASS, 64},
        {'P', P::CHUNK, 256},      {'P', P::NO_KLASS, 8},
        {'P', P::VM_KINDS, 0},     {'O', P::CHUNK, 4},
        {'O', P::CHUNK, 257},      {'O', P::OBJECTS, 300},
        {'O', P::WRONG_CHUNK, 1},  {'O', P::OBJECTS, 5},
        {'O', P::WRONG_CHUNK, -1}, {'O', P::WRONG_CHUNK, ONE_TOO_MANY},
        {'O', P::OBJECTS, 5},      {'O', P::WRONG_CHUNK, OVERFLOWING},
        {'O', P::CHUNK, 30},       {'O', P::WRONG_CHUNK, 0},
        {'O', P::OBJECTS, 5},      {'O', P::HALF_ARRAY, 48},
        {'O', P::ODD_ARRAY, 2},    {'O', P::ODD_ARRAY, 1},
        {'O', P::FORWARDED, 0},    {'O', P::LINK, 24},
        {'O', P::OBJECTS, 200},    {'O', P::ACROSS, 40},
        {'E', P::STALE, 8},        {'E', P::OBJECTS, 300},
        {'E', P::STALE, 4096},     {'E', P::OBJECTS, 2},
        {'E', P::NO_KLASS, 128},   {'E', P::STALE, 64},
        {'E', P::FORWARDED, 0},    {'E', P::LINK, 56},
        {'E', P::ODD_ARRAY, 3},    {'E', P::HALF_ARRAY, 24},
        {'E', P::OBJECTS, 300},    {'E', P::HALF_ARRAY, 80}};
    return pieces;
}

const std::vector<PieceRow> &FullHeap() {
    static const std::vector<PieceRow> pieces = {
        {'O', P::CHUNK, 10},  {'O', P::OBJECTS, 5}, {'O', P::LAST, 8},    {'O', P::STALE, 8},
        {'E', P::OBJECTS, 5}, {'E', P::LAST, 0},    {'P', P::OBJECTS, 5}, {'P', P::LAST, 0}};
    return pieces;
}

} // namespace simvm
