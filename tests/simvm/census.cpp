// The figures of a heap, from its description.
#include "simvm.h"

#include <algorithm>
#include <sstream>

namespace simvm {

namespace {

void Add(Count *count, int64_t bytes) {
    count->objects++;
    count->bytes += bytes;
}

// The sizes that the flags ask for, as the VM plans them: 64 KB at a time, in 32 bits.
struct Planned {
    int64_t perm, old, eden, survivor;
};
Planned PlannedSizes() {
    constexpr int64_t STEPS = 0xFFFF0000;
    const HeapFlags &flags = vm.options.flags;
    auto part = [](int64_t whole, int64_t parts) { return parts ? whole / parts : 0; };
    int64_t young = std::min(part(flags.heap, flags.newRatio + 1), flags.young) & STEPS;
    int64_t survivor = part(young, flags.survivorRatio + 2) & STEPS;
    return {flags.perm, flags.heap - young, young - 2 * survivor, survivor};
}

SpaceUse UseOf(const HeapSpace &space, const char *name, int64_t planned) {
    int64_t room = space.end - space.bottom, used = space.top - space.bottom;
    if (HasFreeLists(space)) {
        Word rest = (space.end - space.top) / 8;
        used = room - 8 * (space.chunkWords + space.indexedWords + (rest >= SMALLEST_CHUNK ? rest : 0));
    }
    int64_t capacity = std::max(planned, room);
    return {&space, name, used, capacity, int32_t((100 * used + capacity - 1) / capacity)};
}

template <class MAP>
void PutCounts(std::ostream &out, const char *name, const MAP &counts) {
    const char *separator = "";
    out << ", \"" << name << "\": {";
    for (auto &[key, count] : counts) {
        out << separator << '"' << key << "\": [" << count.objects << ", " << count.bytes << ']';
        separator = ", ";
    }
    out << '}';
}

} // namespace

std::unordered_map<Word, char> KindLetters() {
    using Kind = std::pair<VtableKind, char>;
    std::unordered_map<Word, char> letters;
    for (auto [kind, letter] :
         {Kind(VT_SYMBOL, '1'), Kind(VT_METHOD, '2'), Kind(VT_CONST_METHOD, 'F'), Kind(VT_POOL, '3'),
          Kind(VT_POOL_CACHE, '4'), Kind(VT_IC_HOLDER, '*'), Kind(VT_METHOD_DATA, 'H'),
          Kind(VT_KLASS_KLASS, 'A'), Kind(VT_INSTANCE_KLASS_KLASS, 'B'), Kind(VT_ARRAY_KLASS_KLASS, 'C'),
          Kind(VT_OBJ_ARRAY_KLASS_KLASS, 'D'), Kind(VT_TYPE_ARRAY_KLASS_KLASS, 'E')})
        letters[vm.kindKlass[kind]] = letter;
    for (const auto &[name, type] : vm.classes)
        letters[type.klass] = name[0] == '[' ? '[' : '8';
    return letters;
}

Census CensusOf(const HeapSpace &space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    const std::unordered_map<Word, char> letters = KindLetters();
    std::unordered_map<Word, const std::string *> names;
    Census census;
    for (const auto &[name, type] : vm.classes)
        names[type.klass] = &name;
    for (Word at = space.bottom; at < space.top; at += 8)
        if (const int64_t bytes = 8 * WordsOf(at)) {
            const Word klass = As<Oop>(at).klass;
            Add(&census.all, bytes);
            Add(&census.types[letters.at(klass)], bytes);
            if (const auto name = names.find(klass); name != names.end())
                Add(&census.classes[*name->second], bytes);
        }
    return census;
}

std::vector<SpaceUse> UseOfSpaces() {
    Planned planned = PlannedSizes();
    bool concurrent = vm.options.collector == Collector::CONCURRENT;
    std::vector<SpaceUse> uses = {
        UseOf(vm.perm, "Perm", planned.perm), UseOf(vm.old, concurrent ? "CMS" : "Old", planned.old),
        UseOf(vm.eden, "Eden", planned.eden), UseOf(vm.from, "From", planned.survivor)};
    std::sort(uses.begin(), uses.end(),
              [](const SpaceUse &a, const SpaceUse &b) { return a.space->bottom < b.space->bottom; });
    return uses;
}

Word RecordBase() {
    return UseOfSpaces()[0].space->bottom - 8;
}

std::string HeapLine() {
    std::stringstream out;
    const char *separator = "{\"heap\": [";
    for (const SpaceUse &use : UseOfSpaces()) {
        const Census census = CensusOf(*use.space);
        out << separator << "{\"name\": \"" << use.name << "\", \"used\": " << use.used
            << ", \"capacity\": " << use.capacity << ", \"objects\": " << census.all.objects
            << ", \"bytes\": " << census.all.bytes;
        PutCounts(out, "types", census.types);
        PutCounts(out, "classes", census.classes);
        out << '}';
        separator = ", ";
    }
    out << "]}";
    return out.str();
}

} // namespace simvm
