#include "qorutil/gc_lock.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <atomic>
#include <cstdio>
#include <gtest/gtest.h>
#include <thread>

// A JVM of which there are the word that says that a collection runs, and the lock count.
struct GcLock : testing::Test {
    void SetUp() override {
        offsetind = 10;
        qormaxbackoff = 0;
        nsymbols[SYM_COLLECTED_HEAP] = reinterpret_cast<uint64_t>(&heapAddress);
        nsymbols[SYM_GC_LOCK_COUNT] = reinterpret_cast<uint64_t>(&lockCount);
        Begin(0, "2|showstack|8192|");
    }
    void TearDown() override {
        qorLeave = qorlocks[0] = no_gc = offsetind = 0;
        nsymbols[SYM_COLLECTED_HEAP] = nsymbols[SYM_GC_LOCK_COUNT] = 0;
    }
    void Begin(uint32_t collecting, const char *request) {
        __atomic_store_n(&heap[8], collecting, __ATOMIC_SEQ_CST);
        qorlocks[0] = no_gc = 0;
        snprintf(buf, sizeof buf, "%s", request);
    }
    // Asks for the lock while a collection runs, and lets `meanwhile` end the wait.
    int32_t TakeWhileCollecting(int32_t mode, void (*meanwhile)(GcLock *)) {
        Begin(1, "1|showstack|8192|");
        std::atomic<int32_t> result{-1};
        std::thread worker([&] { result = qor_disable_gc(mode); });
        meanwhile(this);
        worker.join();
        return result;
    }

    uint32_t heap[16] = {};
    uint64_t heapAddress = reinterpret_cast<uint64_t>(heap);
    uint32_t lockCount = 7;
};

TEST_F(GcLock, IsTakenAtOnceOrRefusedByTheModeOfTheRequest) {
    const struct {
        int32_t mode;
        uint32_t collecting;
        const char *request;
        int32_t result, held, noGc;
    } cases[] = {
        {1, 0, "1|showstack|8192|", 0, 1, 0},      {2, 0, "2|showqor|64|", 0, 1, 0},
        {2, 1, "2|showqor|64|", 0, 0, FLAG_NO_GC}, {2, 1, "2|showstack|8192|", 1, 0, 0},
        {1, 1, "1|showstack|8192|", 1, 0, 0}, // a second of short waits, and none of the long ones
    };
    for (const auto &c : cases) {
        Begin(c.collecting, c.request);
        EXPECT_EQ(qor_disable_gc(c.mode), c.result) << c.mode << c.request;
        EXPECT_EQ(qorlocks[0], c.held) << c.mode << c.request;
        EXPECT_EQ(no_gc, c.noGc) << c.mode << c.request;
        qor_enable_gc();
        EXPECT_EQ(qorlocks[0], 0);
    }
    heapAddress = 8; // unreadable: as good as a running collection
    EXPECT_EQ(qor_disable_gc(2), 1);
    EXPECT_EQ(lockCount, 7u); // the JVM's own count is never touched
    offsetind = BUILD_JVMTI_DEFAULT;
    EXPECT_EQ(qor_disable_gc(2), 0);
}

TEST_F(GcLock, WaitsForTheCollectionOrForTheRequestToLeave) {
    for (int32_t mode : {0, 3}) {
        EXPECT_EQ(TakeWhileCollecting(
                      mode, [](GcLock *vm) { __atomic_store_n(&vm->heap[8], 0, __ATOMIC_SEQ_CST); }),
                  0);
        EXPECT_EQ(qorlocks[0], 1);
        EXPECT_EQ(TakeWhileCollecting(mode, [](GcLock *) { qorLeave = 1; }), 1);
        EXPECT_EQ(qorlocks[0], 0);
        qorLeave = 0;
    }
}
