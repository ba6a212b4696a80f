#include "JvmFixture.h"
#include "LogCapture.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JniFields.h"
#include "jvmti/objects/ReplyString.h"
#include "qorrequest.h"

#include <cstring>

namespace {

constexpr char FIELDS[] = "qoragent/testing/Fields";

struct Jni : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        object = CallObject(FIELDS, "make", "()Lqoragent/testing/Fields;");
        klass = Env()->GetObjectClass(object);
    }
    ~Jni() override { qorIsPollOrTrace = 0; }

    jfieldID field(const char *name, const char *signature) {
        jfieldID id = QorGetFieldID(Env(), klass, name, signature);
        EXPECT_NE(id, nullptr) << name;
        return id;
    }
    jmethodID method(const char *name, const char *signature) {
        jmethodID id = QorGetMethodID(Env(), klass, name, signature);
        EXPECT_NE(id, nullptr) << name;
        return id;
    }
    template <typename Array>
    Array array(const char *name, const char *signature) {
        return static_cast<Array>(QorGetObjectField(Env(), object, field(name, signature)));
    }

    jobject object;
    jclass klass;
};

// A reference that is not null but whose object is gone.
jobject deadReference() {
    jclass klass = Env()->FindClass("java/lang/Object");
    jobject object = Env()->AllocObject(klass);
    jweak weak = Env()->NewWeakGlobalRef(object);
    Env()->DeleteLocalRef(object);
    while (!Env()->IsSameObject(weak, nullptr))
        CallVoid("java/lang/System", "gc", "()V");
    return weak;
}

} // namespace

TEST_F(Jni, ReadsArraysOfEveryType) {
    JNIEnv *env = Env();
    const auto expect = [&](auto array, auto get, auto release, double first, double second) {
        ASSERT_EQ(QorGetArrayLength(env, array), 2);
        auto *elements = get(env, array, nullptr);
        ASSERT_NE(elements, nullptr);
        EXPECT_EQ(elements[0], first);
        EXPECT_EQ(elements[1], second);
        release(env, array, elements, JNI_ABORT);
    };
    expect(array<jbooleanArray>("booleans", "[Z"), QorGetBooleanArrayElements, QorReleaseBooleanArrayElements,
           1, 0);
    expect(array<jbyteArray>("bytes", "[B"), QorGetByteArrayElements, QorReleaseByteArrayElements, 1, -2);
    expect(array<jcharArray>("chars", "[C"), QorGetCharArrayElements, QorReleaseCharArrayElements, 'a', 0xe9);
    expect(array<jshortArray>("shorts", "[S"), QorGetShortArrayElements, QorReleaseShortArrayElements, 3, -4);
    expect(array<jintArray>("ints", "[I"), QorGetIntArrayElements, QorReleaseIntArrayElements, 5, -6);
    expect(array<jlongArray>("longs", "[J"), QorGetLongArrayElements, QorReleaseLongArrayElements, 7, -8);
    expect(array<jfloatArray>("floats", "[F"), QorGetFloatArrayElements, QorReleaseFloatArrayElements, 0.5,
           -0.5);
    expect(array<jdoubleArray>("doubles", "[D"), QorGetDoubleArrayElements, QorReleaseDoubleArrayElements,
           9.5, -9.5);

    const jlong sent[] = {41, -42, 43};
    jlongArray made = QorNewLongArray(env, 3);
    QorSetLongArrayRegion(env, made, 0, 3, sent);
    jlong *back = QorGetLongArrayElements(env, made, nullptr);
    EXPECT_EQ(memcmp(sent, back, sizeof sent), 0);
    QorReleaseLongArrayElements(env, made, back, 0);
    QorSetLongArrayRegion(env, made, 2, 3, sent); // out of range
    EXPECT_FALSE(env->ExceptionCheck());
}

TEST_F(Jni, CallsMethods) {
    JNIEnv *env = Env();
    EXPECT_EQ(QorCallIntMethod(env, object, method("intOf", "()I")), -310000);
    EXPECT_EQ(QorCallBooleanMethod(env, object, method("booleanOf", "()Z")), JNI_TRUE);
    EXPECT_EQ(QorCallLongMethod(env, object, method("longOf", "()J")), 63000000000);
    jobject told = QorNewStringUTF(env, "told");
    QorCallVoidMethod(env, object, method("tell", "(Ljava/lang/Object;)V"), told);
    EXPECT_TRUE(
        QorIsSameObject(env, told, QorCallObjectMethod(env, object, method("told", "()Ljava/lang/Object;"))));
    jmethodID make = QorGetStaticMethodID(env, klass, "make", "()Lqoragent/testing/Fields;");
    jobject made = QorCallStaticObjectMethod(env, klass, make);
    EXPECT_TRUE(QorIsSameObject(env, QorGetObjectClass(env, made), klass));
    EXPECT_TRUE(QorIsSameObject(env, QorGetSuperclass(env, klass), QorFindClass(env, "java/lang/Object")));
    EXPECT_EQ(QorGetObjectClass(env, nullptr), nullptr);
    jobject dead = deadReference();
    EXPECT_EQ(QorGetObjectClass(env, dead), nullptr);
    env->DeleteWeakGlobalRef(dead);
}

