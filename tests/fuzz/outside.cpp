// Fuzzes the reading of a JVM from outside: its library, the tables that describe it, and the walk of its
// threads. Whatever the target's memory and files hold, each reading ends and stays within bounds; the
// sanitizers watch it. tests/fuzz/run builds and runs it; the console's tests have it too.
#include "outside/process_tasks.h"
#include "outside/stack_walk.h"
#include "outside/vm_state.h"

#include <cstring>
#include <elf.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace qorctl::outside;

namespace {

constexpr Address START = 0x10000, PLACES = 8192;

// The input as a series of numbers, 0 after its end.
class Input {
public:
    Input(const uint8_t *data, size_t size) : at_(data), end_(data + size) {}
    template <class T>
    T Next() {
        T value = 0;
        const size_t size = std::min(sizeof value, static_cast<size_t>(end_ - at_));
        memcpy(&value, at_, size);
        at_ += size;
        return value;
    }

private:
    const uint8_t *at_, *end_;
};

// Words of the input, small numbers and words that lead back into the same few pages, which lead furthest,
// all over the address space; some pages can't be read.
class InputMemory : public Memory {
public:
    InputMemory(const uint8_t *data, size_t size) : data_(data), size_(size) {}

protected:
    bool Fetch(Address from, void *to, size_t size) override {
        if (size_ < 8 || (data_[0] % 3 == 0 && Mixed(from >> 12) % 11 == 0))
            return false;
        for (size_t i = 0; i < size; ++i)
            static_cast<char *>(to)[i] = static_cast<char>(Word((from + i) >> 3) >> ((from + i) % 8 * 8));
        return true;
    }

private:
    uint64_t Word(Address number) const {
        const uint64_t mixed = Mixed(number);
        uint64_t word = 0;
        memcpy(&word, data_ + mixed % (size_ - 7), sizeof word);
        return mixed >> 60 < 4   ? word
               : mixed >> 60 < 8 ? word % 251
                                 : START + (word ^ mixed >> 8) % PLACES * 8;
    }
    static uint64_t Mixed(uint64_t x) {
        x = (x + 1) * 0x9e3779b97f4a7c15u;
        x = (x ^ x >> 30) * 0xbf58476d1ce4e5b9u;
        return x ^ x >> 27;
    }
    const uint8_t *data_;
    size_t size_;
};

void ReadLibrary(const uint8_t *data, size_t size) {
    static const int fd = memfd_create("library", MFD_CLOEXEC);
    VmSymbols symbols;
    if (ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size))
        ReadSymbols(fd, Address(1) << 40, &symbols);
    BuildIdOfFile(fd);
}

VmTable TableOf(Input *input) {
    VmTable table;
    for (size_t slot = 0; slot < static_cast<size_t>(Vm::COUNT); ++slot) {
        const auto kind = input->Next<uint8_t>();
        const auto value = input->Next<uint16_t>();
        if (kind % 8 != 0)
            table.Set(static_cast<Vm>(slot), kind % 16 == 1
                                                 ? static_cast<int64_t>(uint64_t(value) << kind % 50)
                                             : kind % 2 ? value % 512
                                                        : START + value % PLACES);
    }
    return table;
}

// Memory that is nothing but odd, by tables that are.
void WalkOdd(Input input, Memory &memory) {
    VmSymbols symbols;
    for (const std::string name :
         {"Structs", "Types", "IntConstants", "StructEntryArrayStride", "StructEntryTypeNameOffset",
          "StructEntryFieldNameOffset", "StructEntryIsStaticOffset", "StructEntryOffsetOffset",
          "StructEntryAddressOffset", "TypeEntryArrayStride", "TypeEntryTypeNameOffset",
          "TypeEntrySizeOffset"})
        symbols.objects["gHotSpotVM" + name] = START + input.Next<uint16_t>() % PLACES;
    for (const char *name :
         {"_ZN20SafepointSynchronize6_stateE", "_ZN8VMThread17_cur_vm_operationE",
          "_ZN12StubRoutines19_cont_returnBarrierE", "_ZN17ContinuationEntry10_return_pcE"})
        symbols.objects[name] = START + input.Next<uint16_t>() % PLACES;
    VmTable().Load(memory, symbols);
    const VmTable table = TableOf(&input);
    VmObjects objects(memory, table, symbols);
    CodeCache code(memory, table, objects);
    StackWalker walker(memory, table, symbols, objects, code);
    ThreadFacts facts;
    ReadSafepoint(memory, table, symbols);
    size_t most = 8;
    for (const Address at : ReadThreadList(memory, table)) {
        if (most-- == 0)
            break;
        if (!ReadThread(memory, table, symbols, at, &facts))
            continue;
        objects.ThreadName(at);
        for (const Frame &frame : walker.FromAnchor(facts).frames)
            FrameText(frame);
    }
    facts = {};
    facts.stack_base = 2 * START;
    facts.stack_size = facts.anchor_sp = START + input.Next<uint16_t>() % START;
    objects.MonitorClass(facts.anchor_sp);
    walker.FromAnchor(facts);
    StackCopy stack;
    if (walker.Copy(facts, START + input.Next<uint16_t>() % START, &stack)) {
        walker.Scan(stack);
        walker.From(stack, {START + input.Next<uint16_t>(), stack.start, stack.start, facts.anchor_sp}, true);
    }
    CodeBlob blob;
    blob.start = blob.code = START + input.Next<uint16_t>();
    blob.name = "nmethod";
    std::vector<Frame> frames;
    code.AppendFrames(blob, blob.start + input.Next<uint8_t>(), &frames);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    if (size >= SELFMAG && memcmp(data, ELFMAG, SELFMAG) == 0) {
        ReadLibrary(data, size);
        return 0;
    }
    const std::string text(reinterpret_cast<const char *>(data), size);
    FindLibjvm(text);
    ParseSyscall(text);
    InputMemory memory(data, size);
    WalkOdd({data, size}, memory);
    return 0;
}
