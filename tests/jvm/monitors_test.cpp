#include "Replies.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/threads/MonitorMemo.h"
#include "qoragent/shutdown.h"

#include <jvmti.h>

namespace {

struct Monitors : SessionTest {};

// The clock of a thread for which it stands still, and the JVM's.
jobject stopped;
const jvmtiInterface_1_ *jvmsJvmti;

jvmtiError JNICALL ReadTestClock(jvmtiEnv *env, jthread thread, jlong *nanos) {
    const jvmtiError error = jvmsJvmti->GetThreadCpuTime(env, thread, nanos);
    if (stopped && Env()->IsSameObject(thread, stopped))
        *nanos = 1;
    return error;
}

} // namespace

// The swapper changes its monitor and comes back to the very same stack: its clock tells, or that it parks
// anew.
TEST_F(Monitors, OfThreadsThatHaventRunAreRemembered) {
    qorLockInfoLevel = 2;
    ZooVisit zoo("");
    Java("Churn", "threads"); // the dead ones of a batch don't cost the living their locks
    jobject swapper = Java<jobject>("Zoo", "thread", "swapper");
    jvmsJvmti = jvmti->functions;
    jvmtiInterface_1_ clocked = *jvmsJvmti;
    clocked.GetThreadCpuTime = ReadTestClock;
    jvmti->functions = &clocked;
    for (jobject thread : {jobject{}, swapper}) {
        stopped = thread;
        QorDropMemo();
        for (int32_t sample = 0; sample < 20; sample++) {
            ExpectTruth(AllThreads(true));
            Java("Zoo", "swap");
        }
    }
    jvmti->functions = const_cast<jvmtiInterface_1_ *>(jvmsJvmti);
}

TEST_F(Monitors, AreForgottenWithTheirThreadsAndTheSession) {
    if (!gbQorJvmKeepsThreads)
        GTEST_SKIP() << "this JVM's locks aren't remembered";
    qorLockInfoLevel = 2;
    ZooVisit zoo("holder,blocked,reentrant,lock-waiter,lock-holder");
    for (int i = 0; i < 3; i++)
        AllThreads(true);
    const int64_t weak = Java<int64_t>("JvmCounts", "references", "weak");
    AllThreads(true);
    EXPECT_LE(Java<int64_t>("JvmCounts", "references", "weak"), weak);
    jvmtijni_env = nullptr; // as good as that of a worker that has ended
    QorDropSession(Env());
    EXPECT_LE(Java<int64_t>("JvmCounts", "references", "weak"), weak - 5) << "one of each thread";
}
