// The samples and the views of one thread, against what the JVM itself says.
#include "AgentNatives.h"
#include "Enricher.h"
#include "LogCapture.h"
#include "Xtier/thread_e2e_info.h"
#include "jvmti/JavaClasses.h"
#include "qorsettings.h"
#include "qorutil.h"
#include "reply/records.h"

#include <algorithm>
#include <regex>

namespace {

struct Sample : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorLockInfoLevel = 2;
    }
};

void Rules(std::string text) {
    readconditions(text.data());
}

} // namespace

TEST_F(Sample, AgreesWithWhatTheJvmSays) {
    const std::pair<std::regex, const char *> states[] = {
        {std::regex("zoo-spin"), "Runnable"},
        {std::regex("zoo-(socket-.*|(file-)?channel-read|select|datagram-receive)"), "Network Wait"},
        {std::regex("zoo-(file-(read|reader|write)|random-access-read)"), "IO Wait"},
        {std::regex("zoo-sleep"), "Sleeping"},
        {std::regex("zoo-blocked.*"), "Lock"}};
    {
        // An earlier walk over other methods leaves nothing to be found.
        ZooVisit others("holder,blocked,wait");
        AllThreads(true);
    }
    ZooVisit zoo("");
    Java("Zoo", "check");
    const qorctl::ThreadSample sample = AllThreads(true);
    EXPECT_GT(ExpectTruth(sample), 20);
    qorctl::ThreadSample stacks;
    std::set<int64_t> shown;
    for (const qorctl::Thread &thread : sample.threads) {
        shown.insert(thread.key.thread);
        if (thread.name.rfind("zoo-", 0) != 0)
            continue;
        std::string state = "Object Wait";
        for (const auto &[names, expected] : states)
            if (std::regex_match(thread.name, names))
                state = expected;
        EXPECT_EQ(thread.state, state) << thread.name;
        stacks.threads.push_back(StackOf(thread.key.Text()));
    }
    EXPECT_GT(ExpectTruth(stacks, "in the view of its stack"), 20);
    for (const auto &[id, thread] : ThreadTruth()) // "main" was in the truth's call
        EXPECT_TRUE(shown.count(id) || !thread.depth || thread.name == "main") << thread.name;

    qorLockInfoLevel = 3;
    const qorctl::ThreadSample without = AllThreads(true);
    EXPECT_TRUE(Find(without, "zoo-holder")->owns.empty());
    EXPECT_FALSE(Find(without, "zoo-blocked")->waits_for);
    gbiOptimizationLevel = 3;
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    EXPECT_NE(Ask(QORREQ_POLL_DETAILS).find(std::string(1, STATE_MARK) + "Sleeping"), std::string::npos);
}

TEST_F(Sample, ShowsActiveThreadsOnly) {
    ZooVisit zoo("");
    const auto shows = [](const qorctl::ThreadSample &sample, const char *kind) {
        return Find(sample, std::string("zoo-") + kind) != nullptr;
    };
    const auto poll = [](const char *word) { return Threads(Ask(QORREQ_POLL_DETAILS, word)); };
    const qorctl::ThreadSample active = ActiveThreads();
    for (const char *kind : {"spin", "blocked", "socket-read", "file-read"})
        EXPECT_TRUE(shows(active, kind)) << kind;
    for (const char *kind : {"sleep", "park", "wait", "accept", "lock-waiter"})
        EXPECT_FALSE(shows(active, kind)) << kind;

    // Rules: by the thread's name, by its current call, and by what isn't a user call.
    Rules("abcd|threadname|zoo-file*\nabcd|currcall|qoragent.testing.ZooRun*\nabcd|systemcall|java.\n"
          "abcd|systemcall|sun.\nabcd|systemcall|jdk.\n");
    const qorctl::ThreadSample ruled = ActiveThreads();
    EXPECT_FALSE(shows(ruled, "file-read") || shows(ruled, "spin"));
    EXPECT_EQ(Find(ruled, "zoo-socket-read")->call->class_name.rfind("qoragent.testing.", 0), 0u);
    for (const qorctl::Frame &frame : StackOf(ZooKey("park")).stack)
        EXPECT_EQ(frame.user, frame.class_name.rfind("qoragent.", 0) == 0) << frame.class_name;
    Rules("");
    // The poll filters in the same way; its word for all threads lifts the filter, as its flag does.
    EXPECT_TRUE(shows(poll("JVMALLTHREADS"), "sleep") && !shows(poll(""), "sleep"));
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    EXPECT_TRUE(shows(poll(""), "sleep") && !shows(ActiveThreads(), "sleep"));
}

