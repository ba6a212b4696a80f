// Optimisation level 1 on a live JVM: symbols of its library, and the lock data that they open. On a JVM
// whose library is stripped everything goes on without.
#include "LogCapture.h"
#include "Replies.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/changes/trycatch.h"
#include "jvmti/threads/Monitors.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <csignal>
#include <cstring>
#include <dlfcn.h>
#include <sys/mman.h>
#include <unistd.h>

namespace {

constexpr char ALWAYS[] = "_ZN23JvmtiManageCapabilities19always_capabilitiesE";

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
        gbiOptimizationLevel = 0;
        qorLockInfoLevel = 0;
        memset(nsymbols, 0, sizeof nsymbols);
        JvmTest::TearDown();
    }
};

// The JVM library's symbol table as binutils' nm reads it: address within the file, 0 for a missing name.
uint64_t NmAddress(const std::string &library, const std::string &name) {
    FILE *nm = popen(("nm " + library + " 2>/dev/null").c_str(), "re");
    uint64_t found = 0;
    char line[8192];
    while (nm && fgets(line, sizeof line, nm)) {
        const std::string text(line, strcspn(line, "\n"));
        if (text.size() > 19 && text.substr(19) == name)
            found = std::stoull(text.substr(0, 16), nullptr, 16);
    }
    if (nm)
        pclose(nm);
    return found;
}

// Where the running JVM's library lies and what file it is.
Dl_info JvmLibrary() {
    Dl_info facts = {};
    dladdr(dlsym(RTLD_DEFAULT, "JNI_CreateJavaVM"), &facts);
    return facts;
}

bool NoNm() {
    return system("command -v nm >/dev/null") != 0;
}

// The row of an owned lock. Only JVMTI hands out the object, and with it the number in front.
std::string RowOf(const TrueLock &lock, bool byJvmti) {
    return "\n" + std::to_string(byJvmti ? lock.hash : 0) + "|0|" + lock.text() + "|" +
           std::to_string(lock.depth) + "\n";
}

} // namespace

TEST_F(Level1, SymbolsAreWhereNmSeesThem) {
    if (NoNm())
        GTEST_SKIP() << "no nm on this machine";
    const Dl_info library = JvmLibrary();
    ASSERT_NE(library.dli_fname, nullptr);
    const auto base = reinterpret_cast<uint64_t>(library.dli_fbase);
    uint32_t words[SYMBOL_WORDS] = {};
    findsymbols(getpid(), SYMBOLS_JVM, words);
    const char *const names[] = {"", "_ZN8Universe14_collectedHeapE", ALWAYS, "old_actions"};
    for (int slot = 1; slot <= 3; slot++) {
        const uint64_t expected = NmAddress(library.dli_fname, names[slot]);
        EXPECT_EQ(nsymbols[slot], expected ? base + expected : 0) << names[slot];
        EXPECT_EQ(words[0] >> (slot + 2) & 1, expected ? 0u : 1u) << names[slot];
    }
    EXPECT_EQ(jat_server_jvm, 1);
}

// With the symbol the JVM offers what it has refused, and tells by JVMTI what java.lang.management tells;
// without it, it goes on refusing, and says so in the log. JVMs before JDK 10 are left as they are.
TEST_F(Level1, LockDataComesFromJvmti) {
    if (NoNm())
        GTEST_SKIP() << "no nm on this machine";
    uint32_t words[SYMBOL_WORDS] = {};
    findsymbols(getpid(), SYMBOLS_JVM, words);
    LogCapture log(LOG_DETAIL + 1);
    QorDovOnLoad(Env());
    const bool opens = gbQorJvmKeepsThreads && NmAddress(JvmLibrary().dli_fname, ALWAYS) != 0;
    EXPECT_EQ(log.count("Initializing LockCapabilitesHack."), opens);
    EXPECT_EQ(log.count("LockCapabilitesHack failed"), gbQorJvmKeepsThreads && !opens);
    EXPECT_EQ(log.count("FollowRef"), 0) << "the heap pointer is an old JVM's affair";
    EXPECT_EQ(QorGetJvmtiMonitorCapability(), opens);
    jvmtiCapabilities held = {};
    jvmti->GetCapabilities(&held);
    EXPECT_EQ(held.can_get_owned_monitor_info, opens);
    EXPECT_EQ(held.can_get_current_contended_monitor, opens);
    EXPECT_EQ(held.can_get_owned_monitor_stack_depth_info, opens);

    ZooVisit zoo("holder,blocked");
    for (const char *kind : {"holder", "blocked"}) {
        const TrueThread truth = ThreadTruth().at(ZooId(kind));
        const std::string reply = Legible(Ask(QORREQ_THREAD_DETAILS, "", ZooKey(kind)));
        ASSERT_FALSE(truth.owned.empty());
        for (const TrueLock &lock : truth.owned)
            EXPECT_NE(reply.find(RowOf(lock, opens)), std::string::npos) << RowOf(lock, opens) << reply;
        for (const TrueLock &lock : truth.wanted)
            EXPECT_EQ(reply.find("Lock On\n" + std::to_string(lock.hash) + "|" + ZooKey("holder")), 0u)
                << reply;
    }

    // A second start finds them offered and has nothing to change.
    QorDovOnUnload(Env());
    QorDovOnLoad(Env());
    EXPECT_EQ(log.count("Initializing LockCapabilitesHack."), opens);
    EXPECT_EQ(QorGetJvmtiMonitorCapability(), opens);
}