// An exception is swallowed at every level, and shown only above level 4.
TEST_F(Jni, SwallowsExceptions) {
    for (int32_t level : {0, 1, 4, 5}) {
        CallVoid(FIELDS, "catchErr", "()V");
        {
            LogCapture log(level);
            EXPECT_EQ(QorCallObjectMethod(Env(), object, method("fail", "()Ljava/lang/Object;")), nullptr);
            EXPECT_EQ(QorFindClass(Env(), "no/such/Class"), nullptr);
            EXPECT_EQ(QorGetMethodID(Env(), klass, "intOf", "()J"), nullptr);
            EXPECT_EQ(QorGetStaticFieldID(Env(), klass, "anInt", "I"), nullptr);
            EXPECT_FALSE(Env()->ExceptionCheck());
        }
        const std::string shown = CallText(FIELDS, "caughtErr", "()Ljava/lang/String;");
        EXPECT_EQ(shown.find("as it should") != std::string::npos, level > 4) << level << shown;
        EXPECT_EQ(shown.find("NoSuchFieldError") != std::string::npos, level > 4) << level << shown;
    }
}

TEST_F(Jni, FieldReadersGiveTheValueOrAClearedOutput) {
    int32_t anInt = 9;
    int64_t aLong = 9;
    jboolean aBoolean = 9;
    jobject found = object;
    LogCapture log(LOG_ERROR + 1);
    EXPECT_EQ(QorGetIntObjectField(object, "anInt", "I", &anInt), 0);
    EXPECT_EQ(QorGetLongObjectField(object, "aLong", "J", &aLong), 0);
    EXPECT_EQ(QorGetBooleanObjectField(object, "aBoolean", "Z", &aBoolean), 0);
    EXPECT_EQ(anInt, -310000);
    EXPECT_EQ(aLong, 63000000000);
    EXPECT_EQ(aBoolean, JNI_TRUE);
    EXPECT_EQ(QorGetObjField(object, "anObject", "Ljava/lang/Object;", &found), 0);
    EXPECT_EQ(TextOf(found), "instance");
    EXPECT_EQ(QorGetObjField(object, "nothing", "Ljava/lang/Object;", &found), 0);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(QorGetObjectFromStaticField(object, nullptr, "staticObject", "Ljava/lang/Object;", &found), 0);
    EXPECT_EQ(TextOf(found), "static");
    EXPECT_EQ(QorGetObjectFromStaticField(object, klass, "staticObject", "Ljava/lang/Object;", &found), 0);
    EXPECT_EQ(TextOf(found), "static");
    EXPECT_EQ(QorFindObjectField(&object, nullptr, "anObject", "Ljava/lang/Object;", &found), 0);
    EXPECT_EQ(TextOf(found), "instance");

    // A missing field is an everyday answer.
    EXPECT_EQ(QorGetIntObjectField(object, "missing", "I", &anInt), -1);
    EXPECT_EQ(QorGetLongObjectField(object, "missing", "J", &aLong), -1);
    EXPECT_EQ(QorGetBooleanObjectField(object, "anInt", "Z", &aBoolean), -1);
    EXPECT_EQ(anInt + aLong + aBoolean, 0);
    qorIsPollOrTrace = 1;
    EXPECT_EQ(QorGetObjField(object, "missing", "Ljava/lang/Object;", &found), -1);
    EXPECT_EQ(log.text(), "");
    qorIsPollOrTrace = 0;
    found = object;
    EXPECT_EQ(QorGetObjField(object, "missing", "Ljava/lang/Object;", &found), -1);
    EXPECT_EQ(found, nullptr);
    EXPECT_EQ(log.count("Get Field ID Fail Field missing Signature : Ljava/lang/Object;"), 1);

    jobject dead = deadReference();
    for (jobject gone : {static_cast<jobject>(nullptr), dead}) {
        anInt = 9, aLong = 9, aBoolean = 9, found = object;
        EXPECT_EQ(QorGetIntObjectField(gone, "anInt", "I", &anInt), -1);
        EXPECT_EQ(QorGetLongObjectField(gone, "aLong", "J", &aLong), -1);
        EXPECT_EQ(QorGetBooleanObjectField(gone, "aBoolean", "Z", &aBoolean), -1);
        EXPECT_EQ(QorGetObjField(gone, "anObject", "Ljava/lang/Object;", &found), -1);
        EXPECT_EQ(anInt + aLong + aBoolean, 0);
        EXPECT_EQ(found, nullptr);
    }
    Env()->DeleteWeakGlobalRef(dead);
}

