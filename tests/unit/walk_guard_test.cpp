// The guard of a reference walk on a class of the JVM's shape: 56 virtual methods behind one pointer.
#include "LogCapture.h"
#include "jvmti/changes/followRefHackHelper.h"
#include "platforms/findsymLinSolHPIA64.h"

#include <array>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr int METHODS = 56;
using Method = void *(*)(void *heap, void *);

int calls; // of the true heap's methods

void *CountCall(void *heap, void *) {
    calls++;
    return heap;
}

// As the compiler lays out an object with virtual methods: first the address of their table.
struct ModelHeap {
    const Method *table;
};

std::array<Method, METHODS> trueTable;
ModelHeap trueHeap;
ModelHeap *universe; // the model of the JVM's pointer

void Init(const void *address) {
    nsymbols[JTI_COLLECTED_HEAP] = reinterpret_cast<uint64_t>(address);
    init_FollowRefHack();
    nsymbols[JTI_COLLECTED_HEAP] = 0;
}

struct WalkGuard : testing::Test {
    WalkGuard() {
        trueTable.fill(CountCall);
        trueHeap.table = trueTable.data();
        universe = &trueHeap;
        calls = 0;
        Init(&universe);
    }
    ~WalkGuard() override { Init(nullptr); }
};

} // namespace

// Whatever method the JVM calls first, the call falls into nothing and the true heap is back.
TEST_F(WalkGuard, EachMethodPutsTheTrueHeapBack) {
    for (int slot = 0; slot < METHODS; slot++) {
        LogCapture log(LOG_DETAIL + 1);
        set_FollowRefHack();
        ASSERT_NE(universe, &trueHeap) << slot;
        EXPECT_EQ(universe->table[slot](universe, nullptr), nullptr) << slot;
        EXPECT_EQ(universe, &trueHeap) << slot;
        EXPECT_EQ(calls, 0) << "the true heap was called too early";
        EXPECT_EQ(log.text(), "") << "nothing is logged while the JVM is paused";
        check_FollowRefHack();
        // Its line's number follows the slot, but for twenty that have none.
        const std::string line = std::to_string(slot < 33 ? slot + 1 : slot) + " . Check CollectedHeapHack>";
        EXPECT_EQ(log.count("<" + line), slot < 33 || slot >= 53) << slot;
        EXPECT_EQ(log.count("escaped"), 0) << slot;
    }
}

TEST_F(WalkGuard, AnEscapeIsEndedAndLogged) {
    LogCapture log(LOG_ERROR + 1);
    check_FollowRefHack();
    EXPECT_EQ(log.text(), "");
    set_FollowRefHack();
    check_FollowRefHack();
    EXPECT_EQ(universe, &trueHeap);
    EXPECT_EQ(log.count("FollowRefHack has escaped the scope of its operation"), 1);

    // Its own object, left there by an earlier start, doesn't pass for the JVM's.
    set_FollowRefHack();
    Init(&universe);
    EXPECT_EQ(gbUniverseCollectedHeap, nullptr);
    universe = &trueHeap;
}

// Without the symbol, or with one that leads to memory that can't be written, nothing is touched.
TEST_F(WalkGuard, NothingHappensWithoutTheSymbol) {
    const size_t page = static_cast<size_t>(getpagesize());
    auto **readOnly = static_cast<ModelHeap **>(
        mmap(nullptr, page, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0));
    *readOnly = &trueHeap;
    mprotect(readOnly, page, PROT_READ);
    for (const void *address : {static_cast<const void *>(nullptr), reinterpret_cast<const void *>(8),
                                static_cast<const void *>(readOnly)}) {
        LogCapture log(LOG_ERROR + 1);
        Init(address);
        set_FollowRefHack();
        reset_FollowRefHack();
        check_FollowRefHack();
        EXPECT_EQ(gbUniverseCollectedHeap, nullptr);
        EXPECT_EQ(log.text(), "");
    }
    EXPECT_EQ(*readOnly, &trueHeap);
    munmap(readOnly, page);
}
