#include "JvmFixture.h"
#include "jvmti/threads/MonitorMemo.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <dlfcn.h>
#include <mutex>
#include <sstream>
#include <unistd.h>

namespace {

JavaVM *vm;
JNIEnv *testEnv;

// JVM output, which any JVM thread may write: the line in hand, the line before it when that complains, and
// the complaints so far.
std::mutex outputLock;
std::string outputLine, lastComplaint, complaints;

// What -Xcheck:jni says begins with one of these.
bool isComplaint(const std::string &line) {
    return line.find("WARNING") != std::string::npos || line.find("FATAL ERROR") != std::string::npos;
}

// A complaint is followed by the Java stack of the native method it is about. JDK 8 complains of natives of
// its own, which is nobody's affair here.
bool isOfTheJdk(const std::string &firstFrame) {
    return firstFrame.find("\tat sun.management.") == 0;
}

void hearLine(const std::string &line) {
    if (!lastComplaint.empty() && !isOfTheJdk(line))
        complaints += lastComplaint;
    lastComplaint = isComplaint(line) ? line : "";
}

jint JNICALL hearJvm(FILE *stream, const char *format, va_list args) {
    va_list again;
    va_copy(again, args);
    const int length = vsnprintf(nullptr, 0, format, again);
    va_end(again);
    std::string text(static_cast<size_t>(length) + 1, 0);
    vsnprintf(text.data(), text.size(), format, args);
    text.pop_back();
    std::lock_guard<std::mutex> hold(outputLock);
    fputs(text.c_str(), stream);
    fflush(stream);
    for (char c : text) {
        outputLine += c;
        if (c != '\n')
            continue;
        hearLine(outputLine);
        outputLine.clear();
    }
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

// A static method ready to be called; fails the test when it isn't there.
struct StaticCall {
    StaticCall(const char *className, const char *name, const char *signature) {
        testEnv->PushLocalFrame(16);
        klass = testEnv->FindClass(className);
        if (klass)
            method = testEnv->GetStaticMethodID(klass, name, signature);
        if (!method)
            fail(className, name);
    }
    ~StaticCall() { testEnv->PopLocalFrame(nullptr); }

    void fail(const char *className, const char *name) {
        if (testEnv->ExceptionCheck()) {
            testEnv->ExceptionDescribe();
            testEnv->ExceptionClear();
        }
        ADD_FAILURE() << className << "." << name << " failed";
    }

    bool check(const char *className, const char *name) {
        const bool threw = testEnv->ExceptionCheck();
        if (threw)
            fail(className, name);
        return !threw;
    }

    jclass klass = nullptr;
    jmethodID method = nullptr;
};

std::vector<std::string> split(const std::string &line, char separator) {
    std::vector<std::string> fields;
    std::istringstream in(line);
    for (std::string field; std::getline(in, field, separator);)
        fields.push_back(field);
    return fields;
}

int64_t hex(const std::string &text) {
    return static_cast<int64_t>(std::stoull(text, nullptr, 16));
}

} // namespace

void JvmTest::StartJvm(const std::vector<std::string> &options) {
    if (vm)
        return;
    std::vector<std::string> texts = {"-Xcheck:jni", "-Djava.class.path=" QOR_TEST_CLASSPATH, "-Xmx256m"};
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
    framePushed_ = testEnv->PushLocalFrame(64) == JNI_OK;
}

void JvmTest::TearDown() {
    if (framePushed_)
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
    QorDropMemo();
    QorDovOnUnload(testEnv);
    JvmTest::TearDown();
}

JNIEnv *Env() {
    return testEnv;
}

std::string TakeJvmComplaints() {
    std::lock_guard<std::mutex> hold(outputLock);
    std::string taken = complaints + lastComplaint;
    complaints.clear();
    lastComplaint.clear();
    return taken;
}

std::string CallText(const char *klass, const char *method, const char *signature, ...) {
    StaticCall call(klass, method, signature);
    if (!call.method)
        return "";
    va_list args;
    va_start(args, signature);
    jobject result = testEnv->CallStaticObjectMethodV(call.klass, call.method, args);
    va_end(args);
    return call.check(klass, method) && result ? TextOf(result) : "";
}

int64_t CallLong(const char *klass, const char *method, const char *signature, ...) {
    StaticCall call(klass, method, signature);
    if (!call.method)
        return -1;
    va_list args;
    va_start(args, signature);
    const jlong result = testEnv->CallStaticLongMethodV(call.klass, call.method, args);
    va_end(args);
    return call.check(klass, method) ? result : -1;
}

jobject CallObject(const char *klass, const char *method, const char *signature, ...) {
    jobject kept = nullptr;
    {
        StaticCall call(klass, method, signature);
        if (!call.method)
            return nullptr;
        va_list args;
        va_start(args, signature);
        jobject result = testEnv->CallStaticObjectMethodV(call.klass, call.method, args);
        va_end(args);
        if (call.check(klass, method))
            kept = testEnv->NewGlobalRef(result);
    }
    jobject local = testEnv->NewLocalRef(kept);
    testEnv->DeleteGlobalRef(kept);
    return local;
}

void CallVoid(const char *klass, const char *method, const char *signature, ...) {
    StaticCall call(klass, method, signature);
    if (!call.method)
        return;
    va_list args;
    va_start(args, signature);
    testEnv->CallStaticVoidMethodV(call.klass, call.method, args);
    va_end(args);
    call.check(klass, method);
}

jstring Text(const std::string &text) {
    return testEnv->NewStringUTF(text.c_str());
}

std::string TextOf(jobject string) {
    const char *chars = testEnv->GetStringUTFChars(static_cast<jstring>(string), nullptr);
    std::string text = chars;
    testEnv->ReleaseStringUTFChars(static_cast<jstring>(string), chars);
    return text;
}

ZooVisit::ZooVisit(const char *kinds) {
    jstring names = Text(kinds);
    CallVoid(ZOO, "start", "(Ljava/lang/String;)V", names);
    testEnv->DeleteLocalRef(names);
}

ZooVisit::~ZooVisit() {
    CallVoid(ZOO, "stop", "()V");
}

bool IsMadeByJvm(const std::string &call) {
    return call.find("$$Lambda") != std::string::npos || call.find("LambdaForm") != std::string::npos;
}

std::map<int64_t, TrueThread> ThreadTruth() {
    std::map<int64_t, TrueThread> threads;
    TrueThread *current = nullptr;
    for (const std::string &line : split(CallText(TRUTH, "threads", "()Ljava/lang/String;"), '\n')) {
        const std::vector<std::string> field = split(line, '\t');
        if (field[0] == "thread") {
            current = &threads[std::stoll(field[1])];
            current->id = std::stoll(field[1]);
            current->name = field[2];
            current->state = field[3];
        } else if (field[0] == "frame") {
            current->frames.push_back({field[2], field[3], std::stoi(field[4])});
        } else if (field[0] == "owned") {
            current->owned.push_back({std::stoi(field[1]), field[2], hex(field[3]), current->id});
        } else if (field[0] == "wants") {
            current->wanted.push_back({-1, field[1], hex(field[2]), std::stoll(field[3])});
        }
    }
    return threads;
}
