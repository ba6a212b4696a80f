#include "JvmFixture.h"
#include "LogCapture.h"
#include "jvmti/JniCalls.h"
#include "jvmti/changes/followRefHackHelper.h"
#include "jvmti/changes/trycatch.h"
#include "jvmti/heap/MemorySystem.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/qorsysinfo.h"
#include "qorsettings.h"

#include <cstdlib>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace {

constexpr char COUNTS[] = "qoragent/testing/JvmCounts";
constexpr jint JMM_GC_COUNT = 10;
constexpr jint JMM_THREAD_LIVE_COUNT = 4;

struct Session : SessionTest {
    ~Session() override {
        gbiOptimizationLevel = 2;
        vers[0] = vend[0] = 0;
    }
};

std::string thisThreadsName() {
    jobject thread = CallObject("java/lang/Thread", "currentThread", "()Ljava/lang/Thread;");
    jmethodID getName = Env()->GetMethodID(threadClass, "getName", "()Ljava/lang/String;");
    return TextOf(QorCallObjectMethod(Env(), thread, getName));
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
    EXPECT_EQ(QorGetJvmtiMonitorCapability(), 0);
    for (jclass kept : {threadClass, hashTableClass, gbjcManagementClass})
        EXPECT_EQ(Env()->GetObjectRefType(kept), JNIGlobalRefType);
    EXPECT_EQ(jmm_ext, nullptr);
    EXPECT_EQ(implCount, 0);
    EXPECT_EQ(qorReadExtendedAttribute, nullptr);
    double untouched = 4;
    EXPECT_FALSE(QorReadExtendedAttribute(401, &untouched));
    EXPECT_EQ(untouched, 4);
}

// Each start makes an environment, and each end gives it back.
TEST_F(Session, CanBeOpenedAgainAndAgain) {
    CallLong(COUNTS, "globalRefs", "()J"); // what the first call leaves behind isn't the session's
    const int64_t before = CallLong(COUNTS, "globalRefs", "()J");
    for (int32_t start = 0; start < 20; start++) {
        QorDovOnUnload(Env());
        EXPECT_EQ(jvmti, nullptr);
        EXPECT_EQ(threadClass, nullptr);
        QorDovOnUnload(Env());
        QorInitJmm();
        QorDovOnLoad(Env());
        jvmtiCapabilities held = {};
        ASSERT_EQ(jvmti->GetCapabilities(&held), JVMTI_ERROR_NONE);
        ASSERT_TRUE(held.can_tag_objects) << start;
    }
    jvmtiEnv *kept = jvmti;
    QorDovOnLoad(Env()); // a start without an end keeps what it has
    EXPECT_EQ(jvmti, kept);
    EXPECT_EQ(CallLong(COUNTS, "globalRefs", "()J"), before);
}

TEST_F(Session, ReadsTheManagementTableByItsOwnSlots) {
    ASSERT_NE(jmm, nullptr);
    const void *const *slot = reinterpret_cast<const void *const *>(jmm);
    for (size_t i = 0; i < sizeof *jmm / sizeof *slot; i++)
        EXPECT_EQ(slot[i] != nullptr, i == 13 || i == 30) << i;

    EXPECT_EQ(jmm->GetLongAttribute(Env(), nullptr, JMM_THREAD_LIVE_COUNT),
              CallLong(COUNTS, "liveThreads", "()J"));
    CallVoid("java/lang/System", "gc", "()V");
    int64_t collections = 0;
    for (jint i = 0; i < CallLong(COUNTS, "collectors", "()J"); i++) {
        jobject bean = CallObject(COUNTS, "collector", "(I)Ljava/lang/Object;", i);
        const int64_t count = CallLong(COUNTS, "collections", "(I)J", i);
        EXPECT_EQ(jmm->GetLongAttribute(Env(), bean, JMM_GC_COUNT), count);
        collections += count;
    }
    EXPECT_GT(collections, 0);

    char dir[] = "/tmp/qortestXXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    const std::string path = std::string(dir) + "/heap.hprof";
    EXPECT_EQ(jmm->DumpHeap0(Env(), Text(path), JNI_TRUE), 0);
    std::string head(18, 0);
    std::ifstream(path).read(head.data(), static_cast<std::streamsize>(head.size()));
    EXPECT_EQ(head, "JAVA PROFILE 1.0.2");
    unlink(path.c_str());
    rmdir(dir);
}

