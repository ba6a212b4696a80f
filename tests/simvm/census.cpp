// The figures of a heap, from its description.
#include "simvm.h"

namespace simvm {

namespace {

int64_t Part(int64_t whole, int64_t parts) {
    return parts ? whole / parts : 0;
}

SpaceUse UseOf(const HeapSpace &space, const char *name, int64_t planned) {
    int64_t room = space.end - space.bottom, used = space.top - space.bottom;
    if (HasFreeLists(space))
        used = room - 8 * (space.chunkWords + space.indexedWords + FreeAbove(space));
    int64_t capacity = std::max(planned, room);
    return {&space, name, used, capacity, int32_t((100 * used + capacity - 1) / capacity)};
}

} // namespace

void VisitObjects(const HeapSpace &space, const ObjectVisit &visit) {
    std::unordered_map<Word, char> letters;
    for (int kind = 0; kind < VTABLE_COUNT; kind++)
        letters[vm.kindKlass[kind]] = KIND_LETTERS[kind];
    for (const auto &[name, type] : vm.classes)
        letters[type.klass] = name[0] == '[' ? '[' : '8';
    for (Word at = space.bottom; at < space.top; at += 8)
        if (const int64_t words = WordsOf(at))
            visit(at, As<Oop>(at).klass, letters.at(As<Oop>(at).klass), 8 * words);
}

Census CensusOf(const HeapSpace &space) {
    const Locked held(vm.lock);
    std::unordered_map<Word, const std::string *> names;
    Census census;
    for (const auto &[name, type] : vm.classes)
        names[type.klass] = &name;
    VisitObjects(space, [&](Word, Word klass, char letter, int64_t bytes) {
        census.all += {1, bytes};
        census.types[letter] += {1, bytes};
        if (const auto name = names.find(klass); name != names.end())
            census.classes[*name->second] += {1, bytes};
    });
    return census;
}

// The sizes that the flags ask for are as the VM plans them: 64 KB at a time, in 32 bits.
std::vector<SpaceUse> UseOfSpaces() {
    constexpr int64_t STEPS = 0xFFFF0000;
    const HeapFlags &flags = vm.options.flags;
    const int64_t young = std::min(Part(flags.heap, flags.newRatio + 1), flags.young) & STEPS,
                  survivor = Part(young, flags.survivorRatio + 2) & STEPS;
    const char *old = vm.options.collector == Collector::CONCURRENT ? "CMS" : "Old";
    std::vector<SpaceUse> uses = {UseOf(vm.perm, "Perm", flags.perm), UseOf(vm.old, old, flags.heap - young),
                                  UseOf(vm.eden, "Eden", young - 2 * survivor),
                                  UseOf(vm.from, "From", survivor)};
    std::sort(uses.begin(), uses.end(),
              [](const SpaceUse &a, const SpaceUse &b) { return a.space->bottom < b.space->bottom; });
    return uses;
}

Word RecordBase() {
    return UseOfSpaces()[0].space->bottom - 8;
}

} // namespace simvm
