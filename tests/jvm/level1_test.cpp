// Optimisation level 1 on a live JVM: symbols of its library, and the lock data that they open. On a JVM
// whose library is stripped everything goes on without.
#include "LogCapture.h"
#include "Replies.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/threads/Monitors.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "qorsettings.h"

#include <dlfcn.h>
#include <fmt/format.h>
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

// Where nm sees a symbol in the JVM's library, 0 when it is missing.
uint64_t NmAddress(const char *library, const std::string &name) {
    FILE *nm = popen(fmt::format("nm {} 2>/dev/null | sed -n 's/ . {}$//p'", library, name).c_str(), "re");
    uint64_t found = 0;
    const int read = fscanf(nm, "%lx", &found);
    pclose(nm);
    return read == 1 ? found : 0;
}

} // namespace

// Symbols are where nm sees them. With the one of capabilities the JVM offers what it has refused; without
// it, it goes on refusing, and the log says so. JVMs before JDK 10 are left as they are.
TEST_F(Level1, LockDataComesFromJvmti) {
    if (system("command -v nm >/dev/null") != 0)
        GTEST_SKIP() << "no nm on this machine";
    Dl_info library = {};
    dladdr(dlsym(RTLD_DEFAULT, "JNI_CreateJavaVM"), &library);
    uint32_t words[SYMBOL_WORDS] = {};
    findsymbols(getpid(), SYMBOLS_JVM, words);
    const char *const names[] = {"", "_ZN8Universe14_collectedHeapE",
                                 "_ZN23JvmtiManageCapabilities19always_capabilitiesE", "old_actions"};
    for (int slot = 1; slot <= 3; slot++) {
        const uint64_t at = NmAddress(library.dli_fname, names[slot]);
        EXPECT_EQ(nsymbols[slot], at ? reinterpret_cast<uint64_t>(library.dli_fbase) + at : 0) << names[slot];
        EXPECT_EQ(words[0] >> (slot + 2) & 1, at ? 0u : 1u) << names[slot];
    }
    LogCapture log(LOG_DETAIL + 1);
    QorDovOnLoad(Env());
    const bool opens = gbQorJvmKeepsThreads && nsymbols[JTI_ALWAYS_CAPABILITIES] != 0;
    EXPECT_EQ(log.count("Initializing LockCapabilitesHack."), opens);
    EXPECT_EQ(log.count("LockCapabilitesHack failed"), gbQorJvmKeepsThreads && !opens);
    EXPECT_EQ(log.count("FollowRef"), 0) << "the heap pointer is an old JVM's affair";
    EXPECT_EQ(QorGetJvmtiMonitorCapability(), opens);
    jvmtiCapabilities held = {};
    jvmti->GetCapabilities(&held);
    EXPECT_TRUE(held.can_get_owned_monitor_info == opens && held.can_get_current_contended_monitor == opens &&
                held.can_get_owned_monitor_stack_depth_info == opens);
    // With JVMTI nothing is missing that management tells: owners, locks of java.util.concurrent, arrays.
    if (opens) {
        ZooVisit zoo("holder,blocked,blocked-second,lock-holder,lock-waiter");
        const qorctl::ThreadSample sample = AllThreads(true);
        EXPECT_EQ(ExpectTruth(sample), 5);
    }
}
