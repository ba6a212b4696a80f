// The samples and the views of one thread, against what the JVM itself says.
#include "AgentNatives.h"
#include "LogCapture.h"
#include "Replies.h"
#include "jvmti/threads/ThreadSystem.h"
#include "qorutil.h"
#include "reply/records.h"

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
        {std::regex("zoo-(socket-.*|(file-)?channel-read|select)"), "Network Wait"},
        {std::regex("zoo-file-(read|write)"), "IO Wait"},
        {std::regex("zoo-sleep"), "Sleeping"},
        {std::regex("zoo-blocked.*"), "Lock"}};
    {
        // An earlier walk over other methods leaves nothing to be found.
        ZooVisit others("holder,blocked,wait");
        AllThreads(true);
    }
    ZooVisit zoo("");
    const qorctl::ThreadSample sample = AllThreads(true);
    EXPECT_GT(ExpectTruth(sample), 20);
    const qorctl::ThreadSample active = ActiveThreads();
    qorctl::ThreadSample stacks;
    std::set<int64_t> shown;
    std::map<std::string, int64_t> counts;
    for (const qorctl::Thread &thread : sample.threads) {
        shown.insert(thread.key.thread);
        counts[thread.state]++;
        if (thread.name.rfind("zoo-", 0) != 0)
            continue;
        std::string state = "Object Wait";
        for (const auto &[names, expected] : states)
            if (std::regex_match(thread.name, names))
                state = expected;
        EXPECT_EQ(thread.state, state) << thread.name;
        const bool isActive = state != "Object Wait" && state != "Sleeping";
        EXPECT_EQ(Find(active, thread.name) != nullptr, isActive) << thread.name;
        stacks.threads.push_back(StackOf(thread.key.Text()));
    }
    EXPECT_GT(ExpectTruth(stacks), 20);
    for (const auto &[id, thread] : ThreadTruth()) // "main" was in the truth's call
        EXPECT_TRUE(shown.count(id) || thread.lines.empty() || thread.name == "main") << thread.name;
    const auto summary = qorctl::DecodeSummary(qorctl::OpenReply(Ask(QORREQ_THREAD_SUMMARY)));
    const std::pair<int, const char *> FIGURES[] = {{qorctl::THREADS_LOCK, "Lock"},
                                                    {qorctl::THREADS_NETWORK_WAIT, "Network Wait"},
                                                    {qorctl::THREADS_IO_WAIT, "IO Wait"},
                                                    {qorctl::THREADS_SLEEPING, "Sleeping"}};
    for (const auto &[figure, state] : FIGURES)
        EXPECT_EQ(*summary.figures[figure], counts[state]) << state;
    EXPECT_LE(*summary.figures[qorctl::HEAP_PERCENT], 100);

    qorLockInfoLevel = 3;
    const qorctl::ThreadSample without = AllThreads(true);
    EXPECT_TRUE(Find(without, "zoo-holder")->owns.empty());
    EXPECT_FALSE(Find(without, "zoo-blocked")->waits_for);
    gbiOptimizationLevel = 3;
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    EXPECT_NE(Ask(QORREQ_POLL_DETAILS).find(std::string(1, STATE_MARK) + "Sleeping"), std::string::npos);
}

TEST_F(Sample, RulesAndPollsSayWhoIsShown) {
    ZooVisit zoo("spin,socket-read,sleep");
    const auto poll = [](const char *word) { return Threads(Ask(QORREQ_POLL_DETAILS, word)); };
    // By the current call, which is the first one of no system class.
    Rules("abcd|currcall|qoragent.testing.ZooRun*\nabcd|systemcall|java.\nabcd|systemcall|sun.\n"
          "abcd|systemcall|jdk.\n");
    const qorctl::ThreadSample ruled = ActiveThreads();
    EXPECT_FALSE(Find(ruled, "zoo-spin"));
    EXPECT_EQ(Find(ruled, "zoo-socket-read")->call->class_name.rfind("qoragent.testing.", 0), 0u);
    Rules("");
    // The poll filters in the same way; its word for all threads lifts the filter, as its flag does.
    EXPECT_TRUE(Find(poll("JVMALLTHREADS"), "zoo-sleep") && !Find(poll(""), "zoo-sleep"));
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    EXPECT_TRUE(Find(poll(""), "zoo-sleep") && !Find(ActiveThreads(), "zoo-sleep"));
}

