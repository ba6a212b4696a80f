#include "platforms/own_memory.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

// Two pages: one to read, one that forbids it.
struct Pages {
    Pages() {
        first = static_cast<char *>(
            mmap(nullptr, 2 * size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        for (size_t i = 0; i < size; i++)
            first[i] = static_cast<char>(i);
        mprotect(first + size, size, PROT_NONE);
    }
    ~Pages() { munmap(first, 2 * size); }

    uint64_t at(size_t offset) const { return reinterpret_cast<uint64_t>(first + offset); }

    const size_t size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    char *first;
};

} // namespace

TEST(OwnMemory, GivesWhatIsThereAndNeverFaults) {
    Pages pages;
    uint64_t gone;
    {
        Pages unmapped;
        gone = unmapped.at(0);
    }
    struct {
        const char *what;
        uint64_t address;
        bool readable;
    } cases[] = {
        {"start", pages.at(0), true},
        {"odd", pages.at(1237), true},
        {"last bytes", pages.at(pages.size - 8), true},
        {"across the end", pages.at(pages.size - 7), false},
        {"forbidden", pages.at(pages.size), false},
        {"unmapped", gone, false},
        {"null", 0, false},
        {"low", 0x530, false},
        {"top", UINT64_MAX - 3, false},
        {"not canonical", 0xdead000000000000, false},
    };
    for (const auto &c : cases) {
        uint64_t value = 0;
        EXPECT_EQ(QorReadOwnMemory(c.address, &value, sizeof value), c.readable) << c.what;
        if (c.readable) {
            EXPECT_EQ(memcmp(&value, reinterpret_cast<const void *>(c.address), sizeof value), 0) << c.what;
        }
    }
}
