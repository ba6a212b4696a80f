#include "JvmFixture.h"
#include "LogCapture.h"
#include "jvmti/JniCalls.h"
#include "jvmti/changes/followRefHackHelper.h"
#include "jvmti/changes/trycatch.h"
#include "jvmti/heap/MemorySystem.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <thread>

namespace {

struct Session : SessionTest {
    ~Session() override { vers[0] = vend[0] = 0; }
};

// The name of the thread whose environment it is.
std::string ThreadsName(JNIEnv *env) {
    jclass klass = env->FindClass("java/lang/Thread");
    jobject thread = QorCallStaticObjectMethod(
        env, klass, QorGetStaticMethodID(env, klass, "currentThread", "()Ljava/lang/Thread;"));
    jobject name =
        QorCallObjectMethod(env, thread, QorGetMethodID(env, klass, "getName", "()Ljava/lang/String;"));
    const char *chars = env->GetStringUTFChars(static_cast<jstring>(name), nullptr);
    const std::string text = chars;
    env->ReleaseStringUTFChars(static_cast<jstring>(name), chars);
    return text;
}

} // namespace

// The harness itself: a wrong use of JNI must not pass unheard.
TEST_F(JvmTest, HearsTheJvmComplain) {
    Env()->ThrowNew(Env()->FindClass("java/lang/RuntimeException"), "pending");
    Env()->FindClass("java/lang/Object");
    Env()->ExceptionClear();
    EXPECT_NE(TakeJvmComplaints().find("exception pending"), std::string::npos);
}

TEST_F(Session, KeepsWhatTheJvmGives) {
    jvmtiCapabilities held = {};
    ASSERT_EQ(jvmti->GetCapabilities(&held), JVMTI_ERROR_NONE);
    EXPECT_TRUE(held.can_tag_objects && held.can_get_monitor_info && held.can_get_source_file_name &&
                held.can_get_line_numbers && held.can_generate_garbage_collection_events);
    EXPECT_FALSE(held.can_access_local_variables);
    EXPECT_FALSE(held.can_suspend) << "one environment of the JVM can have it, which may be another tool's";
    for (jclass kept : {threadClass, hashTableClass, gbjcManagementClass})
        EXPECT_EQ(Env()->GetObjectRefType(kept), JNIGlobalRefType);
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
        ASSERT_TRUE(held.can_tag_objects);
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
    const std::string before = ThreadsName(Env());
    bool alive = false;
    std::string name;
    std::thread([&] {
        QorAttachThread();
        name = ThreadsName(jvmtijni_env);
        jclass klass = jvmtijni_env->FindClass("qoragent/testing/Truth");
        alive = jvmtijni_env->CallStaticBooleanMethod(
            klass, jvmtijni_env->GetStaticMethodID(klass, "isDaemon", "(J)Z"), jlong{gbiAgentWorkerThreadId});
        QorDetachThread();
    }).join();
    EXPECT_EQ(name, "QORD Agent Worker");
    EXPECT_TRUE(alive) << "a live daemon of that id";
    EXPECT_EQ(ThreadTruth().count(gbiAgentWorkerThreadId), 0u);
    EXPECT_EQ(jvmtijni_env, nullptr);
    // Without an environment of its own a worker must not touch that of another thread.
    setThreadNameAndGetThreadID("somebody else");
    EXPECT_EQ(QorFindClass(jvmtijni_env, "java/lang/Object"), nullptr);
    EXPECT_EQ(QorPushLocalFrame(jvmtijni_env, 1), JNI_ERR);
    EXPECT_EQ(ThreadsName(Env()), before);
    jvmtijni_env = mine;
}

// The texts of vendor and version alone don't make a JVM an old one: its own JNI must say so as well.
TEST_F(Session, GuardsWalksOfOldBuildsAtLevelOneOnly) {
    const struct {
        int32_t level;
        const char *version;
        jint jni;
        bool guarded;
    } ROWS[] = {
        {1, "1.6.0_49", 0x10006, true}, {1, "1.6.0_49", 0x10008, false}, {0, "1.6.0_49", 0x10006, false}};
    static jint version;
    const JNINativeInterface_ *const jvms = Env()->functions;
    JNINativeInterface_ pretending = *jvms;
    pretending.GetVersion = [](JNIEnv *) { return version; };
    Env()->functions = &pretending;
    for (const auto &row : ROWS) {
        version = row.jni;
        QorDovOnUnload(Env());
        gbiOptimizationLevel = row.level;
        snprintf(vend, sizeof vend, "Sun Microsystems Inc.");
        snprintf(vers, sizeof vers, "%s", row.version);
        LogCapture log(LOG_TRACE + 1);
        QorDovOnLoad(Env());
        EXPECT_EQ(log.count("FollowRef optimization is enabled for version 1.6.0_49"), row.guarded)
            << row.jni;
    }
    Env()->functions = jvms;
    EXPECT_EQ(gbUniverseCollectedHeap, nullptr) << "no address is known here";
}

TEST_F(Session, GivesSignalChainingUpWithoutATable) {
    sig_hack = 1;
    trycatch_init();
    EXPECT_EQ(sig_hack, 0);
}
