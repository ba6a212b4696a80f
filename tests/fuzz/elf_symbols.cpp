// Fuzzes the lookup of symbols in a library's file. What it gives are addresses of that library, whatever the
// file says; the sanitizers watch the rest. tests/fuzz/run builds and runs it.
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/symbol_lists.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <initializer_list>
#include <sys/mman.h>
#include <unistd.h>

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    constexpr uint64_t BASE = uint64_t{1} << 40;
    static const int fd = memfd_create("library", MFD_CLOEXEC);
    if (ftruncate(fd, 0) != 0 || pwrite(fd, data, size, 0) != static_cast<ssize_t>(size))
        return 0;
    for (const char *list : {jtisym, sunsymGCC3}) {
        uint64_t slots[SYMBOL_SLOTS] = {};
        const int32_t filled = QorResolveSymbols(fd, list, BASE, slots);
        int32_t found = 0;
        for (uint64_t slot : slots) {
            found += slot != 0;
            if (slot != 0 && (slot < BASE || slot > BASE + UINT32_MAX))
                abort();
        }
        if (filled != found || slots[0] != 0)
            abort();
    }
    return 0;
}
