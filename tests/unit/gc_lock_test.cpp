#include "qorutil/gc_lock.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <gtest/gtest.h>

// A JVM of which there are the word that says that a collection runs, and the lock count.
struct GcLock : testing::Test {
    GcLock() {
        offsetind = 10;
        qormaxbackoff = 0;
        nsymbols[SYM_COLLECTED_HEAP] = reinterpret_cast<uint64_t>(&heapAddress);
        nsymbols[SYM_GC_LOCK_COUNT] = reinterpret_cast<uint64_t>(&lockCount);
    }
    ~GcLock() override {
        EXPECT_EQ(lockCount, 7u) << "the JVM's own count";
        Begin(0, "");
        offsetind = 0;
        nsymbols[SYM_COLLECTED_HEAP] = nsymbols[SYM_GC_LOCK_COUNT] = 0;
    }
    void Begin(uint32_t collecting, const char *request) {
        heap[8] = collecting;
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
        EXPECT_EQ(qorlocks[0] * 10 + no_gc, row.held * 10 + row.noGc) << row.mode << row.request;
        qor_enable_gc();
        EXPECT_EQ(qorlocks[0], 0);
    }
    heapAddress = 8; // unreadable: as good as a running collection
    EXPECT_EQ(qor_disable_gc(2), 1);
    offsetind = BUILD_JVMTI_DEFAULT;
    EXPECT_EQ(qor_disable_gc(2), 0);
}
