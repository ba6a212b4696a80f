#include "JvmFixture.h"
#include "Walk.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/threads/MonitorMemo.h"
#include "jvmti/threads/Monitors.h"
#include "jvmti/threads/MonitorsManagement.h"
#include "qorsettings.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <jvmti.h>

// At the start of a JVM that is told "-agentlib:qortest": takes the lock capabilities, which the JVM then
// offers to every later environment as well.
extern "C" JNIEXPORT jint JNICALL Agent_OnLoad_qortest(JavaVM *vm, char *, void *) {
    void *env = nullptr;
    if (vm->GetEnv(&env, JVMTI_VERSION_1_1) != JNI_OK)
        return JNI_ERR;
    jvmtiCapabilities wanted = {};
    wanted.can_get_owned_monitor_info = 1;
    wanted.can_get_current_contended_monitor = 1;
    wanted.can_get_owned_monitor_stack_depth_info = 1;
    return static_cast<jvmtiEnv *>(env)->AddCapabilities(&wanted) == JVMTI_ERROR_NONE ? JNI_OK : JNI_ERR;
}

namespace {

// Locks as "depth class@number", or "class@number owner" for the lock waited for.
using Locks = std::vector<std::string>;

std::string numbered(const std::string &className, int64_t number) {
    return className + "@" + std::to_string(number);
}

Locks trueOwned(const TrueThread &thread) {
    Locks locks;
    for (const TrueLock &lock : thread.owned)
        locks.push_back(std::to_string(lock.depth) + " " + numbered(lock.className, lock.hash));
    std::sort(locks.begin(), locks.end());
    return locks;
}

// Only a lock that somebody holds is one.
Locks trueWanted(const TrueThread &thread) {
    Locks locks;
    for (const TrueLock &lock : thread.wanted)
        if (lock.owner > 0)
            locks.push_back(numbered(lock.className, lock.hash) + " " + std::to_string(lock.owner));
    return locks;
}

struct Monitors : SessionTest {
    ~Monitors() override { qorLockInfoLevel = 0; }

    // Reads the locks of all zoo threads in one walk.
    void read(QorMonitorScope scope) {
        owned.clear();
        wanted.clear();
        Walk walk;
        while (walk.next()) {
            const std::string name = walk.thread.name;
            if (name.compare(0, 4, "zoo-") != 0)
                continue;
            readOwned(&walk, scope, &owned[name]);
            readWanted(&walk, scope, &wanted[name]);
            QorMonitorRecord blocker = {};
            parkedBy[name] = QorGetParkedOn(&walk.handle, &blocker) == 1 ? blocker.description : "";
        }
        QorCloseMonitorSample();
    }

    void readOwned(Walk *walk, QorMonitorScope scope, Locks *locks) {
        QorMonitorRecord *records = nullptr;
        const int32_t count = QorGetOwnedMonitorInfo(&walk->handle, &walk->thread, scope, &records);
        EXPECT_EQ(records != nullptr, count > 0);
        for (int32_t i = 0; i < count; i++) {
            const QorMonitorRecord &lock = records[i];
            EXPECT_EQ(lock.waiting, 0);
            EXPECT_EQ(lock.hash, byJvmti ? lock.lockId : 0);
            EXPECT_EQ(lock.owner, byJvmti ? 0 : walk->thread.tid);
            expectNumbered(lock);
            locks->push_back(std::to_string(lock.stackDepth) + " " + lock.description);
        }
        std::sort(locks->begin(), locks->end());
        free(records);
    }

    void readWanted(Walk *walk, QorMonitorScope scope, Locks *locks) {
        QorMonitorRecord lock = {};
        if (QorGetContendedMonitorInfo(&walk->handle, &walk->thread, scope, &lock, wantOwner) != 1)
            return;
        EXPECT_EQ(lock.waiting, 1);
        EXPECT_TRUE(lock.hash == 1 || (byJvmti && lock.hash == lock.lockId));
        expectNumbered(lock);
        locks->push_back(std::string(lock.description) + " " + std::to_string(lock.owner));
    }

