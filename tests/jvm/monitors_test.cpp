#include "Replies.h"
#include "Walk.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/threads/MonitorMemo.h"
#include "jvmti/threads/Monitors.h"
#include "jvmti/threads/MonitorsManagement.h"
#include "qoragent/shutdown.h"
#include "qorsettings.h"

#include <cstdlib>
#include <cstring>
#include <jvmti.h>

namespace {

struct Monitors : SessionTest {};

// The clock that the memo of monitors sees, and how many threads the JVM is asked about.
enum Clock { SOUND, COARSE, STOPPED_FOR_THE_SWAPPER };
Clock clockKind;
int32_t threadsAsked;
const jvmtiInterface_1_ *jvmsJvmti;
const JNINativeInterface_ *jvmsJni;
jmethodID askForMonitors;
jobject swapper;

jvmtiError JNICALL ReadTestClock(jvmtiEnv *env, jthread thread, jlong *nanos) {
    constexpr jlong TICK = 10 * 1000 * 1000;
    const jvmtiError error = jvmsJvmti->GetThreadCpuTime(env, thread, nanos);
    if (clockKind == COARSE)
        *nanos -= *nanos % TICK;
    if (clockKind == STOPPED_FOR_THE_SWAPPER && Env()->IsSameObject(thread, swapper))
        *nanos = 1;
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

} // namespace

// Threads that have ended since the snapshot must not cost the locks of those in their batch.
TEST_F(Monitors, OfTheLivingAreFoundBesideTheDead) {
    qorLockInfoLevel = 2;
    Walk walk;
    {
        ZooVisit zoo("holder,blocked");
        Java("Zoo", "startMany", 100, 1);
        QorGetJVMThread(&walk.handle, 0);
    }
    jobject held = Text("a monitor");
    Env()->MonitorEnter(held);
    int32_t dead = 0, found = 0;
    for (; walk.handle.index < walk.handle.count; QorGetJVMThread(&walk.handle, 0)) {
        walk.thread = {};
        if (QorGetThreadInfo(&walk.handle, &walk.thread) != 0)
            continue;
        QorMonitorRecord *records = nullptr;
        const int32_t count =
            QorGetOwnedMonitorInfo(&walk.handle, &walk.thread, MONITORS_OF_THE_WALK, &records);
        dead += count == 0 && (walk.thread.state == STATE_TERMINATED || !gbQorJvmKeepsThreads);
        for (int32_t i = 0; i < count; i++)
            found += strncmp(records[i].description, "java.lang.String@", 17) == 0;
        free(records);
    }
    EXPECT_GE(dead, 100);
    EXPECT_EQ(found, 1) << "the lock that this thread holds";
    QorCloseMonitorSample();
    Env()->MonitorExit(held);
}

// The swapper changes its monitor and comes back to the very same stack: its clock tells, or that it parks
// anew.
TEST_F(Monitors, OfThreadsThatHaventRunAreRemembered) {
    qorLockInfoLevel = 2;
    ZooVisit zoo("");
    Java("Zoo", "startMany", 50, 5);
    swapper = Java<jobject>("Zoo", "thread", "swapper");
    askForMonitors = Env()->GetMethodID(Env()->FindClass("java/lang/management/ThreadMXBean"),
                                        "getThreadInfo", "([JZZ)[Ljava/lang/management/ThreadInfo;");
    for (const Clock clock : {SOUND, COARSE, STOPPED_FOR_THE_SWAPPER}) {
        MemoWithClock memo(clock);
        int32_t first = 0;
        for (int32_t sample = 0; sample < 20; sample++) {
            threadsAsked = 0;
            ExpectTruth(AllThreads(true));
            first = sample ? first : threadsAsked;
            if (sample && clock != COARSE && gbQorJvmKeepsThreads)
                EXPECT_LT(threadsAsked, first / 2) << sample;
            else
                EXPECT_GE(threadsAsked, 50) << clock;
            Java("Zoo", "swap");
        }
    }
}

TEST_F(Monitors, AreForgottenWithTheirThreadsAndTheSession) {
    if (!gbQorJvmKeepsThreads)
        GTEST_SKIP() << "this JVM's locks aren't remembered";
    qorLockInfoLevel = 2;
    ZooVisit zoo("holder,blocked,reentrant,lock-waiter,lock-holder");
    for (int i = 0; i < 3; i++)
        AllThreads(true);
    const int64_t weak = Java<int64_t>("JvmCounts", "weakRefs");
    AllThreads(true);
    EXPECT_LE(Java<int64_t>("JvmCounts", "weakRefs"), weak);
    jvmtijni_env = nullptr; // as good as that of a worker that has ended
    QorDropSession(Env());
    EXPECT_LE(Java<int64_t>("JvmCounts", "weakRefs"), weak - 5) << "one of each thread";
}