TEST_F(Sample, LongStacksLoseTheirMiddle) {
    // The user call is at index 2, below two frames of the JDK.
    Rules("abcd|systemcall|java.\nabcd|systemcall|jdk.\nabcd|systemcall|sun.\n");
    const struct {
        int32_t frames, skipped, firstAfter;
    } CASES[] = {{310, 7, 160}, {1000, 697, 850}, {300, 0, 0}};
    for (const auto &c : CASES) {
        Java("Zoo", "startDeep", c.frames);
        const qorctl::ThreadSample sample = AllThreads(true);
        const auto &stack = Find(sample, "zoo-deep-" + std::to_string(c.frames))->stack;
        EXPECT_EQ(static_cast<int32_t>(stack.size()), c.frames - c.skipped + (c.skipped > 0));
        EXPECT_EQ(stack.back().index, c.frames - 1);
        if (c.skipped) {
            EXPECT_EQ(stack[153].skipped, c.skipped);
            EXPECT_EQ(stack[153].index, 153);
            EXPECT_EQ(stack[154].index, c.firstAfter);
        }
        EXPECT_EQ(static_cast<int32_t>(StackOf(ZooKey("deep-" + std::to_string(c.frames))).stack.size()),
                  c.frames);
    }
    for (int32_t recorded : {0, 2000000000, INT32_MIN}) {
        maxStackDepthRecorded = recorded;
        AllThreads(true);
    }
}

TEST_F(Sample, TracesOneThread) {
    ZooVisit zoo("holder,blocked,sleep");
    trace_single_thread_details = FLAG_TRACE_SINGLE_THREAD;
    const qorctl::ThreadSample sample = Threads(Ask(QORREQ_POLL_DETAILS, "", ZooKey("sleep")));
    ASSERT_EQ(sample.threads.size(), 1u);
    EXPECT_EQ(sample.threads[0].name, "zoo-sleep");
    EXPECT_FALSE(sample.threads[0].stack.empty());
    EXPECT_EQ(Legible(Ask(QORREQ_POLL_DETAILS, "", "1-1")), "Thread Info Details\n$\n");
    EXPECT_EQ(Legible(Ask(QORREQ_POLL_DETAILS)), "Thread Info Details\n$\n");
    EXPECT_EQ(Ask(QORREQ_THREAD_DETAILS, "", "1-1") + Ask(QORREQ_THREAD_DETAILS), "");
}

TEST_F(Sample, AFullReplyEndsAfterAWholeRecord) {
    Java("Zoo", "startMany", 60, 40);
    poll_details = FLAG_POLL_DETAILS;
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    const std::string whole = Ask(QORREQ_POLL_DETAILS);
    const qorctl::ThreadSample all = Threads(whole);
    for (int32_t size : {100, 5000, 20000, 60000, static_cast<int32_t>(whole.size())}) {
        const std::string text = Ask(QORREQ_POLL_DETAILS, "", "", size);
        EXPECT_LT(text.size(), static_cast<size_t>(size));
        const qorctl::ThreadSample cut = Threads(text);
        ASSERT_LT(cut.threads.size(), all.threads.size()) << size;
        for (size_t i = 0; i < cut.threads.size(); ++i)
            EXPECT_EQ(cut.threads[i].stack.size(), all.threads[i].stack.size()) << size;
    }
}

TEST_F(Sample, StacksThatFillTheirRoomSayWhatIsMissing) {
    Java("Zoo", "startWide", 0, 1);
    const int64_t depth = ThreadTruth().at(ZooId("wide-0")).depth;
    qorReplyIsCut = false;
    for (int32_t recorded : {1000, 400}) { // the second leaves out frames in the middle as well
        maxStackDepthRecorded = recorded;
        const qorctl::ThreadSample sample = AllThreads(true);
        int64_t next = 0, skips = 0;
        for (const qorctl::Frame &frame : Find(sample, "zoo-wide-0")->stack) {
            ASSERT_EQ(frame.index, next);
            next += frame.skipped ? frame.skipped : 1;
            skips += frame.skipped > 0;
        }
        EXPECT_EQ(next, depth) << "frames that are missing are counted";
        EXPECT_EQ(skips, recorded == 1000 ? 1 : 2);
        EXPECT_TRUE(Find(sample, "zoo-wide-0")->stack_cut);
    }
    EXPECT_FALSE(qorReplyIsCut) << "no thread is missing";
    const qorctl::Thread thread = StackOf(ZooKey("wide-0"));
    for (size_t i = 0; i < thread.stack.size(); ++i)
        ASSERT_EQ(thread.stack[i].index, static_cast<int>(i)) << "a hole";
    EXPECT_GT(thread.stack.size(), 200u);
    EXPECT_TRUE(thread.stack_cut && qorReplyIsCut);
}

