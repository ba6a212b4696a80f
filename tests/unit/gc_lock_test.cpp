#include "qorutil/gc_lock.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <atomic>
#include <gtest/gtest.h>
#include <thread>

// A JVM of which there are the word that says that a collection runs, and the lock count.
struct GcLock : testing::Test {
    GcLock() {
        offsetind = 10;
        qormaxbackoff = 0;
        nsymbols[SYM_COLLECTED_HEAP] = reinterpret_cast<uint64_t>(&heapAddress);
        nsymbols[SYM_GC_LOCK_COUNT] = reinterpret_cast<uint64_t>(&lockCount);
        Begin(0, "2|showstack|8192|");
    }
    ~GcLock() override {
        EXPECT_EQ(lockCount, 7u) << "the JVM's own count";
        qorLeave = qorlocks[0] = no_gc = offsetind = 0;
        nsymbols[SYM_COLLECTED_HEAP] = nsymbols[SYM_GC_LOCK_COUNT] = 0;
    }
    void Collect(uint32_t running) { __atomic_store_n(&heap[8], running, __ATOMIC_SEQ_CST); }
    void Begin(uint32_t collecting, const char *request) {
        Collect(collecting);
        qorlocks[0] = no_gc = qorLeave = 0;
        snprintf(buf, sizeof buf, "%s", request);
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
    } rows[] = {
        {1, 0, "1|showstack|8192|", 0, 1, 0},
        {2, 1, "2|showqor|64|", 0, 0, FLAG_NO_GC},
        {2, 1, "2|showstack|8192|", 1, 0, 0},
        {1, 1, "1|showstack|8192|", 1, 0, 0}, // a second of short waits, and none of the long ones
    };
    for (const auto &row : rows) {
        Begin(row.collecting, row.request);
        EXPECT_EQ(qor_disable_gc(row.mode), row.result) << row.mode << row.request;
        EXPECT_EQ(qorlocks[0], row.held) << row.mode << row.request;
        EXPECT_EQ(no_gc, row.noGc) << row.mode << row.request;
        qor_enable_gc();
        EXPECT_EQ(qorlocks[0], 0);
    }
    heapAddress = 8; // unreadable: as good as a running collection
    EXPECT_EQ(qor_disable_gc(2), 1);
    offsetind = BUILD_JVMTI_DEFAULT;
    EXPECT_EQ(qor_disable_gc(2), 0);
}

TEST_F(GcLock, WaitsForTheCollectionOrForTheRequestToLeave) {
    for (int32_t mode : {0, 3})
        for (bool leaves : {false, true}) {
            Begin(1, "1|showstack|8192|");
            std::atomic<int32_t> result{-1};
            std::thread worker([&] { result = qor_disable_gc(mode); });
            leaves ? void(qorLeave = 1) : Collect(0);
            worker.join();
            EXPECT_EQ(result, leaves) << mode;
            EXPECT_EQ(qorlocks[0], !leaves) << mode;
        }
}
