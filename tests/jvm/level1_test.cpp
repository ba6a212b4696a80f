// Optimisation level 1 on a live JVM: the lock data that symbols of its library open.
#include "LogCapture.h"
#include "Replies.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/threads/Monitors.h"
#include "platforms/findsymLinSolHPIA64.h"

#include <unistd.h>

namespace {

struct Level1 : JvmTest {
    void SetUp() override {
        JvmTest::SetUp();
        snprintf(vend, sizeof vend, "Debian");
        snprintf(vers, sizeof vers, "17.0.1");
        gbiOptimizationLevel = 1;
        qorLockInfoLevel = 1;
        ASSERT_EQ(QorInitJmm(), 0);
    }
    void TearDown() override {
        QorDovOnUnload(Env());
        JvmTest::TearDown();
    }
};

} // namespace

// With the symbol of capabilities the JVM offers what it has refused. JVMs before JDK 10 are left as they
// are.
TEST_F(Level1, LockDataComesFromJvmti) {
    uint32_t words[SYMBOL_WORDS] = {};
    findsymbols(getpid(), SYMBOLS_JVM, words);
    LogCapture log(LOG_DETAIL + 1);
    QorDovOnLoad(Env());
    const bool opens = gbQorJvmKeepsThreads; // Debian strips the library of none that does
    EXPECT_EQ(log.count("Initializing LockCapabilitesHack."), opens);
    EXPECT_EQ(log.count("LockCapabilitesHack failed"), 0);
    EXPECT_EQ(log.count("FollowRef"), 0) << "the heap pointer is an old JVM's affair";
    EXPECT_EQ(QorGetJvmtiMonitorCapability(), opens);
    jvmtiCapabilities held = {};
    jvmti->GetCapabilities(&held);
    EXPECT_TRUE(held.can_get_owned_monitor_info == opens && held.can_get_current_contended_monitor == opens &&
                held.can_get_owned_monitor_stack_depth_info == opens);
    // With JVMTI nothing is missing that management tells: owners, locks of java.util.concurrent, arrays.
    if (opens) {
        ZooVisit zoo("holder,blocked,blocked-second,lock-holder,lock-waiter");
        EXPECT_EQ(ExpectTruth(AllThreads(true)), 5);
    }
}
