// Fuzzes the reading of a JVM from outside: its library, the tables that describe it, and the walk of its
// threads. Whatever the target's memory and files hold, each reading ends and stays within bounds; the
// sanitizers watch it. QOR_FUZZ_JVM has the process id of a stopped JVM: all other inputs are changes to what
// is read of that one. tests/fuzz/run builds and runs it.
#include "outside/process_tasks.h"
#include "outside/stack_walk.h"
#include "outside/vm_state.h"

#include <cstdlib>
#include <cstring>
#include <elf.h>
#include <map>
#include <set>
#include <sys/mman.h>
#include <unistd.h>

using namespace qorctl::outside;

namespace {

constexpr Address PAGE = 4096;

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

void ReadLibrary(const uint8_t *data, size_t size) {
    static const int fd = memfd_create("library", MFD_CLOEXEC);
    VmSymbols symbols;
    if (ftruncate(fd, 0) == 0 && pwrite(fd, data, size, 0) == static_cast<ssize_t>(size))
        ReadSymbols(fd, Address(1) << 40, &symbols);
    BuildIdOfFile(fd);
}

// The memory of a process as if some of its words were others.
struct Changed : ProcessMemory {
    using ProcessMemory::ProcessMemory;
    bool Fetch(Address from, void *to, size_t size) override {
        if (!ProcessMemory::Fetch(from, to, size))
            return false;
        pages.insert(from / PAGE);
        for (const auto &[at, word] : words)
            for (size_t i = 0; i < sizeof word; ++i)
                if (at + i - from < size)
                    static_cast<char *>(to)[at + i - from] = reinterpret_cast<const char *>(&word)[i];
        return true;
    }
    std::set<Address> pages; // of which something was read
    std::map<Address, int64_t> words;
};

// All threads and their frames from the anchor, and as a copy of the stack shows them.
void WalkAll(Memory &memory, const VmSymbols &symbols, const VmTable &table) {
    VmObjects objects(memory, table, symbols);
    CodeCache code(memory, table, objects);
    StackWalker walker(memory, table, symbols, objects, code);
    ReadSafepoint(memory, table, symbols);
    for (const Address at : ReadThreadList(memory, table)) {
        ThreadFacts facts;
        StackCopy stack;
        if (!ReadThread(memory, table, symbols, at, &facts))
            continue;
        objects.ThreadName(at);
        for (const Frame &frame : walker.FromAnchor(facts).frames)
            FrameText(frame);
        if (walker.Copy(facts, facts.anchor_sp, &stack))
            walker.Scan(stack);
    }
}

// The JVM with words changed anywhere in the pages that a walk reads.
void WalkChanged(pid_t pid, Input input) {
    static VmSymbols symbols;
    static VmTable clean;
    static const std::vector<Address> pages = [pid] {
        Changed memory(pid);
        std::string problem;
        symbols = ReadVmSymbols(pid, memory, &problem).value();
        clean.Load(memory, symbols);
        WalkAll(memory, symbols, clean);
        return std::vector(memory.pages.begin(), memory.pages.end());
    }();
    Changed memory(pid);
    const bool tables = input.Next<uint8_t>() % 2;
    while (input.Left() >= 8) {
        const Address page = pages[input.Next<uint16_t>() % pages.size()] * PAGE,
                      at = page + input.Next<uint16_t>() % (PAGE - 8);
        const int64_t change = input.Next<int32_t>(), old = memory.FreshAt<int64_t>(at);
        memory.words[at] = change % 4 == 0 ? change / 4 : old + change / 4 * 8;
    }
    VmTable table = clean;
    if (tables)
        table.Load(memory, symbols);
    WalkAll(memory, symbols, table);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    static const int jvm = atoi(getenv("QOR_FUZZ_JVM"));
    if (size >= SELFMAG && memcmp(data, ELFMAG, SELFMAG) == 0) {
        ReadLibrary(data, size);
        return 0;
    }
    const std::string text(reinterpret_cast<const char *>(data), size);
    FindLibjvm(text);
    ParseSyscall(text);
    WalkChanged(jvm, {data, size});
    return 0;
}
