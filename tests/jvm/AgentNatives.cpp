#include "AgentNatives.h"

#include "qoragent/requests/channel.h"
#include "qorsettings.h"

#include <chrono>
#include <thread>

namespace {

jstring OrNull(const char *text) {
    return text ? Text(text) : nullptr;
}

} // namespace

int StartAgent(const StartArguments &a) {
    Env()->PushLocalFrame(32);
    jobject sample = Text("sample");
    const int status = Java_qoragent_Agent_initvar(
        Env(), nullptr, a.logLevel, a.level, 30, a.timeout, 0, OrNull(a.vendor), OrNull(a.version),
        OrNull(a.osName), sample, sample, sample, sample, OrNull(a.webserver), nullptr, OrNull(a.logFile),
        OrNull(a.jvmId), 1, 0, a.sqlLength, a.localsQuota, 1000, 300);
    Env()->PopLocalFrame(nullptr);
    return status;
}

std::string Ask(const char *request, JNIEnv *env) {
    env = env ? env : Env();
    jstring text = request ? env->NewStringUTF(request) : nullptr;
    jstring reply = Java_qoragent_Agent_dataFromNative(env, nullptr, text);
    std::string shown = NO_ANSWER;
    if (reply) {
        const char *chars = env->GetStringUTFChars(reply, nullptr);
        shown = chars;
        env->ReleaseStringUTFChars(reply, chars);
    }
    env->DeleteLocalRef(text);
    env->DeleteLocalRef(reply);
    return shown;
}

std::string Ask(const std::string &request) {
    return Ask(request.c_str());
}

std::thread AskAside(const std::string &request, std::string *reply) {
    JavaVM *vm = nullptr;
    Env()->GetJavaVM(&vm);
    return std::thread([=] {
        void *env = nullptr;
        vm->AttachCurrentThread(&env, nullptr);
        *reply = Ask(request.c_str(), static_cast<JNIEnv *>(env));
        vm->DetachCurrentThread();
    });
}

void ShutDownAgent() {
    EXPECT_EQ(Ask("SHUTDOWN"), NO_ANSWER);
    for (int i = 0; i < 60000 && agentstatus != 0; i++)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    EXPECT_EQ(agentstatus, 0) << "the worker has not left";
}

int Workers() {
    int count = 0;
    for (const auto &entry : ThreadTruth())
        count += entry.second.name == "QORD Agent Worker";
    return count;
}

void AgentTest::SetUpTestSuite() {
    StartJvm({"-Xms48m", "-Xmx48m", "-XX:+UseSerialGC", "-XX:+AlwaysPreTouch"});
}

void AgentTest::TearDown() {
    if (pipe_fd_PP[1] >= 0 && QorOnJvmtiRoad() && Workers() > 0)
        ShutDownAgent();
    JvmTest::TearDown();
}
