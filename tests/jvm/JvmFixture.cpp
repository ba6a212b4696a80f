#include "JvmFixture.h"

#include "Descriptors.h"
#include "FailingCalls.h"
#include "qorrequest.h"
#include "qorutil.h"

#include <array>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <malloc.h>
#include <mutex>
#include <sstream>
#include <unistd.h>

namespace {

JavaVM *vm;
JNIEnv *testEnv;

// JVM output, which any JVM thread may write.
std::mutex outputLock;
std::string output;

jint JNICALL hearJvm(FILE *stream, const char *format, va_list args) {
    char text[8192]; // not allocated: what the test frees is counted
    const int length = vsnprintf(text, sizeof text, format, args);
    std::lock_guard<std::mutex> hold(outputLock);
    fputs(text, stream);
    fflush(stream);
    output += text;
    return length;
}

void *openJvm() {
    const char *chosen = getenv("QOR_TEST_JDK");
    const std::string jdk = chosen ? chosen : QOR_TEST_JDK;
    for (const char *place : {"/lib/server/libjvm.so", "/jre/lib/amd64/server/libjvm.so"})
        if (void *library = dlopen((jdk + place).c_str(), RTLD_NOW | RTLD_GLOBAL))
            return library;
    fprintf(stderr, "no libjvm in %s: %s\n", jdk.c_str(), dlerror());
    abort();
}

} // namespace

void JvmTest::StartJvm(const std::vector<std::string> &options) {
    if (vm)
        return;
    std::vector<std::string> texts = {"-Xcheck:jni", "-Djava.class.path=" QOR_TEST_CLASSPATH, "-Xmx256m",
                                      "-XX:+IgnoreUnrecognizedVMOptions", "-XX:+UnlockExperimentalVMOptions"};
    texts.insert(texts.end(), options.begin(), options.end());
    std::vector<JavaVMOption> rows = {{const_cast<char *>("vfprintf"), reinterpret_cast<void *>(hearJvm)}};
    for (std::string &text : texts)
        rows.push_back({text.data(), nullptr});
    JavaVMInitArgs args = {JNI_VERSION_1_8, static_cast<jint>(rows.size()), rows.data(), JNI_FALSE};
    auto create =
        reinterpret_cast<jint (*)(JavaVM **, void **, void *)>(dlsym(openJvm(), "JNI_CreateJavaVM"));
    void *env = nullptr;
    if (create(&vm, &env, &args) != JNI_OK) {
        fprintf(stderr, "no JVM could be created\n");
        abort();
    }
    testEnv = static_cast<JNIEnv *>(env);
    TakeJvmComplaints(); // options of the environment may be announced as warnings
}

void JvmTest::SetUp() {
    ASSERT_EQ(testEnv->PushLocalFrame(512), JNI_OK);
}

void JvmTest::TearDown() {
    testEnv->PopLocalFrame(nullptr);
    EXPECT_FALSE(testEnv->ExceptionCheck()) << "an exception was left pending";
    EXPECT_EQ(TakeJvmComplaints(), "");
}

void SessionTest::SetUp() {
    JvmTest::SetUp();
    QorInitJmm();
    QorDovOnLoad(testEnv);
    ASSERT_NE(jvmti, nullptr);
}

void SessionTest::TearDown() {
    Java("Zoo", "stop");
    QorDovOnUnload(testEnv);
    JvmTest::TearDown();
}

JNIEnv *Env() {
    return testEnv;
}

// A complaint is followed by the Java stack of the native method it is about. JDK 8 complains of natives of
// its own, which is nobody's affair here.
std::string TakeJvmComplaints() {
    std::lock_guard<std::mutex> hold(outputLock);
    std::istringstream lines(output);
    output.clear();
    std::string complaints, last;
    for (std::string line; std::getline(lines, line);) {
        if (line.find("\tat sun.management.") != 0)
            complaints += last;
        const bool complains = line.find("WARNING") != line.npos || line.find("FATAL ERROR") != line.npos;
        last = complains ? line + "\n" : "";
    }
    return complaints + last;
}

