// The agent as Java has it: its natives, and a start with the arguments of a test's choice.
#pragma once

#include "JvmFixture.h"

#include <thread>

extern "C" {
jint Java_qoragent_Agent_initvar(JNIEnv *, jobject, jint, jint, jint, jint, jint, jstring, jstring, jstring,
                                 jobject, jobject, jobject, jobject, jstring, jobject, jstring, jstring, jint,
                                 jint, jint, jint, jint, jint);
jstring Java_qoragent_Agent_dataFromNative(JNIEnv *, jobject, jstring);
}

struct StartArguments {
    int level = 0;
    int timeout = 10;                                                          // seconds
    const char *vendor = "Debian", *version = "17.0.1", *osName = "Linux-6.1"; // each may be null
    const char *webserver = nullptr, *logFile = "stderr", *jvmId = "test";
    int logLevel = 0, sqlLength = 4096, localsQuota = 0;
};

constexpr char NO_ANSWER[] = "(null)"; // how Ask shows a Java null
constexpr char TIMED_OUT[] = "Request TIMED OUT|\t|\t\t||";

// Starts the agent from the calling thread, whose environment is `env` (the test's when null).
int StartAgent(const StartArguments &arguments);

// Sets a setting of no effect, and what that is answered with.
std::string SettingRequest(int value);
std::string Setting(int value);
std::string SettingReply(int value);

// One request, from the thread of `env`; a null `request` is Java's null.
std::string Ask(const char *request, JNIEnv *env = nullptr);
std::string Ask(const std::string &request);

// One request from a Java thread of its own; its reply stands when the thread has ended.
std::thread AskAside(const std::string &request, std::string *reply);

// Makes the agent leave and waits until it has.
void ShutDownAgent();

// The worker stays in its next sample until it is let go, by the end of the scope at the latest.
struct HeldWorker {
    HeldWorker();
    ~HeldWorker();
    static void let();

private:
    jclass real_; // the class that it asks otherwise
};

// Live Java threads that bear the worker's name.
int Workers();

// Tests with a small heap that is there from the start, so that memory that grows is the agent's.
class AgentTest : public JvmTest {
public:
    static void SetUpTestSuite();

protected:
    void TearDown() override;
};
