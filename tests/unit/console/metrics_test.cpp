#include "metrics/openmetrics.h"

#include <gtest/gtest.h>

using namespace qorctl;

TEST(Metrics, LabelsAreFewAndSafe) {
    JvmReading jvm, silent;
    jvm.up = true;
    jvm.labels = {"bob", "a\"b\\c\n", "7-1"};
    silent.labels.id = "8-1";
    for (int i = 0; i < 60; ++i) {
        Thread thread;
        thread.waits_for = LockWait();
        thread.waits_for->class_name = "Lock" + std::to_string(i % 56);
        thread.request_url = "/a/" + std::to_string(i) + "/b2c;jsessionid=1?q=" + std::to_string(i);
        jvm.sample.threads.push_back(thread);
    }
    const std::string text = OpenMetricsText({jvm, silent});
    const auto has = [&](const std::string &line) { return text.find(line + "\n") != text.npos; };
    const std::string labels = R"({jvm="7-1",user="bob",main="a\"b\\c\\x0a")";
    EXPECT_TRUE(has("qor_web_requests" + labels + R"(,url="/a/{n}/b{n}c"} 60)")) << text;
    EXPECT_TRUE(has("qor_lock_waiters" + labels + R"(,class="Lock0"} 2)"));
    EXPECT_TRUE(has("qor_lock_waiters" + labels + R"(,class="other"} 6)"));
    EXPECT_TRUE(has(R"(qor_up{jvm="8-1",user="",main=""} 0)"));
    EXPECT_EQ(text.find("8-1", text.find("qor_threads")), text.npos);
    EXPECT_EQ(DatabaseLabel("jdbc:a://h:1/shop?password=x"), "jdbc:a://h:1/shop");
}
