// Fuzzes the reading of a JVM from outside: its library, the tables that describe it, and the walk of its
// threads. Whatever the target's memory and files hold, each reading ends and stays within bounds; the
// sanitizers watch it. With the recording of a JVM in build/fuzz/jvm, a part of the inputs are changes to
// that. tests/fuzz/run builds and runs it.
#include "outside/process_tasks.h"
#include "outside/vm_state.h"
#include "recorded_jvm.h"

#include <cstddef>
#include <cstdint>
#include <elf.h>
#include <sys/mman.h>
#include <unistd.h>

using namespace recorded;

namespace {

constexpr size_t SLOTS = static_cast<size_t>(Vm::COUNT);
constexpr Address START = 0x10000, PLACES = 8192;

// The input as a series of numbers, 0 after its end.
class Input {
public:
    Input(const uint8_t *data, size_t size) : at_(data), end_(data + size) {}
    template <class T>
    T Next() {
        T value = 0;
        const size_t size = std::min(sizeof value, Left());
        memcpy(&value, at_, size);
        at_ += size;
        return value;
    }
    size_t Left() const { return static_cast<size_t>(end_ - at_); }

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

void ReadTexts(const std::string &text) {
    FindLibjvm(text);
    ParseSyscall(text);
}

// A recording with words of it changed: anywhere in its pages.
void WalkChanged(const Image &recorded, Input input, bool tables) {
    static const auto start = recorded.pages.begin();
    static const auto *clean = [&] {
        static VmTable table;
        ImageMemory memory(recorded);
        table.Load(memory, recorded.symbols);
        return &table;
    }();
    Image image;
    struct Changed : ImageMemory {
        Changed(const Image &first, const Image &changes) : ImageMemory(changes), first(first) {}
        bool Fetch(Address from, void *to, size_t size) override {
            return Image::EachPart(from, size, [&](Address, Address, size_t done, size_t part) {
                return ImageMemory::Fetch(from + done, static_cast<char *>(to) + done, part) ||
                       first.Copy(from + done, static_cast<char *>(to) + done, part);
            });
        }
        const Image &first;
    } memory(recorded, image);
    const unsigned most = input.Next<uint8_t>() % 32;
    while (input.Left() >= 8) {
        auto page = std::next(start, input.Next<uint16_t>() % recorded.pages.size());
        const Address at = input.Next<uint16_t>() % (PAGE - 8);
        const int64_t change = input.Next<int32_t>();
        const auto place = image.pages.emplace(page->first, page->second).first->second.data() + at;
        int64_t value = 0;
        memcpy(&value, place, sizeof value);
        value = change % 4 == 0 ? change / 4 : value + change / 4 * 8;
        memcpy(place, &value, sizeof value);
    }
    VmTable table = *clean;
    if (tables)
        table.Load(memory, recorded.symbols);
    WalkAll(memory, recorded.symbols, table, most);
}

VmTable TableOf(Input *input) {
    VmTable table;
    for (size_t slot = 0; slot < SLOTS; ++slot) {
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
    for (const char *name : {"gHotSpotVMStructs", "gHotSpotVMTypes", "gHotSpotVMIntConstants",
                             "gHotSpotVMStructEntryArrayStride", "gHotSpotVMStructEntryTypeNameOffset",
                             "gHotSpotVMStructEntryFieldNameOffset", "gHotSpotVMStructEntryIsStaticOffset",
                             "gHotSpotVMStructEntryOffsetOffset", "gHotSpotVMStructEntryAddressOffset",
                             "gHotSpotVMTypeEntryArrayStride", "gHotSpotVMTypeEntryTypeNameOffset",
                             "gHotSpotVMTypeEntrySizeOffset", "_ZN20SafepointSynchronize6_stateE",
                             "_ZN8VMThread17_cur_vm_operationE", "_ZN12StubRoutines19_cont_returnBarrierE",
                             "_ZN17ContinuationEntry10_return_pcE"})
        symbols.objects[name] = START + input.Next<uint16_t>() % PLACES;
    VmTable().Load(memory, symbols);
    const VmTable table = TableOf(&input);
    ReadSafepoint(memory, table, symbols);
    WalkAll(memory, symbols, table, 8);
    VmObjects objects(memory, table, symbols);
    CodeCache code(memory, table, objects);
    StackWalker walker(memory, table, symbols, objects, code);
    ThreadFacts facts;
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
    static Image recorded;
    static const bool is_recorded = recorded.Load("build/fuzz/jvm");
    if (size >= SELFMAG && memcmp(data, ELFMAG, SELFMAG) == 0) {
        ReadLibrary(data, size);
        return 0;
    }
    Input input(data, size);
    const auto kind = input.Next<uint8_t>() % 4;
    if (kind == 0) {
        ReadTexts(std::string(reinterpret_cast<const char *>(data), size));
    } else if (kind == 1 || !is_recorded) {
        InputMemory memory(data, size);
        WalkOdd(input, memory);
    } else {
        WalkChanged(recorded, input, kind == 2);
    }
    return 0;
}
