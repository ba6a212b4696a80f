#include "JvmFixture.h"
#include "LogCapture.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/objects/ReplyString.h"
#include "jvmti/threads/Monitors.h"
#include "qorrequest.h"

namespace {

struct Jni : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        object = Java<jobject>("Fields", "make");
        klass = Env()->GetObjectClass(object);
    }

    jobject object;
    jclass klass;
};

} // namespace

// An exception is swallowed at every level, and shown only above level 4.
TEST_F(Jni, SwallowsExceptions) {
    for (int32_t level : {4, 5}) {
        Java("Fields", "catchErr");
        {
            LogCapture log(level);
            jmethodID fail = QorGetMethodID(Env(), klass, "fail", "()Ljava/lang/Object;");
            EXPECT_EQ(QorCallObjectMethod(Env(), object, fail), nullptr);
            EXPECT_EQ(QorFindClass(Env(), "no/such/Class"), nullptr);
            EXPECT_EQ(QorGetMethodID(Env(), klass, "fail", "()J"), nullptr);
            EXPECT_EQ(QorGetStaticFieldID(Env(), klass, "anInt", "I"), nullptr);
            const jlong sent[] = {1};
            QorSetLongArrayRegion(Env(), QorNewLongArray(Env(), 3), 3, 1, sent); // out of range
            EXPECT_FALSE(Env()->ExceptionCheck());
        }
        const std::string shown = Java<std::string>("Fields", "caughtErr");
        EXPECT_EQ(shown.find("as it should") != std::string::npos, level > 4) << level << shown;
        EXPECT_EQ(shown.find("NoSuchFieldError") != std::string::npos, level > 4) << level << shown;
    }
}

TEST_F(Jni, FieldReadersReturnTheValueOrAClearedOutput) {
    int32_t anInt = 9;
    int64_t aLong = 9;
    jboolean aBoolean = 9;
    jobject found = object;
    EXPECT_EQ(QorGetIntObjectField(object, "anInt", "I", &anInt), 0);
    EXPECT_EQ(QorGetLongObjectField(object, "aLong", "J", &aLong), 0);
    EXPECT_EQ(QorGetBooleanObjectField(object, "aBoolean", "Z", &aBoolean), 0);
    EXPECT_TRUE(anInt == -310000 && aLong == 63000000000 && aBoolean == JNI_TRUE);
    EXPECT_EQ(QorGetObjField(object, "anObject", "Ljava/lang/Object;", &found), 0);
    EXPECT_EQ(TextOf(found), "instance");
    EXPECT_EQ(QorGetObjectFromStaticField(object, nullptr, "staticObject", "Ljava/lang/Object;", &found), 0);
    EXPECT_EQ(TextOf(found), "static");
    EXPECT_EQ(QorGetObjField(object, "nothing", "Ljava/lang/Object;", &found), 0);
    EXPECT_EQ(found, nullptr);

    // A reference whose object is gone isn't null.
    jobject gone = Env()->AllocObject(klass);
    jweak dead = Env()->NewWeakGlobalRef(gone);
    Env()->DeleteLocalRef(gone);
    while (!Env()->IsSameObject(dead, nullptr))
        Java("java/lang/System", "gc");
    for (jobject from : {object, jobject{}, jobject{dead}}) {
        const char *field = from == object ? "missing" : "anInt";
        anInt = 9, aLong = 9, aBoolean = 9, found = object;
        EXPECT_EQ(QorGetIntObjectField(from, field, "I", &anInt), -1);
        EXPECT_EQ(QorGetLongObjectField(from, field, "J", &aLong), -1);
        EXPECT_EQ(QorGetBooleanObjectField(from, field, "Z", &aBoolean), -1);
        EXPECT_EQ(QorGetObjField(from, field, "Ljava/lang/Object;", &found), -1);
        EXPECT_TRUE(anInt + aLong + aBoolean == 0 && !found);
    }
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