    // The number that the console follows is the one behind the class name.
    static void expectNumbered(const QorMonitorRecord &lock) {
        const std::string text = lock.description;
        EXPECT_EQ(text.substr(text.find('@') + 1), std::to_string(lock.lockId));
    }

    void expectTruth(const char *what) {
        int32_t ownedSeen = 0, wantedSeen = 0;
        for (const auto &[id, thread] : ThreadTruth()) {
            if (thread.name.compare(0, 4, "zoo-") != 0)
                continue;
            EXPECT_EQ(owned[thread.name], trueOwned(thread)) << what << " " << thread.name;
            EXPECT_EQ(wanted[thread.name], trueWanted(thread)) << what << " " << thread.name;
            if (thread.name == "zoo-swapper" || thread.name == "zoo-latch") {
                ASSERT_EQ(thread.wanted.size(), 1u);
                EXPECT_EQ(parkedBy[thread.name], numbered(thread.wanted[0].className, thread.wanted[0].hash));
            }
            ownedSeen += static_cast<int32_t>(owned[thread.name].size());
            wantedSeen += static_cast<int32_t>(wanted[thread.name].size());
        }
        EXPECT_GE(ownedSeen, 8) << what;
        EXPECT_GE(wantedSeen, 4) << what;
    }

    bool byJvmti = false;
    int32_t wantOwner = 0;
    std::map<std::string, Locks> owned, wanted; // by thread name
    std::map<std::string, std::string> parkedBy;
};

// The clock that the memo of monitors sees, and how many threads the JVM is asked about.
enum Clock { SOUND, COARSE, FAILING, FAILING_LATER, STOPPED_FOR_THE_SWAPPER };
Clock clockKind;
int32_t clockReads, threadsAsked;
const jvmtiInterface_1_ *jvmsJvmti;
const JNINativeInterface_ *jvmsJni;
jmethodID askForMonitors;

jvmtiError JNICALL ReadTestClock(jvmtiEnv *env, jthread thread, jlong *nanos) {
    constexpr jlong TICK = 10 * 1000 * 1000;
    constexpr int32_t GOOD_READS = 80; // the test of the clock, and some threads
    if (clockKind == FAILING || (clockKind == FAILING_LATER && ++clockReads > GOOD_READS))
        return JVMTI_ERROR_INTERNAL;
    const jvmtiError error = jvmsJvmti->GetThreadCpuTime(env, thread, nanos);
    if (clockKind == COARSE)
        *nanos -= *nanos % TICK;
    jvmtiThreadInfo info = {};
    if (clockKind == STOPPED_FOR_THE_SWAPPER && thread && env->GetThreadInfo(thread, &info) == 0) {
        *nanos = strcmp(info.name, "zoo-swapper") == 0 ? 1 : *nanos;
        env->Deallocate(reinterpret_cast<unsigned char *>(info.name));
        Env()->DeleteLocalRef(info.thread_group);
        Env()->DeleteLocalRef(info.context_class_loader);
    }
    return error;
}

jobject JNICALL CountAsked(JNIEnv *env, jobject bean, jmethodID method, va_list args) {
    va_list again;
    va_copy(again, args);
    if (method == askForMonitors)
        threadsAsked += env->GetArrayLength(va_arg(again, jarray));
    va_end(again);
    return jvmsJni->CallObjectMethodV(env, bean, method, args);
}

// Samples with a clock of the test's own, from the memo's first use on.
struct MemoWithClock {
    explicit MemoWithClock(Clock kind) {
        clockKind = kind;
        clockReads = 0;
        jvmsJvmti = jvmti->functions;
        jvmsJni = Env()->functions;
        clocked = *jvmsJvmti;
        clocked.GetThreadCpuTime = ReadTestClock;
        counting = *jvmsJni;
        counting.CallObjectMethodV = CountAsked;
        jvmti->functions = &clocked;
        Env()->functions = &counting;
        QorDropMemo();
    }
    ~MemoWithClock() {
        QorDropMemo();
        jvmti->functions = const_cast<jvmtiInterface_1_ *>(jvmsJvmti);
        Env()->functions = jvmsJni;
    }
    jvmtiInterface_1_ clocked;
    JNINativeInterface_ counting;
};

// The road by JVMTI, in a JVM whose start-up agent has made it offer what that needs.
struct MonitorsByJvmti : Monitors {
    static void SetUpTestSuite() { StartJvm({"-agentlib:qortest"}); }

