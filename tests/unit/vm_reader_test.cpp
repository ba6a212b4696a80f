#include "qorutil/vm_reader.h"

#include <cstring>
#include <gtest/gtest.h>
#include <sys/mman.h>

constexpr uint64_t FAR = 512 * VM_PAGE_SIZE;

// Two pages and a hole after them, and two more FAR away: of one pair the second is kept next to the first.
struct VmReader : testing::Test {
    VmReader() {
        bytes = static_cast<unsigned char *>(mmap(nullptr, FAR + 2 * VM_PAGE_SIZE, PROT_READ | PROT_WRITE,
                                                  MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
        for (size_t i = 0; i < 2 * VM_PAGE_SIZE; i++)
            bytes[i] = bytes[FAR + i] = static_cast<unsigned char>(i * 7 + 1);
        mprotect(bytes + 2 * VM_PAGE_SIZE, VM_PAGE_SIZE, PROT_NONE);
        QorForgetPages();
    }
    ~VmReader() override { munmap(bytes, FAR + 2 * VM_PAGE_SIZE); }
    uint64_t At(uint64_t offset) const { return reinterpret_cast<uint64_t>(bytes) + offset; }

    unsigned char *bytes;
};

TEST_F(VmReader, KeepsPagesUntilToldToForgetThem) {
    static unsigned char out[2 * VM_PAGE_SIZE];
    ASSERT_TRUE(QorPeek(At(5), out, sizeof out - 5)); // over a page's end
    EXPECT_EQ(memcmp(out, bytes + 5, sizeof out - 5), 0);
    for (uint64_t at : {VM_PAGE_SIZE - 7, FAR + VM_PAGE_SIZE - 7}) {
        const uint64_t word = QorWordAt(At(at));
        EXPECT_EQ(memcmp(&word, bytes + at, sizeof word), 0) << at;
    }

    uint8_t kept, fresh;
    EXPECT_TRUE(QorPeekValue(At(100), &kept));
    const uint8_t old = bytes[100]++;
    EXPECT_TRUE(QorPeekValue(At(100), &kept) && QorPeekFresh(At(100), &fresh, 1));
    EXPECT_TRUE(kept == old && fresh == bytes[100]);
    QorForgetPages();
    EXPECT_TRUE(QorPeekValue(At(100), &kept));
    EXPECT_EQ(kept, bytes[100]);
}

TEST_F(VmReader, RefusesWhatIsNotThereAndFindsItOnceItIs) {
    const uint64_t hole = 2 * VM_PAGE_SIZE;
    uint64_t value;
    for (uint64_t address : {At(hole), At(hole - 7), uint64_t{0}, UINT64_MAX - 3}) {
        EXPECT_FALSE(QorPeekValue(address, &value)) << address;
        EXPECT_FALSE(QorPeekFresh(address, &value, sizeof value)) << address;
        EXPECT_EQ(QorWordAt(address), 0u);
    }
    mprotect(bytes + hole, VM_PAGE_SIZE, PROT_READ);
    EXPECT_TRUE(QorPeekValue(At(hole), &value));
}
