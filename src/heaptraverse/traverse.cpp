#include "traverse.h"

#include "sunprint/root_lines.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/forked_child.h"
#include "qorutil/vm_reader.h"

#include <algorithm>

void (*qorThreadVisit)(uint64_t thread);

namespace {

constexpr int32_t MAX_DEPTH = 16;
constexpr int64_t MAX_LINKS = 10 * 1000 * 1000; // of one chain
constexpr int32_t MAX_CHUNKS = 100 * 1000;
constexpr uint64_t MAX_ELEMENTS = 1000 * 1000, MAX_JNI_HANDLES = 32, MAX_MONITORS = 1024;
constexpr uint64_t CHUNK_DATA = 24; // bytes, in all listed builds
constexpr uint64_t ADDRESS_MASK = 3;
constexpr uint64_t COUNT_OF_TABLE = 0; // bytes into a hash table
constexpr char CHUNK_NAME[] = "chunk_oop";

int32_t depth;

bool HasMark(const TypeMember &member, char mark) {
    return member.name[0] == mark;
}

void Report(uint64_t oop, int32_t type, int32_t structure, const char *name) {
    INLINE_DUMP_OOP_DETAILS(&logfile, oop, type, type_char[structure], name);
    QorForkStep();
}

uint64_t WordIn(const VmPlace &place, uint64_t object) {
    uint64_t address = 0;
    return QorResolvePlace(place, object, &address) ? QorWordAt(address) : 0;
}

// ---- Arrays

// An array's elements as memory says how many. A count that can't be right is a torn structure's.
uint64_t CountOf(const TypeMember &member, uint64_t object) {
    uint64_t address = 0;
    if (!QorResolvePlace(member.aux1, object, &address))
        return 0;
    const uint64_t count = QorUint32At(address);
    if (member.type == TYPE_JNIHANDLE_ARRAY)
        return std::min(count, MAX_JNI_HANDLES);
    if (member.type == TYPE_BASICOBJECTLOCK_ARRAY)
        return count <= MAX_MONITORS ? count : 0;
    return std::min(count, MAX_ELEMENTS);
}

// A hash table says itself how many buckets it has; those that the JVM was built with are the most.
uint64_t FixedCount(const TypeMember &member) {
    const auto built = static_cast<uint64_t>(member.aux1.value);
    if (member.place.kind != PLACE_TABLE)
        return built;
    const uint64_t table = QorWordAt(nsymbols[member.place.value]);
    return std::min<uint64_t>(built, QorUint32At(table + COUNT_OF_TABLE));
}

bool ElementsArePointers(int32_t type, const TypeMember &element) {
    return HasMark(element, '*') || type == TYPE_VMOPERATION_ARRAY;
}

void WalkArray(uint64_t address, int32_t type, uint64_t count) {
    const TypeInfo &info = typeInfoArray[static_cast<size_t>(type)];
    const TypeMember &element = info.members[0];
    const auto stride = static_cast<uint64_t>(info.stride);
    for (uint64_t i = type == TYPE_OBJECTMONITOR_ARRAY ? 1 : 0; i < count && !logfile.error; i++) {
        const uint64_t place = address + i * stride;
        uint64_t word = 0;
        if (!QorPeekValue(place, &word))
            return;
        if (QorIsObjectType(element.type))
            Report(word, element.type, type, element.name);
        else
            traverseObject(ElementsArePointers(type, element) ? word : place, element.type, 0, 0);
    }
}

// ---- Chunks

void WalkChunk(uint64_t data, uint64_t end, int32_t type) {
    uint64_t word = 0;
    for (uint64_t at = data; at < end && !logfile.error && QorPeekValue(at, &word); at += VM_WORD_SIZE)
        Report(word, ANY_OBJECT, type, CHUNK_NAME);
}

// `last` is the last chunk, of which only what lies below `end` is in use.
void WalkChunks(uint64_t chunk, int32_t type, uint64_t end, uint64_t last) {
    const TypeInfo &info = typeInfoArray[static_cast<size_t>(type)];
    for (int32_t i = 0; i < MAX_CHUNKS && chunk != 0 && last != 0 && !logfile.error; i++) {
        const uint64_t data = chunk + CHUNK_DATA;
        const uint64_t length = std::min(WordIn(info.members[1].place, chunk), MAX_ELEMENTS * VM_WORD_SIZE);
        if (chunk == last) {
            if (end >= data && end - data <= length)
                WalkChunk(data, end, type);
            return;
        }
        WalkChunk(data, data + length, type);
        const uint64_t next = WordIn(info.members[0].place, chunk);
        if (next == chunk)
            return;
        chunk = next;
    }
}

// ---- Structures

// A C array of objects that the tables have as one object.
void WalkLoaders(const TypeMember &member, uint64_t object, int32_t type) {
    const uint64_t loaders = WordIn(member.place, object), count = CountOf(member, object);
    uint64_t word = 0;
    for (uint64_t i = 0; i < count && loaders != 0; i++) {
        if (!QorPeekValue(loaders + i * VM_WORD_SIZE, &word))
            return;
        Report(word, member.type, type, member.name);
    }
}

// A static structure begins at its symbol; everything else that an absolute place leads to is pointed to.
bool IsStatic(const TypeMember &member) {
    return member.type == TYPE_SYSTEMDICTIONARY_KLASSES || member.type == TYPE_SYSTEMDICTIONARY_MIRRORS;
}

void WalkMember(const TypeMember &member, uint64_t object, int32_t type) {
    uint64_t address = 0;
    if (!QorResolvePlace(member.place, object, &address))
        return;
    if (QorIsObjectType(member.type)) {
        if (member.aux1.kind != PLACE_NONE)
            WalkLoaders(member, object, type);
        else
            Report(QorWordAt(address), member.type, type, member.name);
        return;
    }
    switch (typeInfoArray[static_cast<size_t>(member.type)].kind) {
    case KIND_CHAIN:
        traverseObject(IsStatic(member) ? address : QorWordAt(address), member.type, 0, 0);
        break;
    case KIND_ARRAY:
        traverseObject(address, member.type, FixedCount(member), 0);
        break;
    case KIND_COUNTED_ARRAY:
        traverseObject(address, member.type, CountOf(member, object), 0);
        break;
    case KIND_CHUNKS:
        traverseObject(QorWordAt(address), member.type, WordIn(member.aux1, object),
                       WordIn(member.aux2, object));
        break;
    }
}

// A chain from its head on. It ends at a link of 0, at a record met again, and at the bound. The one that is
// looked for is renewed ever more rarely, so that a ring anywhere in the chain is found.
void WalkChain(uint64_t head, int32_t type) {
    const TypeInfo &info = typeInfoArray[static_cast<size_t>(type)];
    const TypeMember &link = info.members[0];
    uint64_t at = head, mark = 0;
    for (int64_t i = 0; i < MAX_LINKS && !logfile.error; i++) {
        if (type == TYPE_JAVATHREAD && qorThreadVisit)
            qorThreadVisit(at);
        for (int32_t k = 1; k < info.memberCount; k++)
            WalkMember(info.members[k], at, type);
        const uint64_t next = link.place.kind == PLACE_NONE ? 0 : WordIn(link.place, at);
        if (next == 0 || next == head || next == at || next == mark || (next & ADDRESS_MASK) != 0)
            return;
        if ((i & (i + 1)) == 0)
            mark = next;
        at = next;
        QorForkStep();
    }
}

} // namespace

int32_t traverseObject(uint64_t address, int32_t type, uint64_t count, uint64_t extra) {
    if (address == 0 || (address & ADDRESS_MASK) != 0)
        return -1;
    if (depth >= MAX_DEPTH)
        return 0;
    depth++;
    switch (typeInfoArray[static_cast<size_t>(type)].kind) {
    case KIND_CHAIN:
        WalkChain(address, type);
        break;
    case KIND_ARRAY:
    case KIND_COUNTED_ARRAY:
        WalkArray(address, type, count);
        break;
    case KIND_CHUNKS:
        WalkChunks(address, type, count, extra);
        break;
    }
    depth--;
    return 0;
}

int32_t QorTraverseRoot(int32_t index) {
    const StartSymbol &root = startSymbols[index];
    const uint64_t symbol = nsymbols[root.slot];
    const uint64_t address = root.name[0] == '*' ? QorWordAt(symbol) : symbol;
    return traverseObject(address, root.type, static_cast<uint64_t>(root.count), 0);
}

int32_t traverseSystem() {
    int32_t result = 0;
    for (int32_t i = START_SYSTEM; i < START_SYMBOL_COUNT; i++)
        if (i != START_PROFILER)
            result = QorTraverseRoot(i);
    return result;
}