TEST_F(Sample, SummaryCountsThreadsByState) {
    const auto counted = [](int figure) {
        return *qorctl::DecodeSummary(qorctl::OpenReply(Ask(QORREQ_THREAD_SUMMARY))).figures[figure];
    };
    constexpr int KINDS[] = {qorctl::THREADS_LOCK, qorctl::THREADS_NETWORK_WAIT, qorctl::THREADS_IO_WAIT,
                             qorctl::THREADS_SLEEPING};
    int64_t before[4];
    std::transform(KINDS, KINDS + 4, before, counted);
    EXPECT_LE(counted(qorctl::HEAP_PERCENT), 100);
    ZooVisit zoo("spin,holder,blocked,socket-read,file-read,sleep");
    for (int i = 0; i < 4; i++)
        EXPECT_EQ(counted(KINDS[i]), before[i] + 1) << i;
    // The JVM's own threads come and go, so that no exact gain is known of these. An idle name and an idle
    // current call both count as waiting.
    EXPECT_GE(counted(qorctl::THREADS_RUNNABLE), 1);
    const int64_t waiting = counted(qorctl::THREADS_OBJECT_WAIT);
    Rules("abcd|threadname|zoo-socket\nabcd|currcall|java.io.FileInputStream*\nabcd|threadname|zoo-spin\n");
    EXPECT_GE(counted(qorctl::THREADS_OBJECT_WAIT), waiting + 3);
}

TEST_F(Sample, ALockLeadsToItsHolder) {
    ZooVisit zoo("holder,blocked,sleep");
    const qorctl::ThreadSample sample = AllThreads(true);
    const int64_t hash = Find(sample, "zoo-blocked")->waits_for->lock;
    const std::string lock = std::to_string(hash), waiter = ZooKey("blocked");
    qorLockInfoLevel = 1;
    const std::string reply = Ask(QORREQ_LOCK_HOLDER, lock, waiter);
    const qorctl::LockHolder found = qorctl::DecodeLockHolder(qorctl::OpenReply(reply));
    ASSERT_EQ(found.answer, qorctl::LockHolder::FOUND) << reply;
    EXPECT_EQ(found.thread.key.Text(), ZooKey("holder"));
    EXPECT_EQ(CallOf(*found.thread.call), CallOf(*Find(sample, "zoo-holder")->call));
    EXPECT_EQ(found.thread.state, "Object Wait");
    // A thread that waits for another lock, or for none, leads nowhere; so does a request without its fields.
    const std::pair<std::string, std::string> NOWHERE[] = {{"1", waiter},
                                                           {std::to_string((1LL << 32) + hash), waiter},
                                                           {lock, ZooKey("sleep")},
                                                           {lock, ""},
                                                           {"", waiter}};
    for (const auto &[wanted, key] : NOWHERE)
        EXPECT_EQ(Ask(QORREQ_LOCK_HOLDER, wanted, key), "") << wanted << key;
    qorLockInfoLevel = 2; // there any lock of a waiting thread will do
    EXPECT_EQ(Ask(QORREQ_LOCK_HOLDER, "1", waiter), reply);
    qorLockInfoLevel = 3;
    EXPECT_EQ(Ask(QORREQ_LOCK_HOLDER, lock, waiter), "");
}

// While threads start and end and classes are loaded and unloaded.
TEST_F(Sample, KeepsNothing) {
    const EnricherAsked asked;
    Java("Churn", "threads");
    Java("Churn", "classes");
    const auto ended = Java<int64_t>("Churn", "count", "ended");
    const auto collected = Java<int64_t>("Churn", "count", "collected");
    ZooVisit zoo("holder,blocked,reentrant,lock-waiter,lock-holder");
    ::KeepsNothing(500, [] {
        AllThreads(false);
        AllThreads(true);
        StackOf(ZooKey("holder"));
        ActiveThreads();
        EXPECT_NE(Ask(QORREQ_THREAD_SUMMARY), "");
        EXPECT_EQ(thread_e2e_info, nullptr);
    });
    while (Java<int64_t>("Churn", "count", "ended") < ended + 10 ||
           Java<int64_t>("Churn", "count", "collected") < collected + 10)
        std::this_thread::yield();
}

TEST_F(Sample, ShowsNoMoreThreadsThanItHasRoomFor) {
    Java("Zoo", "startMany", 1500, 8);
    LogCapture log(3);
    for (int i = 0; i < 2; ++i) {
        const size_t count = AllThreads(false).threads.size();
        EXPECT_TRUE(count > 1000 && count <= 1024) << count; // those without frames are left out
    }
    EXPECT_EQ(log.count("Thread Count exceeding"), 1);
}
