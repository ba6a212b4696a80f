// The figures of a heap, from its description.
#include "heap.h"

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
    const VtableKind KINDS[] = {VT_SYMBOL,
                                VT_METHOD,
                                VT_CONST_METHOD,
                                VT_POOL,
                                VT_POOL_CACHE,
                                VT_IC_HOLDER,
                                VT_METHOD_DATA,
                                VT_KLASS_KLASS,
                                VT_INSTANCE_KLASS_KLASS,
                                VT_ARRAY_KLASS_KLASS,
                                VT_OBJ_ARRAY_KLASS_KLASS,
                                VT_TYPE_ARRAY_KLASS_KLASS};
    const char LETTERS[] = "12F34*HABCDE"; // of these
    std::unordered_map<Word, char> letters;
    for (size_t i = 0; i < std::size(KINDS); i++)
        letters[vm.kindKlass[KINDS[i]]] = LETTERS[i];
    for (const auto &[name, type] : vm.classes)
        letters[type.klass] = name[0] == '[' ? '[' : '8';
    return letters;
}

Census CensusOf(const HeapSpace &space) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    const std::unordered_map<Word, char> letters = KindLetters();
    std::unordered_map<Word, Count *> classes;
    Census census;
    for (const auto &[name, type] : vm.classes)
        classes[type.klass] = &census.classes[name];
    Word afterSkipped = 0;
    for (Word at = space.bottom, bytes; at < space.top; at += bytes) {
        auto gap = vm.gaps.find(at);
        bytes = 8 * Word(SizeAt(space, at));
        if (bytes) {
            Word klass = As<Oop>(at).klass;
            Add(&census.all, bytes);
            Add(&census.types[letters.at(klass)], bytes);
            if (auto type = classes.find(klass); type != classes.end())
                Add(type->second, bytes);
            continue;
        }
        bytes = gap == vm.gaps.end() ? 8 : gap->second.bytes;
        if (gap != vm.gaps.end() && gap->second.chunk)
            continue;
        // The last word of a space with free lists is never looked at.
        Word end = HasFreeLists(space) ? std::min(at + bytes, space.end - 8) : at + bytes;
        if (at < end)
            census.skippedRuns += at != afterSkipped;
        census.skippedBytes += at < end ? end - at : 0;
        afterSkipped = at + bytes;
    }
    for (auto at = census.classes.begin(); at != census.classes.end();)
        at = at->second.objects ? std::next(at) : census.classes.erase(at);
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
