#include "code_cache.h"

#include "packed.h"

#include <algorithm>

namespace qorctl::outside {

namespace {

constexpr int MOST_HEAPS = 8, MOST_HOPS = 5000, MOST_INLINED = 100;
constexpr Address LARGEST_HEAP = Address(4) << 30, LARGEST_PCS = 8 << 20;
constexpr size_t LONGEST_BLOB_NAME = 64;
constexpr uint8_t FREE_SEGMENT = 255;
constexpr unsigned MOST_METADATA = 1 << 20;
constexpr int C2_LEVEL = 4, NO_ENTRY_BCI = -1;
constexpr int SHORT_FRAME_COMPLETE = 23; // the JDK from which on that offset has 16 bits

// What the compiler knows of one address: 16 bytes each, ordered by it.
struct PcDesc {
    int32_t pc, scope, object_scope, flags;
};

} // namespace

CodeCache::CodeCache(Memory &memory, const VmTable &table, VmObjects &objects)
    : memory_(memory), table_(table), objects_(objects) {
    if (!table.Has({Vm::HEAP_MEMORY, Vm::HEAP_SEGMENTS, Vm::HEAP_SEGMENT_LOG, Vm::SPACE_LOW, Vm::SPACE_HIGH,
                    Vm::BLOCK_SIZE, Vm::BLOCK_USED, Vm::BLOB_NAME, Vm::BLOB_FRAME_SIZE, Vm::INTERPRETER,
                    Vm::STUBS_BUFFER, Vm::STUBS_LIMIT, Vm::CALL_RETURN}))
        return; // nothing is found then, and no stack is walked
    if (const Address heaps = table.Static(Vm::CODE_HEAPS)) {
        const Address array = memory.Word(heaps);
        const Address data = memory.Word(table.In(array, Vm::ARRAY_DATA));
        const int count = std::min(memory.At<int>(table.In(array, Vm::ARRAY_LENGTH)), MOST_HEAPS);
        for (int i = 0; i < count; ++i)
            AddHeap(memory.Word(data + 8 * static_cast<Address>(i)));
    } else {
        AddHeap(memory.Word(table.Static(Vm::CODE_HEAP)));
    }
    const Address stubs = memory.Word(table.Static(Vm::INTERPRETER));
    interpreter_ = memory.Word(table.In(stubs, Vm::STUBS_BUFFER));
    interpreter_end_ = interpreter_ + memory.At<uint32_t>(table.In(stubs, Vm::STUBS_LIMIT));
    call_return_ = memory.Word(table.Static(Vm::CALL_RETURN));
}

void CodeCache::AddHeap(Address heap) {
    const Address space = table_.In(heap, Vm::HEAP_MEMORY), map = table_.In(heap, Vm::HEAP_SEGMENTS);
    Heap found;
    found.low = memory_.Word(table_.In(space, Vm::SPACE_LOW));
    found.high = memory_.Word(table_.In(space, Vm::SPACE_HIGH));
    found.segments = memory_.Word(table_.In(map, Vm::SPACE_LOW));
    found.log = memory_.At<int>(table_.In(heap, Vm::HEAP_SEGMENT_LOG));
    if (heap != 0 && found.low < found.high && found.high - found.low <= LARGEST_HEAP && found.log > 0 &&
        found.log < 20)
        heaps_.push_back(found);
}

// A byte a segment: how many segments back the block begins, in hops of at most 254; 0 is its first.
std::optional<Address> CodeCache::FindBlock(const Heap &heap, Address pc) {
    Address segment = (pc - heap.low) >> heap.log;
    for (int hops = 0; hops < MOST_HOPS; ++hops) {
        uint8_t back = 0;
        if (!memory_.Read(heap.segments + segment, &back, 1) || back == FREE_SEGMENT || back > segment)
            return std::nullopt;
        if (back == 0)
            return heap.low + (segment << heap.log);
        segment -= back;
    }
    return std::nullopt;
}

CodeBlob CodeCache::ReadBlob(Address start, Address pc) {
    CodeBlob blob;
    blob.start = start;
    blob.name = memory_.Text(memory_.Word(table_.In(start, Vm::BLOB_NAME)), LONGEST_BLOB_NAME);
    if (table_.Has({Vm::BLOB_BEGIN, Vm::BLOB_END})) {
        blob.code = memory_.Word(table_.In(start, Vm::BLOB_BEGIN));
        blob.code_end = memory_.Word(table_.In(start, Vm::BLOB_END));
    } else {
        blob.code = start + memory_.At<uint32_t>(table_.In(start, Vm::BLOB_CODE_OFFSET));
        blob.code_end = start + memory_.At<uint32_t>(table_.In(start, Vm::BLOB_DATA_OFFSET));
    }
    blob.frame_words = memory_.At<int>(table_.In(start, Vm::BLOB_FRAME_SIZE));
    const Address complete = table_.In(start, Vm::BLOB_FRAME_COMPLETE);
    blob.frame_complete =
        objects_.Jdk() >= SHORT_FRAME_COMPLETE ? memory_.At<int16_t>(complete) : memory_.At<int>(complete);
    blob.compiled = blob.name == "nmethod" || blob.name == "native nmethod";
    blob.interpreter = pc >= interpreter_ && pc < interpreter_end_;
    return blob;
}

std::optional<CodeBlob> CodeCache::Find(Address pc) {
    for (const Heap &heap : heaps_) {
        if (pc < heap.low || pc >= heap.high)
            continue;
        const std::optional<Address> block = FindBlock(heap, pc);
        if (!block || memory_.At<uint8_t>(table_.In(*block, Vm::BLOCK_USED)) == 0)
            return std::nullopt;
        const CodeBlob blob = ReadBlob(table_.In(*block, Vm::BLOCK_SIZE), pc);
        return pc >= blob.code && pc < blob.code_end ? std::optional(blob) : std::nullopt;
    }
    return std::nullopt;
}

// The tables of a compiled method: by offsets on JDK 8, by offsets and an address until 22, in data of its
// own later.
CodeCache::Scopes CodeCache::FindScopes(Address nmethod) {
    const auto offset = [&](Vm slot) { return Address(memory_.At<uint32_t>(table_.In(nmethod, slot))); };
    Scopes scopes;
    if (table_.Has({Vm::COMPILED_IMMUTABLE})) {
        const Address base = memory_.Word(table_.In(nmethod, Vm::COMPILED_IMMUTABLE));
        scopes.pcs = base + offset(Vm::SCOPES_PCS);
        scopes.data = scopes.pcs_end = base + offset(Vm::SCOPES_DATA);
        if (table_.Has({Vm::BLOB_MUTABLE}))
            scopes.metadata =
                memory_.Word(table_.In(nmethod, Vm::BLOB_MUTABLE)) + offset(Vm::BLOB_RELOCATION_SIZE);
        else // 23 and 24
            scopes.metadata = nmethod + offset(Vm::BLOB_DATA_OFFSET) +
                              memory_.At<uint16_t>(table_.In(nmethod, Vm::METADATA));
        return scopes;
    }
    scopes.pcs = nmethod + offset(Vm::SCOPES_PCS);
    scopes.pcs_end = nmethod + offset(Vm::DEPENDENCIES);
    scopes.data = table_.Has({Vm::SCOPES_DATA_BEGIN})
                      ? memory_.Word(table_.In(nmethod, Vm::SCOPES_DATA_BEGIN))
                      : nmethod + offset(Vm::SCOPES_DATA);
    scopes.metadata = nmethod + offset(Vm::METADATA);
    return scopes;
}

// Where the scope of an address is described. One between two known addresses belongs to the later one.
int CodeCache::FindScope(const CodeBlob &blob, const Scopes &scopes, Address pc) {
    if (scopes.pcs_end <= scopes.pcs || scopes.pcs_end - scopes.pcs > LARGEST_PCS)
        return 0;
    std::vector<PcDesc> known((scopes.pcs_end - scopes.pcs) / sizeof(PcDesc));
    if (!memory_.Read(scopes.pcs, known.data(), known.size() * sizeof(PcDesc)))
        return 0;
    int scope = 0;
    for (const PcDesc &one : known) {
        if (one.scope > 0)
            scope = one.scope;
        if (one.scope > 0 && one.pc >= static_cast<int64_t>(pc - blob.code))
            break;
    }
    return scope;
}

bool CodeCache::AppendInlined(const CodeBlob &blob, Address pc, const std::string &kind, Address outer,
                              std::vector<Frame> *frames) {
    const Scopes scopes = FindScopes(blob.start);
    Address method = 0;
    int scope = FindScope(blob, scopes, pc);
    for (int depth = 0; scope > 0 && depth < MOST_INLINED; ++depth) {
        PackedReader in(memory_, scopes.data + static_cast<Address>(scope), objects_.Jdk());
        const int sender = static_cast<int>(in.Next());
        const unsigned index = in.Next();
        const int bci = static_cast<int>(in.Next()) - 1;
        if (index == 0 || index > MOST_METADATA)
            return false;
        method = memory_.Word(scopes.metadata + 8 * Address(index - 1));
        Frame frame;
        if (!objects_.Describe(method, bci, &frame))
            return false;
        frame.code = kind;
        frame.inlined = sender > 0 && sender < scope;
        frames->push_back(std::move(frame));
        if (sender >= scope)
            break; // each is described after the one it was inlined into
        scope = sender;
    }
    return method == outer; // the outermost scope is the compiled method itself
}

void CodeCache::AppendFrames(const CodeBlob &blob, Address pc, std::vector<Frame> *frames) {
    const Address outer = memory_.Word(table_.In(blob.start, Vm::COMPILED_METHOD));
    const int level = memory_.At<uint8_t>(table_.In(blob.start, Vm::COMPILED_LEVEL));
    const bool osr = memory_.At<int>(table_.In(blob.start, Vm::COMPILED_ENTRY_BCI)) != NO_ENTRY_BCI;
    const bool is_native = blob.name == "native nmethod";
    const std::string kind =
        is_native ? "" : std::string(level == C2_LEVEL ? "C2" : "C1") + (osr ? " osr" : "");
    const size_t before = frames->size();
    if (!is_native && AppendInlined(blob, pc, kind, outer, frames) && frames->size() > before)
        return;
    frames->resize(before);
    Frame frame;
    if (!objects_.Describe(outer, -1, &frame))
        frame.method = "a compiled method";
    frame.code = kind;
    frames->push_back(std::move(frame));
}

} // namespace qorctl::outside
