// The guard of a reference walk on an object of the JVM's shape: 56 methods in a table that its first word
// leads to.
#include "LogCapture.h"
#include "jvmti/CollectedHeapHack.h"
#include "jvmti/followRefHackHelper.h"
#include "platforms/findsymLinSolHPIA64.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

namespace {

CollectedHeap trueHeap;
CollectedHeap *universe; // the model of the JVM's pointer

void Init(CollectedHeap **address) {
    nsymbols[JTI_COLLECTED_HEAP] = reinterpret_cast<uint64_t>(address);
    init_FollowRefHack();
    nsymbols[JTI_COLLECTED_HEAP] = 0;
}

struct WalkGuard : testing::Test {
    WalkGuard() {
        universe = &trueHeap;
        Init(&universe);
    }
    ~WalkGuard() override { Init(nullptr); }
};

} // namespace

// Whatever method the JVM calls first, the call falls into nothing and the true heap is back; at the latest
// it is put back after the walk.
TEST_F(WalkGuard, EachMethodPutsTheTrueHeapBack) {
    LogCapture log(LOG_ERROR + 1);
    for (int slot = 0; slot < 56; slot++) {
        set_FollowRefHack();
        ASSERT_NE(universe, &trueHeap) << slot;
        EXPECT_EQ(universe->methods[slot](universe, nullptr), nullptr) << slot;
        EXPECT_EQ(universe, &trueHeap) << slot;
        check_FollowRefHack();
    }
    EXPECT_EQ(log.text(), "");
    set_FollowRefHack();
    check_FollowRefHack();
    EXPECT_EQ(universe, &trueHeap);
    EXPECT_EQ(log.count("FollowRefHack has escaped the scope of its operation"), 1);
}

// Without the symbol, or with one that leads to memory that can't be written, nothing is touched.
TEST_F(WalkGuard, NothingHappensWithoutTheSymbol) {
    auto **readOnly = static_cast<CollectedHeap **>(
        mmap(nullptr, 4096, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    *readOnly = &trueHeap;
    mprotect(readOnly, 4096, PROT_READ);
    for (CollectedHeap **address :
         {static_cast<CollectedHeap **>(nullptr), reinterpret_cast<CollectedHeap **>(8), readOnly}) {
        Init(address);
        set_FollowRefHack();
        check_FollowRefHack();
        EXPECT_EQ(gbUniverseCollectedHeap, nullptr);
    }
    EXPECT_EQ(*readOnly, &trueHeap);
    munmap(readOnly, 4096);
}