TEST_F(Sample, LongStacksLoseTheirMiddle) {
    // The user call is at index 2, below two frames of the JDK.
    Rules("abcd|systemcall|java.\nabcd|systemcall|jdk.\nabcd|systemcall|sun.\n");
    const struct {
        int32_t frames, skipped, firstAfter;
    } CASES[] = {{310, 7, 160}, {700, 397, 550}, {300, 0, 0}};
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
    Java("Zoo", "startDeep", 1100);
    const std::pair<int32_t, int32_t> DEPTHS[] = {{1000, 1000}, {5000, MAX_FRAMES}, {7, 7}};
    for (const auto &[asked, read] : DEPTHS) {
        maxStackDepthQueried = asked;
        EXPECT_EQ(Find(AllThreads(true), "zoo-deep-1100")->stack.back().index + 1, read);
    }
    for (int32_t recorded : {0, 2000000000, INT32_MIN}) {
        maxStackDepthRecorded = recorded;
        AllThreads(true);
    }
    for (const int32_t none : {0, -1}) {
        maxStackDepthQueried = none;
        EXPECT_TRUE(AllThreads(true).threads.empty());
    }
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
    Java("Zoo", "startDeep", 990);
    qorReplyIsCut = false;
    maxStackDepthRecorded = 1000;
    const qorctl::ThreadSample sample = AllThreads(true);
    int64_t next = 0, skips = 0;
    for (const qorctl::Frame &frame : Find(sample, "zoo-deep-990")->stack) {
        ASSERT_EQ(frame.index, next);
        next += frame.skipped ? frame.skipped : 1;
        skips += frame.skipped > 0;
    }
    EXPECT_EQ(next, 990) << "frames that are missing are counted";
    EXPECT_EQ(skips, 1);
    EXPECT_TRUE(Find(sample, "zoo-deep-990")->stack_cut);
    EXPECT_FALSE(qorReplyIsCut) << "no thread is missing";
    const qorctl::Thread thread = StackOf(ZooKey("deep-990"));
    for (size_t i = 0; i < thread.stack.size(); ++i)
        ASSERT_EQ(thread.stack[i].index, static_cast<int>(i)) << "a hole";
    EXPECT_GT(thread.stack.size(), 200u);
    EXPECT_TRUE(thread.stack_cut && qorReplyIsCut);
}

TEST_F(Sample, ALockLeadsToItsHolder) {
    ZooVisit zoo("holder,blocked,sleep");
    const qorctl::ThreadSample sample = AllThreads(true);
    const std::string lock = std::to_string(Find(sample, "zoo-blocked")->waits_for->lock);
    const std::string waiter = ZooKey("blocked");
    qorLockInfoLevel = 1;
    const std::string reply = Ask(QORREQ_LOCK_HOLDER, lock, waiter);
    const qorctl::LockHolder found = qorctl::DecodeLockHolder(qorctl::OpenReply(reply));
    ASSERT_EQ(found.answer, qorctl::LockHolder::FOUND) << reply;
    EXPECT_EQ(found.thread.key.Text(), ZooKey("holder"));
    EXPECT_EQ(CallOf(*found.thread.call), CallOf(*Find(sample, "zoo-holder")->call));
    EXPECT_EQ(found.thread.state, "Object Wait");
    // A thread that waits for another lock, or for none, leads nowhere; so does a request without its fields.
    EXPECT_EQ(Ask(QORREQ_LOCK_HOLDER, "1", waiter) + Ask(QORREQ_LOCK_HOLDER, lock, ZooKey("sleep")) +
                  Ask(QORREQ_LOCK_HOLDER, lock) + Ask(QORREQ_LOCK_HOLDER, "", waiter),
              "");
    qorLockInfoLevel = 2; // there any lock of a waiting thread will do
    EXPECT_EQ(Ask(QORREQ_LOCK_HOLDER, "1", waiter), reply);
    qorLockInfoLevel = 3;
    EXPECT_EQ(Ask(QORREQ_LOCK_HOLDER, lock, waiter), "");
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

TEST_F(Sample, NamesCarryNoCharacterOfTheRecordFormat) {
    ZooVisit zoo("park");
    const std::string many(NAME_SIZE - 11, 'n'); // the last character would be torn
    Java("Zoo", "rename", "park", "zoo-a\x1c\x1d\x1e\x1fz" + many + "\xc3\xa9");
    EXPECT_TRUE(Find(AllThreads(false), "zoo-a    z" + many));
}
