#include "vm_reader.h"

#include "platforms/own_memory.h"

#include <algorithm>
#include <cstring>

namespace {

// A page has eight places, of which the one taken longest ago is taken next: with a single place the page of
// a stack would be lost now and then to another page, and it can't be read again once the thread goes on.
// Thread that reads.
constexpr uint64_t PAGES = 512, PLACES = 8, SETS = PAGES / PLACES;
struct KeptPage {
    unsigned char bytes[VM_PAGE_SIZE];
};
KeptPage pages[PAGES];
uint64_t keptAs[PAGES]; // address of the page in that place plus 1; 0 for none
uint64_t taken[SETS];   // how many places were taken, of each set

const QorMemoryRange *plainRanges;
size_t plainCount;

bool IsPlain(uint64_t address, uint64_t size) {
    for (size_t i = 0; i < plainCount; i++) {
        const QorMemoryRange &range = plainRanges[i];
        if (address >= range.start && address < range.end && size <= range.end - address)
            return true;
    }
    return false;
}

void CopyPlain(uint64_t address, void *out, size_t size) {
    memcpy(out, reinterpret_cast<const void *>(address), size);
}

// Stacks lie at equal distances, so the upper bits take part in the choice of the set.
uint64_t SetOf(uint64_t page) {
    const uint64_t number = page / VM_PAGE_SIZE;
    return (number ^ (number / SETS) ^ (number / PAGES)) % SETS;
}

const unsigned char *KeptAlready(uint64_t page) {
    const uint64_t first = SetOf(page) * PLACES;
    for (uint64_t place = first; place < first + PLACES; place++)
        if (keptAs[place] == page + 1)
            return pages[place].bytes;
    return nullptr;
}

const unsigned char *FindPage(uint64_t page) {
    if (const unsigned char *kept = KeptAlready(page))
        return kept;
    const uint64_t set = SetOf(page), place = set * PLACES + taken[set]++ % PLACES;
    keptAs[place] = 0;
    if (!QorReadOwnMemory(page, pages[place].bytes, VM_PAGE_SIZE))
        return nullptr;
    keptAs[place] = page + 1;
    return pages[place].bytes;
}

bool CopyByPages(uint64_t address, void *out, size_t size, const unsigned char *(*find)(uint64_t page)) {
    auto *to = static_cast<unsigned char *>(out);
    while (size > 0) {
        const uint64_t within = address % VM_PAGE_SIZE;
        const size_t part = std::min<uint64_t>(size, VM_PAGE_SIZE - within);
        const unsigned char *page = find(address - within);
        if (!page)
            return false;
        memcpy(to, page + within, part);
        to += part;
        address += part;
        size -= part;
    }
    return true;
}

// A value rarely lies across two pages; a copy of fixed size costs a load.
template <typename T>
T ValueAt(uint64_t address) {
    T value;
    const uint64_t within = address % VM_PAGE_SIZE;
    if (plainCount != 0 || within > VM_PAGE_SIZE - sizeof value)
        return QorPeekValue(address, &value) ? value : T();
    const unsigned char *page = FindPage(address - within);
    if (!page)
        return T();
    memcpy(&value, page + within, sizeof value);
    return value;
}

} // namespace

bool QorPeek(uint64_t address, void *out, size_t size) {
    if (address + size < address)
        return false;
    if (plainCount != 0 && IsPlain(address, size)) {
        CopyPlain(address, out, size);
        return true;
    }
    return CopyByPages(address, out, size, FindPage);
}

bool QorPeekKept(uint64_t address, void *out, size_t size) {
    return address + size >= address && CopyByPages(address, out, size, KeptAlready);
}

bool QorPeekFresh(uint64_t address, void *out, size_t size) {
    if (address + size < address)
        return false;
    if (plainCount != 0 && IsPlain(address, size)) {
        CopyPlain(address, out, size);
        return true;
    }
    return QorReadOwnMemory(address, out, size);
}

void QorForgetPages() {
    memset(keptAs, 0, sizeof keptAs);
}

void QorPlainReads(const QorMemoryRange *ranges, size_t count) {
    plainRanges = ranges;
    plainCount = count;
}

uint64_t QorWordAt(uint64_t address) {
    return ValueAt<uint64_t>(address);
}

uint32_t QorUint32At(uint64_t address) {
    return ValueAt<uint32_t>(address);
}

int32_t QorInt32At(uint64_t address) {
    return ValueAt<int32_t>(address);
}

uint16_t QorUint16At(uint64_t address) {
    return ValueAt<uint16_t>(address);
}