TEST_F(Jni, ReadsTextsAndTables) {
    char text[8] = "as was";
    EXPECT_EQ(QorGetStringObjectValue(nullptr, text, sizeof text), 0);
    EXPECT_STREQ(text, "as was");
    EXPECT_EQ(QorGetStringObjectValue(Text("longer than eight"), text, sizeof text), 0);
    EXPECT_STREQ(text, "longer ");
    EXPECT_EQ(QorGetStringObjectValue(Text("123456\xc3\xa9"), text, sizeof text), 0);
    EXPECT_STREQ(text, "123456");
    jobject dead = deadReference();
    EXPECT_EQ(QorGetStringObjectValue(static_cast<jstring>(dead), text, sizeof text), -1);
    Env()->DeleteWeakGlobalRef(dead);

    jobject table = CallObject(FIELDS, "table", "(I)Ljava/util/Hashtable;", 200);
    jobject value = table;
    QorDeleteGlobalRef(Env(), hashTableClass);
    hashTableClass = nullptr;
    EXPECT_EQ(QorGetHashValue(&table, "key7", &value), 0);
    EXPECT_EQ(value ? TextOf(value) : "", gbQorJvmKeepsThreads ? "value7" : "");
    EXPECT_EQ(Env()->GetObjectRefType(hashTableClass), JNIGlobalRefType);
    EXPECT_EQ(QorGetHashValue(&table, "no such key", &value), 0);
    EXPECT_EQ(value, nullptr);
    EXPECT_EQ(QorGetHashValue(nullptr, "key7", &value), 0);
    EXPECT_EQ(QorSearchHashTable(&table, "", ""), 0);
    EXPECT_EQ(QorSearchHashTable(nullptr, "", ""), -1);

    char signature[1024] = "as was";
    EXPECT_EQ(QorGetObjectClassSignature(nullptr, signature), -1);
    EXPECT_EQ(QorGetObjectClassSignature(object, nullptr), -1);
    jclass untouched = QorFindClass(Env(), "qoragent/testing/Fields");
    EXPECT_EQ(QorGetObjectClassSignature(untouched, signature), 0);
    EXPECT_STREQ(signature, "Ljava/lang/Class;");
    EXPECT_EQ(QorGetObjectClassSignature(object, signature), 0);
    EXPECT_STREQ(signature, "Lqoragent/testing/Fields;");
}

TEST_F(Jni, FramesTakeTheirReferencesWithThem) {
    for (int32_t i = 0; i < 100; i++) {
        QorLocalFrame frame(Env(), 4);
        ASSERT_TRUE(frame.pushed);
        for (int32_t j = 0; j < 4; j++)
            QorNewStringUTF(Env(), "kept for a turn");
    }
    QorLocalFrame refused(nullptr, 1);
    EXPECT_FALSE(refused.pushed);
}

TEST_F(Jni, ReplyStringsAreWhatTheirTextSays) {
    std::string ascii, mixed;
    for (int i = 0; i < 200000; i++)
        ascii += static_cast<char>(1 + i % 127);
    mixed = ascii.substr(0, 5000) + "\xc3\xa9 \xe2\x82\xac \xed\xa0\xbd\xed\xb8\x80" + ascii.substr(0, 5000);
    for (const std::string &text : {std::string(), std::string("short"), ascii, mixed}) {
        jstring made = QorNewReplyString(Env(), text.c_str());
        ASSERT_NE(made, nullptr);
        EXPECT_EQ(TextOf(made), text) << text.size() << " bytes";
    }
    jstring pair = QorNewReplyString(Env(), "a\xf0\x9f\x98\x80\xf4\x8f\xbf\xbf z");
    EXPECT_EQ(TextOf(pair), "a\xed\xa0\xbd\xed\xb8\x80\xed\xaf\xbf\xed\xbf\xbf z"); // as the JVM has them
}
