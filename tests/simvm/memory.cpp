#include "memory.h"
#include "simvm.h"

#include <cstdio>
#include <cstdlib>
#include <sys/mman.h>
#include <unistd.h>

namespace simvm {

namespace {

std::map<size_t, std::vector<Word>> released; // by size

constexpr size_t PAGE = 4096;

} // namespace

void Fail(const char *what) {
    fprintf(stderr, "simvm: %s\n", what);
    abort();
}

Word Map(size_t bytes, bool poison, int protection) {
    void *at = mmap(nullptr, bytes, PROT_READ | PROT_WRITE | protection,
                    MAP_PRIVATE | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0);
    if (at == MAP_FAILED)
        Fail("out of memory");
    if (poison)
        memset(at, POISON, bytes);
    return reinterpret_cast<Word>(at);
}

Word Allocate(size_t bytes, Guarded structure) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    bytes = (bytes + 15) & ~size_t(15);
    if (structure == vm.options.guarded && structure != Guarded::NOTHING) {
        size_t room = (bytes + PAGE - 1) & ~(PAGE - 1);
        Word at = Map(room + PAGE, true);
        mprotect(reinterpret_cast<void *>(at + room), PAGE, PROT_NONE);
        return at + room - bytes;
    }
    if (!released[bytes].empty()) {
        Word at = released[bytes].back();
        released[bytes].pop_back();
        return at;
    }
    static Word next, end;
    if (next + bytes > end) {
        next = Map(4 << 20, true);
        end = next + (4 << 20);
    }
    next += bytes;
    return next - bytes;
}

void Release(Word address, size_t bytes) {
    std::lock_guard<std::recursive_mutex> held(vm.lock);
    bytes = (bytes + 15) & ~size_t(15);
    memset(reinterpret_cast<void *>(address), POISON, bytes);
    released[bytes].push_back(address);
}

} // namespace simvm
