// The request channel without a JVM: callers on several threads and the worker, driven against each other.
#include "NoNatives.h"
#include "QorOS.h"
#include "platforms/qorsysinfo.h"
#include "qoragent/caller.h"
#include "qoragent/requests/channel.h"
#include "qoragent/worker.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <atomic>
#include <gtest/gtest.h>
#include <string>
#include <thread>
#include <vector>

namespace {

// As much of an environment as a request needs: strings, which are C++'s.
JNIEnv *FakeEnv() {
    static JNINativeInterface_ calls = NoNatives();
    calls.GetStringUTFChars = [](JNIEnv *, jstring text, jboolean *) {
        return reinterpret_cast<const std::string *>(text)->c_str();
    };
    calls.NewStringUTF = [](JNIEnv *, const char *text) {
        return reinterpret_cast<jstring>(new std::string(text));
    };
    static JNIEnv env = {&calls};
    return &env;
}

std::string Ask(JNIEnv *env, std::string request) {
    auto *reply =
        reinterpret_cast<std::string *>(QorDataFromNative(env, reinterpret_cast<jstring>(&request)));
    const std::string shown = reply ? *reply : "(null)";
    delete reply;
    return shown;
}

struct Channel : testing::Test {
    void SetUp() override {
        init_cpu();
        pagebuf = static_cast<char *>(QorMalloc(PAGEBUF_SIZE));
        offsetind = BUILD_JVMTI_DEFAULT;
        qor_max_timeout = 60;
        ch_pid = 0;
        ASSERT_TRUE(QorOpenChannel());
        ASSERT_EQ(qor_create_child_thread(&thread), 0);
    }
    void TearDown() override {
        EXPECT_EQ(Ask(env, "SHUTDOWN"), "(null)");
        while (QorWorkerLives())
            std::this_thread::yield();
        QorCloseChannel();
        offsetind = 0;
    }
    JNIEnv *env = FakeEnv();
};

} // namespace

TEST_F(Channel, EachCallerGetsItsOwnReply) {
    std::atomic<bool> stop{false};
    std::thread disturber([&] {
        for (; !stop; std::this_thread::yield())
            QorSignalParent(); // nobody's reply
    });
    std::vector<std::thread> callers;
    for (int caller = 0; caller < 3; caller++)
        callers.emplace_back([this, caller] {
            for (int i = 0; i < 200; i++) {
                const std::string value = std::to_string(caller * 1000 + i);
                ASSERT_EQ(Ask(env, "516|NoProcessing|qorretry|" + value), "Changed qorretry to " + value);
            }
        });
    for (std::thread &caller : callers)
        caller.join();
    stop = true;
    disturber.join();
}

// Callers that give up at the very moment at which the worker comes: it takes their request whole or not at
// all.
TEST_F(Channel, NoRequestIsTorn) {
    qorretry = 0;
    for (int i = 0; i < 2000; i++) {
        QorPostRequest(i % 2 ? "516|NoProcessing|qorretry|1111" : "516|NoProcessing|qorretry|2222");
        qor_signal_child_to_process();
        QorWithdrawRequest();
    }
    EXPECT_EQ(Ask(env, "516|NoProcessing|CZPRequest"), "");
    EXPECT_TRUE(qorretry == 0 || qorretry == 1111 || qorretry == 2222) << qorretry;
}
