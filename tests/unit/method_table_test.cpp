// What a walk keeps of methods, on a JVM of as many methods as a test asks for.
#include "NoNatives.h"
#include "jvmti/JvmtiCalls.h"
#include "jvmti/Session.h"
#include "jvmti/threads/MethodTable.h"
#include "jvmti/threads/ThreadSystem.h"

#include <cstdlib>
#include <cstring>
#include <gtest/gtest.h>
#include <string>

namespace {

std::string NameOf(jmethodID id) {
    return "m" + std::to_string(reinterpret_cast<uintptr_t>(id));
}

// A class is its method's id.
struct Jvm {
    Jvm() {
        calls.GetMethodName = [](jvmtiEnv *, jmethodID id, char **name, char **, char **) {
            return *name = strdup(NameOf(id).c_str()), JVMTI_ERROR_NONE;
        };
        calls.GetMethodDeclaringClass = [](jvmtiEnv *, jmethodID id, jclass *klass) {
            return *klass = reinterpret_cast<jclass>(id), JVMTI_ERROR_NONE;
        };
        calls.GetClassSignature = [](jvmtiEnv *, jclass klass, char **signature, char **) {
            *signature = strdup(("Lc/" + NameOf(reinterpret_cast<jmethodID>(klass)) + ";").c_str());
            return JVMTI_ERROR_NONE;
        };
        calls.Deallocate = [](jvmtiEnv *, unsigned char *memory) { return free(memory), JVMTI_ERROR_NONE; };
        jvmti = &environment;
        jvmtijni_env = &jni;
    }
    ~Jvm() {
        QorDropMethodFacts();
        jvmti = nullptr;
        jvmtijni_env = nullptr;
    }
    jvmtiInterface_1_ calls = {};
    JNINativeInterface_ natives = NoNatives();
    jvmtiEnv environment = {&calls};
    JNIEnv jni = {&natives};
};

} // namespace

// More methods than it can keep: those that collide and those that find no room read like the first one.
TEST(MethodTable, ReadsMoreMethodsThanItKeeps) {
    constexpr uintptr_t METHODS = 20000;
    const Jvm jvm;
    static QorFrameHandle frames;
    QorFrameRecord record;
    size_t kept = 0;
    frames.count = 1;
    for (const int round : {0, 1}) {
        for (uintptr_t i = 1; i <= METHODS; i++) {
            frames.frames[0].method = reinterpret_cast<jmethodID>(i << 3);
            ASSERT_EQ(QorReadFrame(&frames, FRAME_METHOD_AND_CLASS, &record), 0);
            ASSERT_EQ(record.method, NameOf(frames.frames[0].method)) << round;
            ASSERT_EQ(record.className, "c." + NameOf(frames.frames[0].method)) << round;
            kept += record.facts != nullptr;
        }
    }
    EXPECT_TRUE(kept > METHODS && kept < 2 * METHODS) << kept;
}