    void SetUp() override {
        Monitors::SetUp();
        if (QorGetJvmtiMonitorCapability() == 0)
            GTEST_SKIP() << "another suite has created this process's JVM";
        if (!gbQorJvmKeepsThreads)
            GTEST_SKIP() << "this JVM's lock calls are left alone";
        byJvmti = true;
        qorLockInfoLevel = 1;
    }
};

} // namespace

TEST_F(Monitors, ByManagementAgreeWithTheJvm) {
    ZooVisit zoo("");
    ASSERT_EQ(QorGetJvmtiMonitorCapability(), 0);
    for (int32_t level : {1, 2}) {
        qorLockInfoLevel = level;
        read(MONITORS_OF_THE_WALK);
        expectTruth("batches");
        read(MONITORS_OF_ONE_THREAD);
        expectTruth("single calls");
    }
}

TEST_F(Monitors, AreNotReadAtOtherLevels) {
    ZooVisit zoo("holder,blocked");
    for (int32_t level : {0, 3, -1}) {
        qorLockInfoLevel = level;
        read(MONITORS_OF_THE_WALK);
        for (const char *name : {"zoo-holder", "zoo-blocked"})
            EXPECT_TRUE(owned[name].empty() && wanted[name].empty()) << level << " " << name;
    }
}

// Threads that have ended since the snapshot must not cost the locks of those in their batch.
TEST_F(Monitors, OfTheLivingAreFoundBesideTheDead) {
    qorLockInfoLevel = 2;
    Walk walk;
    {
        ZooVisit zoo("holder,blocked");
        CallVoid(ZOO, "startMany", "(II)V", 100, 1);
        QorGetJVMThread(&walk.handle, 0);
    }
    constexpr int32_t HELD = 20;
    QorLocalFrame frame(Env(), HELD + 8);
    jobject held[HELD];
    for (jobject &monitor : held) {
        monitor = QorNewStringUTF(Env(), "a monitor");
        Env()->MonitorEnter(monitor);
    }
    int32_t dead = 0, found = 0;
    for (; walk.handle.index < walk.handle.count; QorGetJVMThread(&walk.handle, 0)) {
        walk.thread = {};
        if (QorGetThreadInfo(&walk.handle, &walk.thread) != 0)
            continue;
        QorMonitorRecord *records = nullptr;
        const int32_t count =
            QorGetOwnedMonitorInfo(&walk.handle, &walk.thread, MONITORS_OF_THE_WALK, &records);
        const bool gone = walk.thread.state == STATE_TERMINATED || !gbQorJvmKeepsThreads;
        dead += gone && count == 0;
        for (int32_t i = 0; i < count; i++)
            found += records[i].description == numbered("java.lang.String", records[i].lockId);
        free(records);
    }
    EXPECT_GE(dead, 100);
    EXPECT_EQ(found, HELD) << "the locks that this thread holds";
    QorCloseMonitorSample();
    for (jobject monitor : held)
        Env()->MonitorExit(monitor);
}