TEST_F(Session, NamesItsWorkerAndLetsItGo) {
    JNIEnv *mine = jvmtijni_env;
    std::string before = thisThreadsName(), during;
    int64_t id = -1;
    jboolean daemon = JNI_FALSE;
    std::thread worker([&] {
        QorAttachThread();
        JNIEnv *env = jvmtijni_env;
        jclass klass = env->FindClass("java/lang/Thread");
        jmethodID current = env->GetStaticMethodID(klass, "currentThread", "()Ljava/lang/Thread;");
        jobject thread = QorCallStaticObjectMethod(env, klass, current);
        daemon = QorCallBooleanMethod(env, thread, QorGetMethodID(env, klass, "isDaemon", "()Z"));
        id = QorCallLongMethod(env, thread, QorGetMethodID(env, klass, "getId", "()J"));
        jobject name =
            QorCallObjectMethod(env, thread, QorGetMethodID(env, klass, "getName", "()Ljava/lang/String;"));
        const char *chars = env->GetStringUTFChars(static_cast<jstring>(name), nullptr);
        during = chars;
        env->ReleaseStringUTFChars(static_cast<jstring>(name), chars);
        QorDetachThread();
    });
    worker.join();
    EXPECT_EQ(during, "QORD Agent Worker");
    EXPECT_TRUE(daemon);
    EXPECT_EQ(gbiAgentWorkerThreadId, id);
    EXPECT_EQ(ThreadTruth().count(id), 0u);
    EXPECT_EQ(jvmtijni_env, nullptr);
    EXPECT_EQ(thisThreadsName(), before);
    jvmtijni_env = mine;
}

// Without an environment of its own a worker must not touch that of another thread.
TEST_F(Session, MakesEveryCallFailWithoutAnEnvironment) {
    const std::string name = thisThreadsName();
    jvmtijni_env = nullptr;
    setThreadNameAndGetThreadID("somebody else");
    EXPECT_EQ(QorFindClass(jvmtijni_env, "java/lang/Object"), nullptr);
    EXPECT_EQ(QorPushLocalFrame(jvmtijni_env, 1), JNI_ERR);
    jvmtijni_env = Env();
    EXPECT_EQ(thisThreadsName(), name);
}

// The texts of vendor and version alone don't make a JVM an old one: its own JNI must say so as well.
TEST_F(Session, GuardsWalksOfOldBuildsAtLevelOneOnly) {
    const struct {
        int32_t level;
        const char *vendor, *version;
        jint jni;
        bool guarded;
    } ROWS[] = {
        {1, "Sun Microsystems Inc.", "1.6.0_49", 0x10006, true},
        {1, "Sun Microsystems Inc.", "1.6.0_50", 0x10006, false},
        {1, "Sun Microsystems Inc.", "1.6.0-beta", 0x10006, true},
        {1, "Sun Microsystems Inc.", "1.6.0", 0x10006, true},
        {1, "Sun Microsystems Inc.", "1.6.0_49", 0x10008, false},
        {1, "Sun Microsystems Inc.", "1.7.0_04", 0x10006, false},
        {1, "Eclipse Adoptium", "1.6.0_49", 0x10006, false},
        {0, "Sun Microsystems Inc.", "1.6.0_49", 0x10006, false},
        {2, "Sun Microsystems Inc.", "1.6.0_49", 0x10006, false},
    };
    static jint version;
    const JNINativeInterface_ *const jvms = Env()->functions;
    JNINativeInterface_ pretending = *jvms;
    pretending.GetVersion = [](JNIEnv *) { return version; };
    Env()->functions = &pretending;
    for (const auto &row : ROWS) {
        version = row.jni;
        QorDovOnUnload(Env());
        gbiOptimizationLevel = row.level;
        snprintf(vend, sizeof vend, "%s", row.vendor);
        snprintf(vers, sizeof vers, "%s", row.version);
        LogCapture log(LOG_TRACE + 1);
        QorDovOnLoad(Env());
        EXPECT_EQ(log.count("FollowRef optimization is enabled for version " + std::string(row.version)),
                  row.guarded ? 1 : 0)
            << row.level << " " << row.vendor << " " << row.version << " " << row.jni;
    }
    Env()->functions = jvms;
    EXPECT_EQ(gbUniverseCollectedHeap, nullptr) << "no address is known here";
}

TEST_F(Session, GivesSignalChainingUpWithoutATable) {
    sig_hack = 1;
    LogCapture log(LOG_DETAIL + 1);
    trycatch_init();
    EXPECT_EQ(sig_hack, 0);
    EXPECT_EQ(log.count("Vostok SignalHandler chaining failed"), 1);
    trycatch_Cleanup();
    EXPECT_EQ(log.count("un-chained"), 0);
}
