// Fills the heap's spaces with objects and with what isn't one.
#include "heap.h"
#include "objects.h"

#include <random>
#include <sstream>

namespace simvm {

namespace {

constexpr int32_t ODD_HEADER = 28; // of arrays of floats in such a heap
constexpr Word DICTIONARY_WORDS = 257;
constexpr int64_t ONE_TOO_MANY = -2; // words more than the space has left

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

void AddOddArray(HeapSpace *space, int64_t length) {
    Class *odd = ArrayClass("[F");
    At(odd->klass, &Klass::arrayHeaderSize) = ODD_HEADER;
    AddArray(space, odd, int32_t(length), (ODD_HEADER + 4 * length + 7) & ~7);
}

void AddVmKinds(HeapSpace *space, int64_t) {
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

void AddForwarded(HeapSpace *space, int64_t) {
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

using Adder = void (*)(HeapSpace *space, int64_t amount);
const std::map<std::string, Adder> ADDERS = {
    {"objects", AddObjects},
    {"stale", AddStale},
    {"no-klass",
     [](HeapSpace *space, int64_t bytes) { As<Word>(AddGap(space, bytes, false, 0)) = UNMARKED; }},
    {"link", AddLink},
    {"half-array", AddHalfArray},
    {"forwarded", AddForwarded},
    {"odd-array", AddOddArray},
    {"vm-kinds", AddVmKinds},
    {"across", AddAcross},
    {"last", AddLast},
    {"chunk", AddChunk},
    {"wrong-chunk", AddWrongChunk}};

} // namespace

void FillHeap(const char *pieces, uint32_t seed) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    random.seed(seed);
    made = {NewObject("java/lang/Object", 'O')};
    DefineClasses();
    for (const char *signature : {"[B", "[J"})
        ArrayClass(signature);
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
P chunk 3          P vm-kinds 0      P objects 20    P chunk 5000                     P link 40
P wrong-chunk 0    P objects 20      P no-klass 64   P chunk 256                      P no-klass 8
P vm-kinds 0       O chunk 4         O chunk 257     O objects 300                    O wrong-chunk 1
O objects 5        O wrong-chunk -1  O wrong-chunk -2  O objects 5                    O wrong-chunk 2305843009213693960
O chunk 30         O wrong-chunk 0   O objects 5     O half-array 48                  O odd-array 2
O odd-array 1      O forwarded 0     O link 24       O objects 200                    O across 40
E stale 8          E objects 300     E stale 4096    E objects 2                      E no-klass 128
E stale 64         E forwarded 0     E link 56       E odd-array 3                    E half-array 24
E objects 300      E half-array 80
)";
const char FULL_HEAP[] = R"(
O chunk 10   O objects 5   O last 8   O stale 8
E objects 5  E last 0      P objects 5  P last 0
)";

} // namespace simvm