// An address that doesn't lead to the JVM's record isn't written to.
TEST_F(Level1, OnlyTheJvmsRecordIsChanged) {
    alignas(jvmtiCapabilities) static unsigned char bytes[2 * sizeof(jvmtiCapabilities)];
    const unsigned char fills[] = {0x00, 0xff};
    for (unsigned char fill : fills) {
        memset(bytes, fill, sizeof bytes);
        nsymbols[JTI_ALWAYS_CAPABILITIES] = reinterpret_cast<uint64_t>(bytes);
        LogCapture log(LOG_NOTE + 1);
        QorDovOnLoad(Env());
        EXPECT_EQ(log.count("LockCapabilitesHack failed"), gbQorJvmKeepsThreads);
        for (unsigned char byte : bytes)
            EXPECT_EQ(byte, fill);
        QorDovOnUnload(Env());
    }
}

namespace {

void *badPage;
struct sigaction jvmsSegv, savedActions[NSIG];

// What a JVM with a table of saved actions does: faults that aren't its own go to the table's handler.
void DispatchSegv(int sig, siginfo_t *info, void *context) {
    if (info->si_addr == badPage)
        savedActions[sig].sa_sigaction(sig, info, context);
    else
        jvmsSegv.sa_sigaction(sig, info, context);
}

} // namespace

// A fault inside GetClassStatus and GetMethodName is a failed call, and the JVM serves the next one.
TEST_F(Level1, AFaultInAJvmtiCallIsAFailedCall) {
    badPage = mmap(nullptr, 4096, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    QorDovOnLoad(Env());
    jvmtijni_env = Env();
    sigaction(SIGSEGV, nullptr, &jvmsSegv);
    struct sigaction dispatcher = jvmsSegv;
    dispatcher.sa_sigaction = DispatchSegv;
    sigaction(SIGSEGV, &dispatcher, nullptr);
    nsymbols[JTI_OLD_ACTIONS] = reinterpret_cast<uint64_t>(savedActions);
    sig_hack = 1;
    trycatch_init();

    jclass klass = Env()->FindClass("java/lang/String");
    const jvmtiInterface_1_ *const jvms = jvmti->functions;
    jvmtiInterface_1_ faulting = *jvms;
    faulting.GetClassStatus = [](jvmtiEnv *, jclass, jint *) {
        return static_cast<jvmtiError>(*static_cast<volatile int *>(badPage));
    };
    for (int round = 0; round < 2; round++) {
        LogCapture log(LOG_ERROR + 1);
        jvmti->functions = const_cast<jvmtiInterface_1_ *>(&faulting);
        EXPECT_EQ(QorIsClassInitialized(klass), 0);
        jvmti->functions = const_cast<jvmtiInterface_1_ *>(jvms);
        EXPECT_EQ(log.count("SEGV in GetClassStatus"), 1);
        EXPECT_EQ(log.count("Child Thread recovering from SIGSEGV"), 1);
        EXPECT_EQ(QorIsClassInitialized(klass), 1);
    }
    trycatch_Cleanup();
    sig_hack = 0;
    sigaction(SIGSEGV, &jvmsSegv, nullptr);
}
