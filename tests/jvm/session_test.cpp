#include "JvmFixture.h"
#include "jvmti/JniCalls.h"
#include "jvmti/heap/MemorySystem.h"

#include <thread>

namespace {

struct Session : SessionTest {};

// What the JVM calls the thread that asks.
std::string ThreadsName() {
    jvmtiThreadInfo info = {};
    jvmti->GetThreadInfo(nullptr, &info);
    const std::string name = info.name + std::string(info.is_daemon ? ", a daemon" : "");
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(info.name));
    return name;
}

} // namespace

// The harness itself: a wrong use of JNI must not pass unheard.
TEST_F(JvmTest, HearsTheJvmComplain) {
    Env()->ThrowNew(Env()->FindClass("java/lang/RuntimeException"), "pending");
    Env()->FindClass("java/lang/Object");
    Env()->ExceptionClear();
    EXPECT_NE(TakeJvmComplaints().find("exception pending"), std::string::npos);
}

// Each start makes an environment, and each end disposes of it.
TEST_F(Session, CanBeOpenedAgainAndAgain) {
    KeepsNothing(20, [] {
        QorDovOnUnload(Env());
        EXPECT_TRUE(!jvmti && !threadClass);
        QorDovOnUnload(Env());
        QorInitJmm();
        QorDovOnLoad(Env());
        jvmtiCapabilities held = {};
        ASSERT_EQ(jvmti->GetCapabilities(&held), JVMTI_ERROR_NONE);
        EXPECT_TRUE(held.can_tag_objects && held.can_get_monitor_info && held.can_get_source_file_name &&
                    held.can_get_line_numbers && held.can_generate_garbage_collection_events);
        EXPECT_FALSE(held.can_access_local_variables);
        EXPECT_FALSE(held.can_suspend) << "one environment can have it, which may be another tool's";
    });
    jvmtiEnv *kept = jvmti;
    QorDovOnLoad(Env()); // a start without an end keeps what it has
    EXPECT_EQ(jvmti, kept);
}

TEST_F(Session, ReadsTheManagementTableByItsOwnSlots) {
    constexpr jint GC_COUNT = 10, THREAD_LIVE_COUNT = 4;
    ASSERT_NE(jmm, nullptr);
    const void *const *slot = reinterpret_cast<const void *const *>(jmm);
    for (size_t i = 0; i < sizeof *jmm / sizeof *slot; i++)
        EXPECT_EQ(slot[i] != nullptr, i == 13 || i == 30) << i;
    EXPECT_EQ(jmm->GetLongAttribute(Env(), nullptr, THREAD_LIVE_COUNT),
              Java<int64_t>("JvmCounts", "liveThreads"));
    Java("java/lang/System", "gc");
    jobject bean = Java<jobject>("JvmCounts", "collector");
    EXPECT_GT(jmm->GetLongAttribute(Env(), bean, GC_COUNT), 0);
    EXPECT_EQ(jmm->GetLongAttribute(Env(), bean, GC_COUNT), Java<int64_t>("JvmCounts", "collections"));
}

TEST_F(Session, NamesItsWorkerAndLetsItGo) {
    JNIEnv *mine = jvmtijni_env;
    const std::string before = ThreadsName();
    std::string name;
    std::thread([&] {
        QorAttachThread();
        name = ThreadsName();
        QorDetachThread();
    }).join();
    EXPECT_EQ(name, "QORD Agent Worker, a daemon");
    EXPECT_EQ(ThreadTruth().count(gbiAgentWorkerThreadId), 0u);
    EXPECT_EQ(jvmtijni_env, nullptr);
    // Without an environment of its own a worker must not touch that of another thread.
    setThreadNameAndGetThreadID("somebody else");
    EXPECT_EQ(QorFindClass(jvmtijni_env, "java/lang/Object"), nullptr);
    EXPECT_EQ(QorPushLocalFrame(jvmtijni_env, 1), JNI_ERR);
    EXPECT_EQ(ThreadsName(), before);
    jvmtijni_env = mine;
}
