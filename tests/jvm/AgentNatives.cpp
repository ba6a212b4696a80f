#include "AgentNatives.h"

#include "jvmti/JavaClasses.h"
#include "jvmti/JniCalls.h"
#include "platforms/linux.h"
#include "qoragent/requests/channel.h"
#include "qoragent/worker.h"

#include <chrono>

namespace {

jstring OrNull(const char *text) {
    return text ? Text(text) : nullptr;
}

} // namespace

int StartAgent(const StartArguments &a) {
    const QorLocalFrame references(Env(), 32);
    jobject sample = Text("sample");
    return Java_qoragent_Agent_initvar(Env(), nullptr, a.logLevel, a.level, 30, a.timeout, 0,
                                       OrNull(a.vendor), OrNull(a.version), OrNull(a.osName), sample, sample,
                                       sample, sample, OrNull(a.webserver), nullptr, OrNull(a.logFile),
                                       OrNull(a.jvmId), 1, 0, a.sqlLength, a.localsQuota, 1000, 300);
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
    return std::thread([=] { // not by jr_jvm, which a start makes anew
        void *env = nullptr;
        qor_vm->AttachCurrentThread(&env, nullptr);
        *reply = Ask(request.c_str(), static_cast<JNIEnv *>(env));
        qor_vm->DetachCurrentThread();
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
    Java("Zoo", "stop");
    if (pipe_fd_PP[1] >= 0 && QorOnJvmtiRoad() && Workers() > 0)
        ShutDownAgent();
    JvmTest::TearDown();
}

HeldWorker::HeldWorker() : real_(e2eclass) {
    jclass busy = Env()->FindClass("qoragent/testing/Enricher");
    e2eclass = static_cast<jclass>(Env()->NewGlobalRef(busy));
    Env()->DeleteLocalRef(busy);
    Java("Enricher", "hold");
}

HeldWorker::~HeldWorker() {
    let();
    while (qor_can_read_internal(pipe_fd_PP[0], 0) || workerBusy != 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    Env()->DeleteGlobalRef(e2eclass);
    e2eclass = real_;
}

void HeldWorker::let() {
    Java("Enricher", "let");
}

std::string SettingRequest(int value) {
    return "516|NoProcessing|qorretry|" + std::to_string(value);
}

std::string Setting(int value) {
    return Ask(SettingRequest(value));
}

std::string SettingReply(int value) {
    return "Changed qorretry to " + std::to_string(value);
}