jvalue CallJava(const std::string &klass, const char *method, const char *result,
                std::vector<JavaArgument> arguments) {
    testEnv->PushLocalFrame(32);
    std::string signature;
    std::vector<jvalue> words;
    for (JavaArgument &argument : arguments) {
        signature += argument.type;
        if (argument.type == "Ljava/lang/String;")
            argument.word.l = Text(argument.text);
        words.push_back(argument.word);
    }
    signature = "(" + signature + ")" + result;
    const bool isOwn = klass.find('/') == std::string::npos;
    jclass found = testEnv->FindClass((isOwn ? "qoragent/testing/" + klass : klass).c_str());
    jmethodID id = found ? testEnv->GetStaticMethodID(found, method, signature.c_str()) : nullptr;
    jvalue value = {};
    if (id && *result == 'V')
        testEnv->CallStaticVoidMethodA(found, id, words.data());
    else if (id && *result == 'J')
        value.j = testEnv->CallStaticLongMethodA(found, id, words.data());
    else if (id)
        value.l = testEnv->CallStaticObjectMethodA(found, id, words.data());
    if (testEnv->ExceptionCheck()) {
        testEnv->ExceptionDescribe();
        testEnv->ExceptionClear();
        ADD_FAILURE() << klass << "." << method << signature << " failed";
        value.l = nullptr;
    }
    jobject kept = testEnv->PopLocalFrame(*result == 'L' ? value.l : nullptr);
    if (*result == 'L')
        value.l = kept;
    return value;
}

jstring Text(const std::string &text) {
    return testEnv->NewStringUTF(text.c_str());
}

std::string TextOf(jobject string) {
    const char *chars = string ? testEnv->GetStringUTFChars(static_cast<jstring>(string), nullptr) : nullptr;
    const std::string text = chars ? chars : "";
    if (chars)
        testEnv->ReleaseStringUTFChars(static_cast<jstring>(string), chars);
    return text;
}

int64_t ZooId(const std::string &kind) {
    return Java<int64_t>("Zoo", "id", kind);
}

std::string ZooKey(const std::string &kind) {
    return std::to_string(getpid()) + "-" + std::to_string(ZooId(kind));
}

bool IsMadeByJvm(const std::string &call) {
    return call.find("$$Lambda") != std::string::npos || call.find("LambdaForm") != std::string::npos;
}

std::map<int64_t, TrueThread> ThreadTruth() {
    std::map<int64_t, TrueThread> threads;
    TrueThread *current = nullptr;
    std::istringstream text(Java<std::string>("Truth", "threads"));
    for (std::string line; std::getline(text, line);) {
        std::istringstream fields(line);
        std::string kind;
        int64_t id = 0;
        if (fields >> kind && kind == "thread") {
            fields >> id;
            current = &threads[id];
            std::getline(fields >> std::ws, current->name);
        } else {
            current->lines.push_back(line);
        }
    }
    return threads;
}

namespace {

// What a process may not keep of anything that it does often: global references, blocks, descriptors, KiB.
using Footprint = std::array<int64_t, 4>;
constexpr Footprint NOISE = {3, 3, 0, 256};

Footprint Measure() {
    return {Java<int64_t>("JvmCounts", "references", "global"), AllocatedBlocks(), OpenDescriptors(),
            static_cast<int64_t>(mallinfo2().uordblks) >> 10};
}

} // namespace

void KeepsNothing(int times, const std::function<void()> &body) {
    const auto repeat = [&](int rounds) {
        for (int i = 0; i < rounds && !testing::Test::HasFatalFailure(); i++) {
            testEnv->PushLocalFrame(512);
            body();
            testEnv->PopLocalFrame(nullptr);
        }
    };
    repeat(times / 10 + 3); // until the JVM has what it needs
    Measure();
    // The JVM itself grows and shrinks; what a round leaves makes every batch grow.
    for (int batch = 0; batch < 8; batch++) {
        const Footprint before = Measure();
        repeat(times);
        const Footprint after = Measure();
        bool isWithin = true;
        for (size_t i = 0; i < NOISE.size(); i++)
            isWithin &= after[i] <= before[i] + NOISE[i];
        if (isWithin)
            return;
        EXPECT_LT(batch, 7) << testing::PrintToString(before) << " to " << testing::PrintToString(after);
    }
}
