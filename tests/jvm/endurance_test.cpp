// The sample over a long time, and with more threads than it shows.
#include "Descriptors.h"
#include "JvmFixture.h"
#include "LogCapture.h"
#include "RequestHandler/RequestHandler.h"
#include "SampleReply.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/records.h"

#include <fstream>
#include <unistd.h>

namespace {

constexpr char CLASS_CHURN[] = "qoragent/testing/ClassChurn";
constexpr char THREAD_CHURN[] = "qoragent/testing/ThreadChurn";

struct Endurance : SessionTest {
    void TearDown() override {
        poll_details = trace_all_threads = qorLockInfoLevel = 0;
        SessionTest::TearDown();
    }
};

// All kinds of samples, 100 in all, each of them well-formed.
void SampleHundredTimes() {
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    for (int i = 0; i < 25; ++i) {
        poll_details = FLAG_POLL_DETAILS;
        ASSERT_EQ("", SampleReply::Parse(Ask(QORREQ_POLL_DETAILS), true, true).error);
        poll_details = 0;
        ASSERT_EQ("", SampleReply::Parse(Ask(QORREQ_POLL_DETAILS), true, false).error);
        ASSERT_EQ("", SampleReply::Parse(Ask(QORREQ_ACTIVE_THREADS), false, false).error);
        ASSERT_NE("", Ask(QORREQ_THREAD_SUMMARY));
    }
}

// What the agent's samples may not make grow, in KiB and numbers. The heap of the JVM is left out.
struct Footprint {
    int64_t nativeKb, globalRefs;
    int descriptors;
};

int64_t HeapKb() {
    int64_t total = 0;
    std::ifstream maps("/proc/self/smaps");
    bool isHeap = false;
    for (std::string line; std::getline(maps, line);) {
        if (line.find('-') < 20 && line.find(' ') < 40 && line.find(':') > 20)
            isHeap = line.find("[heap]") != std::string::npos;
        else if (isHeap && line.rfind("Rss:", 0) == 0)
            total += atoll(line.c_str() + 4);
    }
    return total;
}

Footprint Measure() {
    return {HeapKb(), CallLong("qoragent/testing/JvmCounts", "globalRefs", "()J"), OpenDescriptors()};
}

} // namespace

// 10,000 samples while threads start and end and classes are loaded and unloaded.
TEST_F(Endurance, ManySamplesKeepNothing) {
    qorLockInfoLevel = 2;
    CallVoid(THREAD_CHURN, "start", "()V");
    CallVoid(CLASS_CHURN, "start", "()V");
    for (int i = 0; i < 20; ++i)
        SampleHundredTimes();
    const Footprint before = Measure();
    ASSERT_GT(before.nativeKb, 0);
    const int64_t ended = CallLong(THREAD_CHURN, "ended", "()J");
    const int64_t collected = CallLong(CLASS_CHURN, "collected", "()J");
    for (int i = 0; i < 100 && !HasFatalFailure(); ++i)
        SampleHundredTimes();
    CallVoid(THREAD_CHURN, "awaitEnded", "(J)V", static_cast<jlong>(10));
    CallVoid(CLASS_CHURN, "awaitCollected", "(J)V", static_cast<jlong>(10));
    EXPECT_GT(CallLong(THREAD_CHURN, "ended", "()J"), ended);
    EXPECT_GT(CallLong(CLASS_CHURN, "collected", "()J"), collected);
    CallVoid(CLASS_CHURN, "stop", "()V");
    CallVoid(THREAD_CHURN, "stop", "()V");
    const Footprint after = Measure();
    EXPECT_LE(after.descriptors, before.descriptors + 2);
    EXPECT_LE(after.globalRefs, before.globalRefs + 100); // the churn itself moves some
    EXPECT_LT(after.nativeKb, before.nativeKb + 4096);
}

TEST_F(Endurance, MoreThreadsThanAreShown) {
    constexpr int32_t SAMPLES = 3;
    CallVoid(ZOO, "startMany", "(II)V", 1500, 8);
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    LogCapture log(3);
    for (int32_t i = 0; i < SAMPLES; ++i) {
        const SampleReply reply = SampleReply::Parse(Ask(QORREQ_POLL_DETAILS), true, false);
        ASSERT_EQ("", reply.error);
        EXPECT_LE(reply.threads.size(), 1024u);
        EXPECT_GT(reply.threads.size(), 1000u); // those without frames are left out
    }
    EXPECT_EQ(1, log.count("Thread Count exceeding"));
    CallVoid(ZOO, "stop", "()V");
}
