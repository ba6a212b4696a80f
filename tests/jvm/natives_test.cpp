#include "AgentNatives.h"
#include "Xtier/thread_e2e_info.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorrequest.h"

#include <regex>
#include <sys/syscall.h>

namespace {

struct Natives : AgentTest {
    void SetUp() override { ASSERT_EQ(StartAgent(StartArguments()), 0); }
};

// A list as a sample would leave it, with the test's thread.
void ListThisThread() {
    jthread thread = Java<jobject>("Truth", "currentThread");
    QorThreadHandle handle = {};
    handle.threads = &thread;
    QorThreadRecord record = {};
    QorAddE2EBlock(Env(), &handle, &record, 1);
}

} // namespace

TEST_F(Natives, FiguresAgreeWithTheSystem) {
    Setting(1); // the worker is there
    const int64_t worker = Java_qoragent_Agent_getAgentWorkerThreadId(Env(), nullptr);
    EXPECT_EQ(ThreadTruth().at(worker).name, "QORD Agent Worker");
    EXPECT_EQ(Java_qoragent_Agent_getCurrentThreadOsId(Env(), nullptr), syscall(SYS_gettid));
    EXPECT_GT(std::stoll(TextOf(Java_qoragent_Agent_getProcessContextSwitchCount(Env(), nullptr))), 0);
    // machine 29 process 29 31 switches 31 delay 31 time
    const std::string cpu = TextOf(Java_qoragent_Agent_getCpuData(Env(), nullptr));
    EXPECT_TRUE(std::regex_match(cpu, std::regex("[0-9]+\x1d[0-9]+\x1d\x1f[0-9]+\x1f[0-9]{1,4}\x1f"
                                                 "1[0-9]{9}[0-9]{2}")))
        << cpu;
    EXPECT_EQ(Java_qoragent_Agent_loadJavaAgent(Env(), nullptr, nullptr), -1);
    EXPECT_EQ(Java_qoragent_Agent_loadJavaAgent(Env(), nullptr, Text("/nowhere/agent.jar=x")), 0);
    const std::string addresses = TextOf(Java_qoragent_Agent_addvips(Env(), nullptr));
    EXPECT_TRUE(std::regex_match(addresses, std::regex("([0-9]+(\\.[0-9]+){3},[^,]+,)*"))) << addresses;
}

// The list of the last sample is handed out once, and only for a request that carried thread data.
TEST_F(Natives, ThreadObjectsAreHandedOutOnce) {
    ListThisThread();
    reqid = QORREQ_THREAD_SUMMARY;
    EXPECT_EQ(Java_qoragent_Agent_getThreadObjects(Env(), nullptr), nullptr);
    EXPECT_EQ(thread_e2e_info, nullptr);

    ListThisThread();
    reqid = QORREQ_ACTIVE_THREADS;
    jobjectArray threads = Java_qoragent_Agent_getThreadObjects(Env(), nullptr);
    ASSERT_EQ(Env()->GetArrayLength(threads), 1);
    EXPECT_TRUE(Env()->IsSameObject(Env()->GetObjectArrayElement(threads, 0),
                                    Java<jobject>("Truth", "currentThread")));
    EXPECT_EQ(thread_e2e_info, nullptr);
}
