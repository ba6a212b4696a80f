#include "JvmFixture.h"
#include "jvmti/JniCalls.h"
#include "jvmti/ReplyString.h"
#include "jvmti/heap/MemorySystem.h"

#include <thread>

namespace {

struct Session : SessionTest {};
struct Jni : SessionTest {};

} // namespace

// The harness itself: a wrong use of JNI must not pass unheard.
TEST_F(JvmTest, HearsTheJvmComplain) {
    Env()->ThrowNew(Env()->FindClass("java/lang/RuntimeException"), "pending");
    Env()->FindClass("java/lang/Object");
    Env()->ExceptionClear();
    EXPECT_NE(TakeJvmComplaints().find("exception pending"), std::string::npos);
}

TEST_F(Session, TakesOnlyWhatOtherAgentsMayHaveToo) {
    jvmtiCapabilities held = {};
    ASSERT_EQ(jvmti->GetCapabilities(&held), JVMTI_ERROR_NONE);
    EXPECT_FALSE(held.can_access_local_variables || held.can_suspend);
}

TEST_F(Session, CanBeOpenedAgainAndAgain) {
    KeepsNothing(1000, [round = 0]() mutable {
        QorDovOnUnload(Env());
        QorInitJmm();
        QorDovOnLoad(Env());
        QorDovOnLoad(Env()); // a start without an end keeps what it has
        if (++round % 100 == 0)
            Java("java/lang/System", "gc"); // frees the environments that are disposed of
    });
}

TEST_F(Session, ReadsTheManagementTableByItsOwnSlots) {
    constexpr jint THREAD_LIVE_COUNT = 4;
    EXPECT_EQ(jmm->GetLongAttribute(Env(), nullptr, THREAD_LIVE_COUNT),
              Java<int64_t>("JvmCounts", "liveThreads"));
}

TEST_F(Session, NamesItsWorkerAndLetsItGo) {
    jvmtiThreadInfo info = {};
    std::thread([&] {
        QorAttachThread();
        jvmti->GetThreadInfo(nullptr, &info);
        QorDetachThread();
    }).join();
    EXPECT_STREQ(info.name, "QORD Agent Worker");
    EXPECT_TRUE(info.is_daemon);
    EXPECT_EQ(ThreadTruth().count(gbiAgentWorkerThreadId), 0u);
    EXPECT_EQ(jvmtijni_env, nullptr);
}

TEST_F(Jni, SwallowsExceptions) {
    jobject object = Java<jobject>("Fields", "make");
    jclass klass = Env()->GetObjectClass(object);
    jmethodID fail = QorGetMethodID(Env(), klass, "fail", "()Ljava/lang/Object;");
    EXPECT_EQ(QorCallObjectMethod(Env(), object, fail), nullptr);
    EXPECT_EQ(QorFindClass(Env(), "no/such/Class"), nullptr);
    EXPECT_EQ(QorGetMethodID(Env(), klass, "fail", "()J"), nullptr);
    EXPECT_EQ(QorGetStaticFieldID(Env(), klass, "anInt", "I"), nullptr);
    const jlong sent[] = {1};
    QorSetLongArrayRegion(Env(), QorNewLongArray(Env(), 3), 3, 1, sent); // out of range
    EXPECT_FALSE(Env()->ExceptionCheck());
}

TEST_F(Jni, ReplyStringsAreWhatTheirTextSays) {
    std::string ascii;
    for (int i = 0; i < 200000; i++)
        ascii += static_cast<char>(1 + i % 127);
    for (const std::string &text :
         {std::string(), ascii,
          ascii.substr(0, 5000) + "\xc3\xa9 \xe2\x82\xac \xed\xa0\xbd\xed\xb8\x80" + ascii})
        EXPECT_EQ(TextOf(QorNewReplyString(Env(), text.c_str())), text) << text.size() << " bytes";
    jstring pair = QorNewReplyString(Env(), "a\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf z");
    EXPECT_EQ(TextOf(pair), "a\xed\xa0\xbd\xed\xb8\x80\xed\xaf\xbf\xed\xbf\xbf z"); // as the JVM has them
}
