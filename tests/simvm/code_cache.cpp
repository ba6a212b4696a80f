// The code cache: a heap of segments with blobs, and the interpreter's room in it.
#include "emit.h"

#include <sys/mman.h>

namespace simvm {

int32_t safepointAsked;
std::mt19937_64 randomWords(20260101);
Word callStub, safepointStub;

namespace {

constexpr size_t CODE_BYTES = 16 << 20, INTERPRETER_BYTES = 1 << 20;
constexpr int LOG2_SEGMENT = 6, SEGMENT = 1 << LOG2_SEGMENT;
constexpr uint8_t FREE_SEGMENT = 255;

Word cacheLow, cacheMap, cacheNext;   // the code cache
Word interpreterNext, interpreterEnd; // room for interpreted frames
std::vector<std::pair<Word, Word>> oopTables;

Word AllocateBlock(size_t bytes) {
    size_t segments = (sizeof(HeapBlock) + bytes + SEGMENT - 1) / SEGMENT;
    Word block = cacheNext;
    cacheNext += segments * SEGMENT;
    if (cacheNext > cacheLow + CODE_BYTES)
        Fail("the code cache is full");
    As<HeapBlock>(block).segments = segments;
    As<HeapBlock>(block).used = 1; // the rest of that word is padding
    auto *map = &As<uint8_t>(cacheMap + (block - cacheLow) / SEGMENT);
    for (size_t i = 0, back = 0; i < segments; i++, back = back + 1 == FREE_SEGMENT ? 1 : back + 1)
        map[i] = uint8_t(back); // each leads back to the block's first segment
    return block + sizeof(HeapBlock);
}

size_t Align8(size_t bytes) {
    return (bytes + 7) & ~size_t(7);
}

// The code with the pc that CallOut left open, now that its place is known.
std::string CodeAt(Assembler *a, Word start) {
    Word pc = start + a->pc;
    if (a->pcAt)
        a->code.replace(a->pcAt, 8, reinterpret_cast<char *>(&pc), 8);
    return a->code;
}

} // namespace

Word NewBlob(const BlobParts &parts) {
    size_t code = sizeof(Blob), oops = code + Align8(parts.code.size()),
           scopes = oops + 8 * parts.oops.size(), pc = scopes + Align8(parts.scopes.size()),
           end = pc + sizeof(PcDesc);
    Word blob = AllocateBlock(end);
    As<Blob>(blob).vtable = reinterpret_cast<Word>(vm.statics.vtables[parts.kind]) + VTABLE_HEAD;
    As<Blob>(blob).size = end;
    As<Blob>(blob).codeOffset = code;
    As<Blob>(blob).oopsOffset = oops;
    As<Blob>(blob).oopCount = parts.oops.size();
    As<Blob>(blob).frameWords = parts.words;
    At(blob, &Blob::linkOffset) = parts.link;
    At(blob, &Blob::oopMaps) = parts.oopMaps;
    At(blob, &Blob::scopesOffset) = scopes;
    At(blob, &Blob::pcDescCache) = blob + pc;
    As<PcDesc>(blob + pc) = {0, parts.scope};
    memcpy(&As<char>(blob + code), parts.code.data(), parts.code.size());
    memcpy(&As<char>(blob + scopes), parts.scopes.data(), parts.scopes.size());
    for (size_t i = 0; i < parts.oops.size(); i++)
        As<Word>(blob + oops + 8 * i) = parts.oops[i];
    oopTables.emplace_back(blob + oops, blob + oops + 8 * parts.oops.size());
    return blob;
}

Word EntryOf(Word blob) {
    return blob + As<Blob>(blob).codeOffset;
}

Word FinishBlob(BlobParts *parts, Assembler *a) {
    Word blob = cacheNext + sizeof(HeapBlock); // where NewBlob will put it
    parts->code = CodeAt(a, blob + sizeof(Blob));
    return EntryOf(NewBlob(*parts));
}

Word PlaceInterpreted(Assembler *a) {
    Word at = interpreterNext;
    interpreterNext += (a->code.size() + 15) & ~size_t(15);
    if (interpreterNext > interpreterEnd)
        Fail("the interpreter has no more room");
    memcpy(&As<char>(at), CodeAt(a, at).data(), a->code.size());
    return at;
}

const std::vector<std::pair<Word, Word>> &OopTables() {
    return oopTables;
}

Word BlobOf(Word pc) {
    if (pc < cacheLow || pc >= cacheNext)
        return 0;
    auto *map = &As<uint8_t>(cacheMap);
    size_t segment = (pc - cacheLow) / SEGMENT;
    while (map[segment])
        segment -= map[segment];
    return cacheLow + segment * SEGMENT + sizeof(HeapBlock);
}

void BootCode() {
    cacheLow = cacheNext = Map(CODE_BYTES, true, PROT_EXEC);
    cacheMap = Map(CODE_BYTES / SEGMENT, false);
    memset(&As<char>(cacheMap), FREE_SEGMENT, CODE_BYTES / SEGMENT);
    Word heap = Allocate(sizeof(CodeHeap));
    *vm.statics.codeHeap = heap;
    As<CodeHeap>(heap).low = As<CodeHeap>(heap).lowBoundary = cacheLow;
    As<CodeHeap>(heap).high = As<CodeHeap>(heap).highBoundary = cacheLow + CODE_BYTES;
    At(heap, &CodeHeap::mapLow) = cacheMap;
    At(heap, &CodeHeap::log2SegmentSize) = LOG2_SEGMENT;
    EmitCallStub();
    Word interpreter = NewBlob({VT_BUFFER_BLOB, std::string(INTERPRETER_BYTES, char(0xcc))});
    interpreterNext = EntryOf(interpreter);
    interpreterEnd = interpreterNext + INTERPRETER_BYTES;
    Word queue = Allocate(sizeof(StubQueue));
    As<StubQueue>(queue).start = interpreterNext;
    As<StubQueue>(queue).size = INTERPRETER_BYTES;
    *vm.statics.interpreterCode = queue;
    safepointStub = EmitRuntimeStub(reinterpret_cast<void (*)()>(&SimvmSafepoint), 0);
    constexpr int SPECIAL_BLOB = 31;
    if (vm.statics.runtimeBlobs)
        vm.statics.runtimeBlobs[SPECIAL_BLOB] = NewBlob({VT_BUFFER_BLOB, std::string(64, char(0xcc))});
}

} // namespace simvm
