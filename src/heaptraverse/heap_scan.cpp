#include "heap_scan.h"

#include "sunprint/root_lines.h"

#include "platforms/memory_maps.h"
#include "qorrequest.h"
#include "qorutil/vm_calls.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <algorithm>
#include <cstring>

namespace {

constexpr uint64_t STEP = VM_WORD_SIZE; // from one place where an object may begin to the next
constexpr uint64_t SMALLEST = 16;       // mark and klass
constexpr uint64_t WINDOW_SIZE = 64 * 1024;
constexpr uint64_t MOST_UNREADABLE = 4 << 20; // of a space; what comes then isn't looked at
constexpr int32_t OBJECTS_PER_LOOK = 1000;    // whether the worker is asked to leave
constexpr uint64_t KNOWN_KLASSES = 1024;
constexpr uint32_t USUAL_ARRAY_HEADER = 24, LARGEST_ARRAY_HEADER = 32;
constexpr int32_t MAX_RANGES = 64;

// The first words of what may be an object. A free chunk has an odd link where an object has its klass.
struct Head {
    uint64_t mark, klass;
    union {
        uint64_t chunkWords;
        int32_t length;
    };
};

// What a klass says of its objects. Direct mapped by address; one walk's.
struct KnownKlass {
    uint64_t klass;
    VmType type;         // TYPE_NONE: not a klass, or of no kind that is known
    int32_t helper;      // above 0: words of an instance; below 0: an array
    uint64_t header;     // bytes before an array's elements
    uint64_t elementLog; // of their size
};
KnownKlass known[KNOWN_KLASSES];

unsigned char window[WINDOW_SIZE + sizeof(Head)]; // zeros from what was read on, so that a head can be taken

QorMemoryRange readable[MAX_RANGES];
int32_t readableCount;

struct Walk {
    HeapSpace space;
    QorSpaceCensus *census;
    bool freeLists;
    uint64_t at, limit;
    uint64_t windowStart, windowEnd;
    uint64_t skippedTo;  // where the last run of skipped bytes ended
    uint64_t unreadable; // bytes
};

void Skip(Walk *walk, uint64_t bytes) {
    walk->census->skippedBytes += bytes;
    if (walk->skippedTo != walk->at)
        walk->census->skippedRuns++;
    walk->at += bytes;
    walk->skippedTo = walk->at;
}

// Reads on from walk->at. False when not even its page can be read.
bool FillWindow(Walk *walk) {
    const uint64_t left = walk->limit - walk->at;
    const uint64_t onPage = std::min(VM_PAGE_SIZE - walk->at % VM_PAGE_SIZE, left);
    uint64_t size = std::min(WINDOW_SIZE, left);
    if (!QorPeekFresh(walk->at, window, size)) {
        size = onPage;
        if (!QorPeekFresh(walk->at, window, size))
            return false;
    }
    memset(window + size, 0, sizeof(Head));
    walk->windowStart = walk->at;
    walk->windowEnd = walk->at + size;
    return true;
}

// The head at walk->at. False when it can't be read.
bool TakeHead(Walk *walk, Head *head) {
    if (walk->at < walk->windowStart || walk->at + sizeof *head > walk->windowEnd) {
        walk->limit = std::min(walk->limit, QorSpaceLimit(walk->space)); // eden may shrink
        if (walk->at >= walk->limit || !FillWindow(walk))
            return false;
    }
    memcpy(head, window + (walk->at - walk->windowStart), sizeof *head);
    return true;
}

void SkipPage(Walk *walk) {
    if (walk->at >= walk->limit)
        return;
    const uint64_t left = walk->limit - walk->at;
    const uint64_t page = std::min(VM_PAGE_SIZE - walk->at % VM_PAGE_SIZE, left);
    walk->unreadable += page;
    Skip(walk, walk->unreadable > MOST_UNREADABLE ? left : page);
}

// How far from walk->at on, in the window, there is no klass where an object would have one.
uint64_t BytesWithoutKlass(const Walk &walk) {
    uint64_t bytes = 0;
    for (uint64_t klass = 0; walk.at + bytes + SMALLEST <= walk.windowEnd; bytes += STEP) {
        memcpy(&klass, window + (walk.at + bytes + OBJECT_KLASS - walk.windowStart), sizeof klass);
        if (klass != 0)
            break;
    }
    return bytes;
}

// The kind of a klass whose objects have no common size, by the functions in its virtual table.
VmType TypeByFunctions(uint64_t klass) {
    const uint64_t table = QorWordAt(klass + KLASS_PART);
    for (int32_t i = NUM_CHECK_TYPES - 1; i >= 0; i--) {
        const VfuncCheck &check = trueVfuncArray[i];
        if (QorWordAt(table + check.slot) == check.expected)
            return oop_vtable[check.type] == table ? static_cast<VmType>(check.type) : TYPE_NONE;
    }
    return TYPE_NONE;
}

void Learn(uint64_t klass, KnownKlass *out) {
    *out = {klass, TYPE_NONE, 0, 0, 0};
    if (klass % VM_WORD_SIZE != 0 || !valid_klass(klass))
        return;
    const uint64_t part = klass + KLASS_PART;
    out->helper = QorInt32At(part + offsets[KLASS_LAYOUT_HELPER_WORDS] * VM_WORD_SIZE);
    out->header = QorUint32At(part + offsets[KLASS_ARRAY_HEADER_WORDS] * VM_WORD_SIZE);
    if (out->header == 0 || out->header > LARGEST_ARRAY_HEADER)
        out->header = USUAL_ARRAY_HEADER;
    out->elementLog = static_cast<uint64_t>(~out->helper) & 31;
    out->type = out->helper > 0 ? TYPE_INSTANCE : out->helper < 0 ? TYPE_ARRAY : TypeByFunctions(klass);
}

const KnownKlass &Lookup(uint64_t klass) {
    KnownKlass &entry = known[(klass / VM_WORD_SIZE) % KNOWN_KLASSES];
    if (entry.klass != klass)
        Learn(klass, &entry);
    return entry;
}

bool DescribesKlasses(VmType type) {
    return type >= TYPE_KLASS_KLASS && type <= TYPE_TYPE_ARRAY_KLASS_KLASS;
}

// Bytes of the object, in whole words; 0 when they can't be known.
uint64_t SizeOf(const KnownKlass &klass, const Head &head, uint64_t address) {
    if (klass.type == TYPE_INSTANCE)
        return static_cast<uint64_t>(klass.helper) * VM_WORD_SIZE;
    if (klass.type == TYPE_ARRAY) {
        const auto elements = static_cast<uint64_t>(std::max(head.length, 0)) << klass.elementLog;
        const uint64_t size = (klass.header + elements + VM_WORD_SIZE - 1) & ~(VM_WORD_SIZE - 1);
        return head.length >= 0 ? size : 0;
    }
    if (DescribesKlasses(klass.type) && !valid_klass(address))
        return 0;
    return static_cast<uint64_t>(std::max<int64_t>(QorAskObjectSize(klass.type, klass.klass, address), 0));
}

// The object at walk->at. False when there is none.
bool TakeObject(const Walk &walk, const Head &head, QorHeapObject *object) {
    if (head.klass == 0 || !is_in_heap(walk.at))
        return false;
    const KnownKlass &klass = Lookup(head.klass);
    if (klass.type == TYPE_NONE)
        return false;
    const uint64_t size = SizeOf(klass, head, walk.at);
    if (size < SMALLEST || size > walk.limit - walk.at)
        return false;
    *object = {walk.at, head.klass, size, klass.type, klass.type == TYPE_ARRAY ? head.length : 0};
    return true;
}

// Steps over a free chunk, or over the word that only looks like one.
void TakeChunk(Walk *walk, uint64_t words) {
    if (words >= SMALLEST / VM_WORD_SIZE && words <= (walk->limit - walk->at) / VM_WORD_SIZE)
        walk->at += words * VM_WORD_SIZE;
    else
        Skip(walk, STEP);
}

void Count(const QorHeapObject &object, QorSpaceCensus *census) {
    census->objects++;
    census->bytes += object.size;
    census->count[object.type]++;
    census->typeBytes[object.type] += object.size;
}

// Adds what of a mapping lies in a space. False when there is no room for more.
bool NoteReadable(const QorMapping &mapping, void *) {
    for (const HeapSpace &space : heapspace) {
        const QorMemoryRange range = {std::max(mapping.start, space.bottom),
                                      std::min(mapping.end, space.end)};
        if (!mapping.readable || range.start >= range.end)
            continue;
        if (readableCount > 0 && readable[readableCount - 1].end == range.start)
            readable[readableCount - 1].end = range.end;
        else if (readableCount < MAX_RANGES)
            readable[readableCount++] = range;
    }
    return readableCount < MAX_RANGES;
}

} // namespace