// The swapper changes its monitor and comes back to the very same stack: its clock tells, or that it parks
// anew.
TEST_F(Monitors, OfThreadsThatHaventRunAreRemembered) {
    qorLockInfoLevel = 2;
    ZooVisit zoo("");
    CallVoid(ZOO, "startMany", "(II)V", 50, 5);
    askForMonitors = Env()->GetMethodID(Env()->FindClass("java/lang/management/ThreadMXBean"),
                                        "getThreadInfo", "([JZZ)[Ljava/lang/management/ThreadInfo;");
    constexpr struct {
        Clock clock;
        const char *what;
    } CASES[] = {{SOUND, "sound"},
                 {COARSE, "coarse"},
                 {FAILING, "failing"},
                 {FAILING_LATER, "failing later"},
                 {STOPPED_FOR_THE_SWAPPER, "stopped"}};
    for (const auto &row : CASES) {
        MemoWithClock memo(row.clock);
        int32_t first = 0;
        for (int32_t sample = 0; sample < 20; sample++) {
            threadsAsked = 0;
            read(MONITORS_OF_THE_WALK);
            expectTruth(row.what);
            first = sample ? first : threadsAsked;
            const bool remembers = row.clock == SOUND || row.clock == STOPPED_FOR_THE_SWAPPER;
            if (sample && remembers && gbQorJvmKeepsThreads)
                EXPECT_LT(threadsAsked, first / 2) << sample;
            else
                EXPECT_GE(threadsAsked, 50) << row.what;
            CallVoid(ZOO, "swap", "()V");
        }
    }
}

TEST_F(Monitors, LeaveNoReferenceBehind) {
    constexpr char COUNTS[] = "qoragent/testing/JvmCounts";
    qorLockInfoLevel = 2;
    ZooVisit zoo("holder,blocked,reentrant,lock-waiter,lock-holder");
    read(MONITORS_OF_THE_WALK);
    CallLong(COUNTS, "globalRefs", "()J");
    const int64_t before = CallLong(COUNTS, "globalRefs", "()J");
    for (int32_t sample = 0; sample < 200; sample++)
        read(sample % 2 ? MONITORS_OF_THE_WALK : MONITORS_OF_ONE_THREAD);
    EXPECT_EQ(CallLong(COUNTS, "globalRefs", "()J"), before);
    if (!gbQorJvmKeepsThreads)
        return;
    const int64_t weak = CallLong(COUNTS, "weakRefs", "()J");
    read(MONITORS_OF_ONE_THREAD);
    EXPECT_EQ(CallLong(COUNTS, "weakRefs", "()J"), weak);
    QorDropMemo();
    EXPECT_LE(CallLong(COUNTS, "weakRefs", "()J"), weak - 5) << "one of each thread";
}

TEST_F(Monitors, ReadOnlyInitialisedClasses) {
    EXPECT_EQ(QorIsClassInitialized(nullptr), 0);
    EXPECT_EQ(QorIsClassInitialized(threadClass), 1);
    // An array class is never initialised.
    jclass array = Env()->FindClass("[Ljava/lang/String;");
    EXPECT_EQ(QorIsClassInitialized(array), 0);
}

// With JVMTI nothing is missing that management tells: owners, locks of java.util.concurrent, arrays.
TEST_F(MonitorsByJvmti, AgreeWithTheJvm) {
    ZooVisit zoo("holder,blocked,blocked-second,wait-inside,lock-holder,lock-waiter");
    for (int32_t asked : {0, 1}) {
        wantOwner = asked;
        read(asked ? MONITORS_OF_ONE_THREAD : MONITORS_OF_THE_WALK);
        for (const auto &[id, thread] : ThreadTruth()) {
            if (thread.name.compare(0, 4, "zoo-") != 0)
                continue;
            EXPECT_EQ(owned[thread.name], trueOwned(thread)) << thread.name;
            const bool waits = thread.name == "zoo-wait-inside"; // JVMTI tells what it waits for, too
            EXPECT_EQ(waits ? Locks() : wanted[thread.name], trueWanted(thread)) << thread.name;
        }
        EXPECT_EQ(owned["zoo-holder"].size(), 4u);
        EXPECT_EQ(wanted["zoo-lock-waiter"].size(), 1u);
    }
}
