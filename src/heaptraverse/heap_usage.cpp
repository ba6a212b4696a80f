#include "heap_usage.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <algorithm>

QorHeapSummary heap;

namespace {

constexpr int32_t KIB_SHIFT = 10;
constexpr uint64_t USEC_PER_MSEC = 1000;
constexpr uint64_t WHOLE = 100;

uint64_t LessOrNone(uint64_t from, uint64_t taken) {
    return from > taken ? from - taken : 0;
}

// Rounded up; at most 100.
uint32_t Percent(uint64_t part, uint64_t whole) {
    if (whole == 0)
        return 0;
    return static_cast<uint32_t>(std::min((part * WHOLE + whole - 1) / whole, WHOLE));
}

// What a collector with free lists has in them.
uint64_t FreeBytes(const HeapSpace &space) {
    const uint64_t dictionary = QorWordAt(space.space + offsets[CMS_DICTIONARY]);
    const uint64_t inDictionary = dictionary ? QorWordAt(dictionary + offsets[CMS_DICTIONARY_SIZE]) : 0;
    return (inDictionary + QorWordAt(space.space + offsets[CMS_LINEAR_SIZE])) * VM_WORD_SIZE;
}

uint64_t UsedBytes(const HeapSpace &space) {
    if (!QorHasFreeLists(space))
        return LessOrNone(space.top, space.bottom);
    // In single precision, in which these figures have always been reported.
    return static_cast<uint64_t>(static_cast<float>(LessOrNone(space.end - space.bottom, FreeBytes(space))));
}

void Measure(const HeapSpace &space, QorSpaceUsage *usage) {
    const uint64_t capacity = space.bottom ? std::max(space.max, space.end - space.bottom) : 0;
    const uint64_t used = std::min(space.bottom ? UsedBytes(space) : 0, capacity);
    *usage = {capacity >> KIB_SHIFT, used >> KIB_SHIFT, 0, Percent(used, capacity)};
    usage->free = usage->capacity - usage->used;
}

// The word after a generation's count of collections.
uint64_t TimeOf(uint64_t generation) {
    return generation ? QorWordAt(generation + offsets[GENERATION_STATISTICS] + VM_WORD_SIZE) : 0;
}

int32_t CountOf(uint64_t generation) {
    return generation ? QorInt32At(generation + offsets[GENERATION_STATISTICS]) : 0;
}

void MeasureCollections() {
    heap.majorCount =
        cargs_parallel_gc ? QorInt32At(nsymbols[SYM_PS_OLD_COUNT]) : CountOf(QorOldGeneration());
    heap.collections = QorInt32At(QorWordAt(nsymbols[SYM_COLLECTED_HEAP]) + HEAP_COLLECTIONS);
    heap.minorCount = std::max(heap.collections - heap.majorCount, 0); // one may have begun in between
    const uint64_t minor =
        cargs_parallel_gc ? QorWordAt(nsymbols[SYM_PS_YOUNG_TIME]) : TimeOf(QorYoungGeneration());
    const uint64_t major =
        cargs_parallel_gc ? QorWordAt(nsymbols[SYM_PS_OLD_TIME]) : TimeOf(QorOldGeneration());
    heap.minorTime = minor / USEC_PER_MSEC;
    heap.majorTime = major / USEC_PER_MSEC;
}

} // namespace

int32_t QorMeasureHeap() {
    QorForgetPages();
    HeapSpace before[NUM_HEAP_SPACES];
    std::copy(heapspace, heapspace + NUM_HEAP_SPACES, before);
    const int32_t failed = QorLayOutSpaces();
    if (failed) {
        std::copy(before, before + NUM_HEAP_SPACES, heapspace);
        QorNoteSpaces();
    }
    heap = {};
    for (int32_t i = 0; i < NUM_HEAP_SPACES; i++) {
        QorSpaceUsage &usage = heap.spaces[i];
        Measure(heapspace[i], &usage);
        heap.used += usage.used << KIB_SHIFT;
        heap.capacity += usage.capacity << KIB_SHIFT;
    }
    heap.percent = Percent(heap.used, heap.capacity);
    MeasureCollections();
    return failed;
}