int64_t QorScanSpace(int32_t space, QorSpaceCensus *census, QorObjectVisit visit, void *context) {
    *census = {};
    std::fill(known, known + KNOWN_KLASSES, KnownKlass());
    Walk walk = {};
    walk.space = heapspace[space];
    walk.census = census;
    walk.freeLists = QorHasFreeLists(walk.space);
    walk.at = walk.space.bottom;
    walk.limit = walk.freeLists ? walk.space.end : walk.space.top;
    for (uint64_t looks = 1; walk.at != 0 && walk.at < walk.limit; looks++) {
        Head head;
        QorHeapObject object;
        if (looks % OBJECTS_PER_LOOK == 0 && qorLeave)
            break;
        if (walk.freeLists && walk.limit - walk.at <= STEP)
            break;
        if (!TakeHead(&walk, &head)) {
            SkipPage(&walk);
        } else if (walk.freeLists && head.klass % 2 != 0) {
            TakeChunk(&walk, head.chunkWords);
        } else if (TakeObject(walk, head, &object)) {
            Count(object, census);
            walk.at += object.size;
            if (visit && !visit(object, context))
                break;
        } else {
            Skip(&walk, std::max(STEP, BytesWithoutKlass(walk)));
        }
    }
    return static_cast<int64_t>(census->objects);
}

void QorPrepareScan() {
    QorSetRecordBase(heapspace[0].bottom - VM_WORD_SIZE);
    readableCount = 0;
    QorVisitMappings(NoteReadable, nullptr);
}

void QorScanPlainly() {
    QorForgetPages();
    QorPlainReads(readable, static_cast<size_t>(readableCount));
}
