#include "vm_heap.h"

#include "vm_klass.h"
#include "vm_offsets.h"
#include "vm_reader.h"

#include "platforms/findsymLinSolHPIA64.h"

#include <algorithm>
#include <cstring>

HeapSpace heapspace[NUM_HEAP_SPACES];
int32_t cargs_parallel_gc;
int32_t conc_mark_sweep;
int32_t refresh_heap;

namespace {

constexpr uint64_t REFUSED_FROM = UINT64_MAX - 3; // -4: would wrap where TESTED_BYTES are added
constexpr uint64_t TESTED_BYTES = 4;
constexpr uint32_t PLANNED_MASK = 0xffff0000; // 32 bits: a young generation of 4 GB and more comes out small

uint64_t CollectedHeap() {
    return QorWordAt(nsymbols[SYM_COLLECTED_HEAP]);
}

// The word at a member of the structure at `address`; 0 stays 0.
uint64_t Follow(uint64_t address, VmOffset member) {
    return address ? QorWordAt(address + offsets[member]) : 0;
}

uint64_t FromSpace() {
    return Follow(QorYoungGeneration(), cargs_parallel_gc ? PS_YOUNG_FROM : YOUNG_FROM);
}

uint64_t EdenSpace() {
    return Follow(QorYoungGeneration(), cargs_parallel_gc ? PS_YOUNG_EDEN : YOUNG_EDEN);
}

uint64_t OldSpace() {
    const VmOffset space = cargs_parallel_gc ? PS_OLD_SPACE : conc_mark_sweep ? CMS_SPACE : OLD_SPACE;
    return Follow(QorOldGeneration(), space);
}

uint64_t PermSpace() {
    if (cargs_parallel_gc)
        return Follow(QorWordAt(nsymbols[SYM_PS_PERM_GEN]), PS_PERM_SPACE);
    const uint64_t generation = Follow(Follow(CollectedHeap(), HEAP_PERM_GEN), PERM_GEN);
    return Follow(generation, conc_mark_sweep ? CMS_SPACE : PERM_SPACE);
}

VmOffset TopMember() {
    return cargs_parallel_gc ? PS_SPACE_TOP : SPACE_TOP;
}

VmOffset EndMember() {
    return cargs_parallel_gc ? PS_SPACE_END : SPACE_END;
}

// One space as it is now. A record whose words contradict each other accepts nothing.
void NoteSpace(HeapSpace *space) {
    space->bottom = Follow(space->space, cargs_parallel_gc ? PS_SPACE_BOTTOM : SPACE_BOTTOM);
    space->top = Follow(space->space, TopMember());
    space->end = Follow(space->space, EndMember());
    if (space->bottom > space->end || (space->top > space->end && !QorHasFreeLists(*space)))
        space->bottom = 0;
}

bool Holds(const HeapSpace &space, uint64_t address) {
    const uint64_t limit = QorHasFreeLists(space) ? space.end : space.top;
    return space.bottom != 0 && address >= space.bottom && address + TESTED_BYTES < limit;
}

uint64_t Quotient(uint64_t bytes, int64_t divisor) {
    return divisor > 0 ? bytes / static_cast<uint64_t>(divisor) : 0;
}

// Sizes as the flags plan them. They are the JVM's own variables of 64 bits.
struct PlannedSizes {
    uint64_t perm, old, eden, survivor;
};

PlannedSizes PlanSizes() {
    const uint64_t heap = QorWordAt(nsymbols[SYM_MAX_HEAP_SIZE]);
    const auto newRatio = static_cast<int64_t>(QorWordAt(nsymbols[SYM_NEW_RATIO]));
    const auto survivorRatio = static_cast<int64_t>(QorWordAt(nsymbols[SYM_SURVIVOR_RATIO]));
    uint64_t young = std::min(Quotient(heap, newRatio + 1), QorWordAt(nsymbols[SYM_MAX_NEW_SIZE]));
    young &= PLANNED_MASK;
    const uint64_t survivor = Quotient(young, survivorRatio + 2) & PLANNED_MASK;
    const uint64_t eden = young > 2 * survivor ? young - 2 * survivor : 0;
    return {QorWordAt(nsymbols[SYM_MAX_PERM_SIZE]), heap - young, eden, survivor};
}

bool IsKnownTable(uint64_t table) {
    return table != 0 && QorTypeOfTable(table) >= 0;
}

bool HasKnownTable(uint64_t klass) {
    return is_in_heap(klass + KLASS_PART) && IsKnownTable(QorWordAt(klass + KLASS_PART));
}

} // namespace

