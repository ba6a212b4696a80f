// The guard of a reference walk on a class of the JVM's shape: 56 virtual methods behind one pointer.
#include "LogCapture.h"
#include "jvmti/changes/followRefHackHelper.h"
#include "platforms/findsymLinSolHPIA64.h"

#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

int calls; // of the true heap's methods

#define TEN(M, tens)                                                                                         \
    M(tens##0)                                                                                               \
    M(tens##1) M(tens##2) M(tens##3) M(tens##4) M(tens##5) M(tens##6) M(tens##7) M(tens##8) M(tens##9)
#define METHODS(M) TEN(M, 1) TEN(M, 2) TEN(M, 3) TEN(M, 4) TEN(M, 5) M(60) M(61) M(62) M(63) M(64) M(65)

struct ModelHeap {
#define METHOD(n)                                                                                            \
    virtual void *method##n(void *) {                                                                        \
        calls++;                                                                                             \
        return this;                                                                                         \
    }
    METHODS(METHOD)
#undef METHOD
};

using Method = void *(ModelHeap::*)(void *);
constexpr Method SLOTS[] = {
#define METHOD(n) &ModelHeap::method##n,
    METHODS(METHOD)
#undef METHOD
};
static_assert(sizeof SLOTS / sizeof SLOTS[0] == 56, "one for each method");

ModelHeap trueHeap;
ModelHeap *universe; // the model of the JVM's pointer

// Called as the JVM's code calls: by the slot, whatever the object is.
__attribute__((no_sanitize("vptr"))) void *CallThrough(int slot) {
    return (universe->*SLOTS[slot])(nullptr);
}

struct WalkGuard : testing::Test {
    void SetUp() override {
        universe = &trueHeap;
        calls = 0;
        Init(reinterpret_cast<uint64_t>(&universe));
    }
    void TearDown() override { Init(0); }

    static void Init(uint64_t address) {
        nsymbols[JTI_COLLECTED_HEAP] = address;
        init_FollowRefHack();
        nsymbols[JTI_COLLECTED_HEAP] = 0;
    }
};

// The number of the line that a call of the slot is told by, 0 for none.
int LineOf(int slot) {
    if (slot < 33)
        return slot + 1;
    return slot < 53 ? 0 : slot;
}

} // namespace

// Whatever method the JVM calls first, the call falls into nothing and the true heap is back.
TEST_F(WalkGuard, EachMethodPutsTheTrueHeapBack) {
    for (int slot = 0; slot < 56; slot++) {
        LogCapture log(LOG_DETAIL + 1);
        set_FollowRefHack();
        EXPECT_NE(universe, &trueHeap) << slot;
        EXPECT_EQ(CallThrough(slot), nullptr) << slot;
        EXPECT_EQ(universe, &trueHeap) << slot;
        EXPECT_EQ(log.text(), "") << "nothing is logged while the JVM stands still";
        check_FollowRefHack();
        EXPECT_EQ(log.count("<set_FollowRefHack()>") + log.count("<reset_FollowRefHack()>"), 2) << slot;
        EXPECT_EQ(log.count(" . Check CollectedHeapHack"), LineOf(slot) ? 1 : 0) << slot;
        EXPECT_EQ(log.count("<" + std::to_string(LineOf(slot)) + " . Check CollectedHeapHack>"),
                  LineOf(slot) ? 1 : 0)
            << slot;
        EXPECT_EQ(log.count("escaped"), 0) << slot;
        EXPECT_EQ(calls, slot) << "the true heap was called too early";
        EXPECT_EQ(CallThrough(slot), &trueHeap);
    }
}

TEST_F(WalkGuard, AnEscapeIsEndedAndToldOf) {
    LogCapture log(LOG_ERROR + 1);
    check_FollowRefHack();
    EXPECT_EQ(log.text(), "");
    set_FollowRefHack();
    check_FollowRefHack();
    EXPECT_EQ(universe, &trueHeap);
    EXPECT_EQ(log.count("FollowRefHack has escaped the scope of its operation"), 1);

    // Its own object, left there by an earlier start, doesn't pass for the JVM's.
    set_FollowRefHack();
    Init(reinterpret_cast<uint64_t>(&universe));
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
    for (uint64_t address : {uint64_t{0}, uint64_t{8}, reinterpret_cast<uint64_t>(readOnly)}) {
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