void QorReadCollector() {
    uint8_t flag = 0;
    const uint64_t parallel = nsymbols[SYM_USE_PARALLEL_GC], concurrent = nsymbols[SYM_USE_CMS];
    cargs_parallel_gc = parallel && QorPeekFresh(parallel, &flag, sizeof flag) && flag;
    conc_mark_sweep = concurrent && QorPeekFresh(concurrent, &flag, sizeof flag) && flag;
}

bool QorHasFreeLists(const HeapSpace &space) {
    return conc_mark_sweep && (space.letter == SPACE_PERM || space.letter == SPACE_CMS);
}

uint64_t QorSpaceLimit(const HeapSpace &space) {
    uint64_t limit = 0;
    const VmOffset member = QorHasFreeLists(space) ? EndMember() : TopMember();
    return QorPeekFresh(space.space + offsets[member], &limit, sizeof limit) ? limit : 0;
}

uint64_t QorYoungGeneration() {
    return cargs_parallel_gc ? QorWordAt(nsymbols[SYM_PS_YOUNG_GEN])
                             : Follow(CollectedHeap(), HEAP_YOUNG_GEN);
}

uint64_t QorOldGeneration() {
    if (cargs_parallel_gc)
        return QorWordAt(nsymbols[SYM_PS_OLD_GEN]);
    return Follow(CollectedHeap(), conc_mark_sweep ? HEAP_CMS_GEN : HEAP_OLD_GEN);
}

int32_t QorLayOutSpaces() {
    refresh_heap = 0;
    const PlannedSizes planned = PlanSizes();
    const HeapSpace found[NUM_HEAP_SPACES] = {
        {PermSpace(), 0, 0, 0, planned.perm, "Perm", SPACE_PERM},
        {OldSpace(), 0, 0, 0, planned.old, conc_mark_sweep ? "CMS" : "Old",
         conc_mark_sweep ? SPACE_CMS : SPACE_OLD},
        {EdenSpace(), 0, 0, 0, planned.eden, "Eden", SPACE_EDEN},
        {FromSpace(), 0, 0, 0, planned.survivor, "From", SPACE_FROM},
    };
    std::copy(found, found + NUM_HEAP_SPACES, heapspace);
    QorNoteSpaces();
    std::sort(heapspace, heapspace + NUM_HEAP_SPACES,
              [](const HeapSpace &a, const HeapSpace &b) { return a.bottom < b.bottom; });
    for (const HeapSpace &space : heapspace)
        if (space.bottom == 0)
            return -1;
    return 0;
}

void QorNoteSpaces() {
    for (HeapSpace &space : heapspace) {
        if (refresh_heap && space.letter == SPACE_FROM)
            space.space = FromSpace();
        NoteSpace(&space);
    }
}

int32_t is_in_heap(uint64_t address) {
    if (address >= REFUSED_FROM)
        return 0;
    for (const HeapSpace &space : heapspace)
        if (Holds(space, address))
            return 1;
    return 0;
}

int32_t valid_oop(uint64_t address) {
    if (address % 8 != 0 || !is_in_heap(address))
        return 0;
    const uint64_t klass = QorWordAt(address + OBJECT_KLASS);
    return klass != 0 && klass % 8 == 0 && is_in_heap(klass) && HasKnownTable(klass);
}

int32_t valid_klass(uint64_t klass) {
    return klass != 0 && klass % 4 == 0 && is_in_heap(klass) && HasKnownTable(klass);
}

int32_t is_top(int64_t value, int64_t limit) {
    return limit != 0 ? value >= limit : value == -1;
}

int32_t QorIsInPerm(uint64_t address) {
    if (address % 8 != 0 || address >= REFUSED_FROM)
        return 0;
    for (const HeapSpace &space : heapspace)
        if (space.letter == SPACE_PERM)
            return Holds(space, address);
    return 0;
}

uint32_t QorCollectionCount() {
    uint32_t count = 0;
    uint64_t heap = 0;
    if (QorPeekFresh(nsymbols[SYM_COLLECTED_HEAP], &heap, sizeof heap))
        QorPeekFresh(heap + HEAP_COLLECTIONS, &count, sizeof count);
    return count;
}

int32_t QorIsCollecting() {
    uint32_t word = 1;
    uint64_t heap = 0;
    return !QorPeekFresh(nsymbols[SYM_COLLECTED_HEAP], &heap, sizeof heap) ||
           !QorPeekFresh(heap + HEAP_COLLECTING, &word, sizeof word) || word != 0;
}
