#include "AgentNatives.h"
#include "RequestHandler/RequestHandler.h"
#include "SampleReply.h"
#include "Xtier/thread_e2e_info.h"
#include "jvmti/JavaClasses.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "qorutil.h"
#include "reply/records.h"

#include <algorithm>
#include <functional>
#include <sstream>
#include <unistd.h>

namespace {

struct Sample : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorLockInfoLevel = 2;
    }
    void TearDown() override {
        poll_details = trace_all_threads = trace_single_thread_details = 0;
        qorLockInfoLevel = 0;
        gbiOptimizationLevel = 0;
        readconditions(nullptr);
        SessionTest::TearDown();
    }
};

SampleReply AskDetails() {
    poll_details = FLAG_POLL_DETAILS;
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    return SampleReply::Parse(Ask(QORREQ_POLL_DETAILS), true, true);
}

void Rules(const std::string &text) {
    std::string copy = text;
    readconditions(copy.data());
}

std::string Describe(const TrueLock &lock) {
    return lock.className + "@" + std::to_string(lock.hash);
}

void ExpectSameFrames(const TrueThread &truth, const SampleThread &shown) {
    std::vector<TrueFrame> expected;
    for (const TrueFrame &frame : truth.frames)
        if (!IsMadeByJvm(frame.call))
            expected.push_back(frame);
    size_t next = 0;
    for (size_t i = 0; i < shown.frames.size(); ++i) {
        const SampleFrame &frame = shown.frames[i];
        EXPECT_EQ(static_cast<int64_t>(i), frame.index) << truth.name;
        EXPECT_EQ(truth.id, frame.thread) << truth.name;
        if (IsMadeByJvm(frame.call))
            continue;
        ASSERT_LT(next, expected.size()) << truth.name << " has no such frame: " << frame.call;
        EXPECT_EQ(expected[next].call, frame.call) << truth.name << " frame " << i;
        if (expected[next].line > 0) {
            EXPECT_EQ(expected[next].file, frame.file) << truth.name << " frame " << i;
            EXPECT_EQ(std::to_string(expected[next].line), frame.line) << truth.name << " frame " << i;
        } else {
            EXPECT_EQ("Native Method", frame.file) << truth.name << " frame " << i;
            EXPECT_EQ("^", frame.line) << truth.name << " frame " << i;
        }
        ++next;
    }
    EXPECT_EQ(expected.size(), next) << truth.name;
}

void ExpectSameLocks(const TrueThread &truth, const SampleThread &shown) {
    ASSERT_EQ(truth.owned.size(), shown.owned.size()) << truth.name;
    for (size_t i = 0; i < truth.owned.size(); ++i) {
        EXPECT_EQ(Describe(truth.owned[i]), shown.owned[i].description) << truth.name;
        EXPECT_EQ(truth.owned[i].hash, shown.owned[i].id) << truth.name;
        EXPECT_EQ(truth.owned[i].depth, shown.owned[i].depth) << truth.name;
    }
    std::vector<TrueLock> heldByOthers;
    for (const TrueLock &lock : truth.wanted)
        if (lock.owner > 0)
            heldByOthers.push_back(lock);
    ASSERT_EQ(heldByOthers.size(), shown.wanted.size()) << truth.name;
    for (size_t i = 0; i < heldByOthers.size(); ++i) {
        EXPECT_EQ(Describe(heldByOthers[i]), shown.wanted[i].description) << truth.name;
        EXPECT_EQ(heldByOthers[i].hash, shown.wanted[i].id) << truth.name;
        EXPECT_EQ(std::to_string(getpid()) + "-" + std::to_string(heldByOthers[i].owner),
                  shown.wanted[i].owner);
    }
}

// The thirteen numbers of the summary line.
std::vector<int64_t> AskSummary() {
    std::vector<int64_t> numbers;
    std::istringstream line(Ask(QORREQ_THREAD_SUMMARY));
    for (std::string field; std::getline(line, field, FIELD_SEP);)
        numbers.push_back(atoll(field.c_str()));
    EXPECT_EQ(13u, numbers.size());
    numbers.resize(13);
    return numbers;
}

} // namespace

TEST_F(Sample, DetailsAgreeWithWhatTheJvmSays) {
    ZooVisit zoo("");
    CallVoid(ZOO, "check", "()V");
    const std::map<int64_t, TrueThread> truth = ThreadTruth();
    const SampleReply reply = AskDetails();
    ASSERT_EQ("", reply.error);
    EXPECT_EQ("Thread Info Details", reply.title);

    size_t compared = 0;
    std::set<int64_t> shown;
    for (const SampleThread &thread : reply.threads) {
        shown.insert(thread.id());
        if (thread.name.compare(0, 4, "zoo-") != 0 || thread.name == "zoo-spin")
            continue;
        ASSERT_EQ(1u, truth.count(thread.id())) << thread.name;
        const TrueThread &expected = truth.at(thread.id());
        EXPECT_EQ(expected.name, thread.name);
        ExpectSameFrames(expected, thread);
        ExpectSameLocks(expected, thread);
        ++compared;
    }
    EXPECT_GT(compared, 20u);
    for (const auto &[id, thread] : truth) {
        const bool mayBeMissing =
            thread.frames.empty() || thread.name == "main"; // "main" stood in the truth's call
        EXPECT_TRUE(shown.count(id) || mayBeMissing) << thread.name << " is missing";
    }
    EXPECT_EQ("Lock", reply.Find("zoo-blocked")->state);
    EXPECT_EQ("Sleeping", reply.Find("zoo-sleep")->state);
    EXPECT_EQ("IO Wait", reply.Find("zoo-file-read")->state);
    EXPECT_EQ("Network Wait", reply.Find("zoo-socket-read")->state);
}

TEST_F(Sample, LocksAreLeftOutWhereNobodySeesThem) {
    ZooVisit zoo("holder,blocked");
    qorLockInfoLevel = 3;
    const SampleReply without = AskDetails();
    ASSERT_EQ("", without.error);
    EXPECT_TRUE(without.Find("zoo-holder")->owned.empty());
    EXPECT_TRUE(without.Find("zoo-blocked")->wanted.empty());
    poll_details = 0;
    qorLockInfoLevel = 2;
    const SampleReply plain = SampleReply::Parse(Ask(QORREQ_POLL_DETAILS), true, false);
    ASSERT_EQ("", plain.error);
    EXPECT_EQ("JVM Active Threads", plain.title);
    EXPECT_EQ("a", plain.Find("zoo-holder")->marker);
}

TEST_F(Sample, ShowsActiveThreadsOnly) {
    ZooVisit zoo("");
    const auto active = [] { return SampleReply::Parse(Ask(QORREQ_ACTIVE_THREADS), false, false); };
    const SampleReply reply = active();
    ASSERT_EQ("", reply.error);
    EXPECT_EQ("JVM Active Threads", reply.title);
    for (const char *name : {"zoo-spin", "zoo-blocked", "zoo-socket-read", "zoo-file-read"})
        EXPECT_NE(nullptr, reply.Find(name)) << name;
    for (const char *name : {"zoo-sleep", "zoo-park", "zoo-wait", "zoo-accept", "zoo-lock-waiter"})
        EXPECT_EQ(nullptr, reply.Find(name)) << name;

    // Rules: by the thread's name, by its current call, and by what is no user call.
    Rules("abcd|threadname|zoo-file*\nabcd|currcall|qoragent.testing.ZooRun*\nabcd|systemcall|java.\n"
          "abcd|systemcall|sun.\nabcd|systemcall|jdk.\n");
    const SampleReply ruled = active();
    ASSERT_EQ("", ruled.error);
    EXPECT_EQ(nullptr, ruled.Find("zoo-file-read"));
    EXPECT_EQ(nullptr, ruled.Find("zoo-spin"));
    ASSERT_NE(nullptr, ruled.Find("zoo-socket-read"));
    EXPECT_EQ(0u, ruled.Find("zoo-socket-read")->call.find("qoragent.testing."));

    Rules("");
    EXPECT_NE(nullptr, active().Find("zoo-file-read"));
    // The poll filters in the same way; its word for all threads lifts the filter, as its flag does.
    const auto poll = [](const std::string &word) {
        return SampleReply::Parse(Ask(QORREQ_POLL_DETAILS, word), true, false);
    };
    EXPECT_EQ(nullptr, poll("").Find("zoo-sleep"));
    EXPECT_NE(nullptr, poll("JVMALLTHREADS").Find("zoo-sleep"));
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    EXPECT_NE(nullptr, poll("").Find("zoo-sleep"));
    EXPECT_EQ(nullptr, active().Find("zoo-sleep"));
}

TEST_F(Sample, LongStacksLoseTheirMiddle) {
    struct Case {
        int frames;
        int64_t skipped, lastKept, firstAfter;
    };
    for (const Case &c : {Case{310, 7, 152, 160}, Case{1000, 697, 152, 850}, Case{300, 0, 0, 0}}) {
        CallObject(ZOO, "startDeep", "(I)Ljava/lang/Thread;", c.frames);
        // The user call stands at index 2, below two frames of the JDK.
        Rules("abcd|systemcall|java.\nabcd|systemcall|jdk.\nabcd|systemcall|sun.\n");
        const SampleReply reply = AskDetails();
        ASSERT_EQ("", reply.error);
        const SampleThread *deep = reply.Find("zoo-deep-" + std::to_string(c.frames));
        ASSERT_NE(nullptr, deep);
        std::vector<int64_t> indices;
        for (const SampleFrame &frame : deep->frames)
            indices.push_back(frame.index);
        if (c.skipped == 0) {
            EXPECT_EQ(static_cast<size_t>(c.frames), indices.size());
        } else {
            const auto skip = std::find_if(deep->frames.begin(), deep->frames.end(),
                                           [](const SampleFrame &f) { return f.file == "NA"; });
            ASSERT_NE(deep->frames.end(), skip);
            const size_t at = static_cast<size_t>(skip - deep->frames.begin());
            const int64_t userCall = c.lastKept - 150;
            EXPECT_EQ(2, userCall);
            EXPECT_EQ(std::to_string(c.skipped) +
                          " frames are skipped for storage and performance optimization",
                      skip->call);
            EXPECT_EQ(c.lastKept + 1, skip->index);
            EXPECT_EQ(c.lastKept, indices[at - 1]);
            EXPECT_EQ(c.firstAfter, indices[at + 1]);
            EXPECT_EQ(c.frames - 1, indices.back());
            EXPECT_EQ(static_cast<size_t>(c.frames - c.skipped + 1), indices.size());
        }
        CallVoid(ZOO, "stop", "()V");
    }
    // Extreme settings neither crash nor loop.
    CallObject(ZOO, "startDeep", "(I)Ljava/lang/Thread;", 100);
    for (int32_t recorded : {0, -5, 1, 2000000000, -2147483548, INT32_MIN}) {
        maxStackDepthRecorded = recorded;
        EXPECT_EQ("", AskDetails().error) << recorded;
    }
    maxStackDepthRecorded = 300;
    CallVoid(ZOO, "stop", "()V");
}

TEST_F(Sample, TracesOneThread) {
    ZooVisit zoo("holder,blocked,sleep");
    const int64_t id = CallLong(ZOO, "id", "(Ljava/lang/String;)J", Text("sleep"));
    const std::string key = std::to_string(getpid()) + "-" + std::to_string(id);
    trace_single_thread_details = FLAG_TRACE_SINGLE_THREAD;
    const SampleReply reply = SampleReply::Parse(Ask(QORREQ_POLL_DETAILS, "", key), true, true);
    ASSERT_EQ("", reply.error);
    ASSERT_EQ(1u, reply.threads.size());
    EXPECT_EQ("zoo-sleep", reply.threads[0].name);
    EXPECT_FALSE(reply.threads[0].frames.empty());

    const std::string nobody = std::string("Thread Info Details") + RECORD_END + SECTION_END;
    poll_details = 0;
    EXPECT_EQ(nobody, Ask(QORREQ_POLL_DETAILS, "", "1-1"));
    EXPECT_EQ(nobody, Ask(QORREQ_POLL_DETAILS));
}

TEST_F(Sample, FullReplyEndsBehindAWholeRecord) {
    CallVoid(ZOO, "startMany", "(II)V", 60, 40);
    poll_details = FLAG_POLL_DETAILS;
    trace_all_threads = FLAG_TRACE_ALL_THREADS;
    const std::string whole = Ask(QORREQ_POLL_DETAILS);
    const SampleReply all = SampleReply::Parse(whole, true, true);
    ASSERT_EQ("", all.error);
    for (int32_t size : {100, 5000, 20000, 60000, static_cast<int32_t>(whole.size())}) {
        const std::string text = Ask(QORREQ_POLL_DETAILS, "", "", size);
        EXPECT_LT(text.size(), static_cast<size_t>(size));
        const SampleReply cut = SampleReply::Parse(text, true, true);
        EXPECT_EQ("", cut.error) << size;
        ASSERT_LT(cut.threads.size(), all.threads.size()) << size;
        for (size_t i = 0; i < cut.threads.size(); ++i)
            EXPECT_EQ(all.threads[i].frames.size(), cut.threads[i].frames.size()) << size;
    }
    EXPECT_EQ(all.threads.size(), SampleReply::Parse(Ask(QORREQ_POLL_DETAILS), true, true).threads.size());
    CallVoid(ZOO, "stop", "()V");
}

TEST_F(Sample, StacksThatFillTheirRoomSayWhatIsMissing) {
    CallVoid(ZOO, "startWide", "(II)V", 0, 1);
    const int64_t id = CallLong(ZOO, "id", "(Ljava/lang/String;)J", Text("wide-0"));
    const size_t depth = ThreadTruth().at(id).frames.size();
    qorReplyIsCut = false;
    for (int32_t recorded : {1000, 350}) { // the second leaves out frames in the middle as well
        maxStackDepthRecorded = recorded;
        const SampleReply reply = AskDetails();
        ASSERT_EQ("", reply.error);
        size_t next = 0;
        int skips = 0;
        for (const SampleFrame &frame : reply.Find("zoo-wide-0")->frames) {
            ASSERT_EQ(static_cast<int64_t>(next), frame.index);
            const bool skip = frame.file == "NA";
            next += skip ? std::stoul(frame.call) : 1;
            skips += skip;
        }
        EXPECT_EQ(depth, next) << "frames that are missing are counted";
        EXPECT_EQ(recorded == 1000 ? 1 : 2, skips);
        EXPECT_EQ("NA", reply.Find("zoo-wide-0")->frames.back().file);
    }
    EXPECT_FALSE(qorReplyIsCut) << "no thread is missing";
    maxStackDepthRecorded = 300;
    const std::string stack =
        Ask(QORREQ_THREAD_DETAILS, "", std::to_string(getpid()) + "-" + std::to_string(id));
    const std::vector<std::string> rows = Split(stack.substr(stack.find(TITLE_CALL_STACK)), RECORD_END);
    for (size_t i = 1; i + 1 < rows.size(); ++i)
        ASSERT_EQ(std::to_string(i - 1), Split(rows[i], FIELD_SEP)[2]) << "a hole";
    EXPECT_GT(rows.size(), 200u);
    EXPECT_LT(rows.size(), depth);
    EXPECT_TRUE(qorReplyIsCut);
    CallVoid(ZOO, "stop", "()V");
}

struct FullSample : AgentTest {};

TEST_F(FullSample, HasATimingAsLongAsNoThreadIsMissing) {
    ASSERT_EQ(StartAgent({}), 0);
    maxStackDepthRecorded = 1000;
    for (int end : {9, 11}) {
        CallVoid(ZOO, "startWide", "(II)V", end == 9 ? 0 : 9, end);
        const std::string text = Ask("788|showstack|32768");
        EXPECT_GT(text.size(), 890000u);
        EXPECT_EQ(text.find("Time spent in JVM") != text.npos, end == 9);
        int missing = 0;
        for (int i = 0; i < end; i++)
            missing += text.find("zoo-wide-" + std::to_string(i) + FIELD_SEP) == text.npos;
        EXPECT_EQ(missing == 0, end == 9) << missing;
    }
    maxStackDepthRecorded = 300;
    CallVoid(ZOO, "stop", "()V");
}

TEST_F(Sample, MarksTheStateAtLevelThree) {
    ZooVisit zoo("sleep");
    gbiOptimizationLevel = 3;
    const SampleReply reply = AskDetails();
    ASSERT_EQ("", reply.error);
    EXPECT_EQ(std::string(1, STATE_MARK) + "Sleeping", reply.Find("zoo-sleep")->state);
}

TEST_F(Sample, SummaryCountsThreadsByState) {
    enum { RUNNABLE = 3, LOCK = 5, NETWORK = 6, IO = 7, WAITING = 8, SLEEPING = 9 };
    const std::vector<int64_t> before = AskSummary();
    EXPECT_LE(before[0], 100);
    EXPECT_LE(before[2], 100);
    ZooVisit zoo("spin,holder,blocked,socket-read,file-read,sleep");
    const auto counted = [](int field) { return AskSummary()[static_cast<size_t>(field)]; };
    const auto gained = [&](int field) { return counted(field) - before[static_cast<size_t>(field)]; };
    EXPECT_EQ(1, gained(LOCK));
    EXPECT_EQ(1, gained(NETWORK));
    EXPECT_EQ(1, gained(IO));
    EXPECT_EQ(1, gained(SLEEPING));
    EXPECT_GE(counted(RUNNABLE), 1); // the JVM's own threads come and go, so that no exact gain is to be had

    // An idle name and an idle current call both count as waiting.
    const int64_t waiting = counted(WAITING);
    Rules("abcd|threadname|zoo-socket\nabcd|currcall|java.io.FileInputStream*\nabcd|threadname|zoo-spin\n");
    EXPECT_EQ(0, gained(NETWORK));
    EXPECT_EQ(0, gained(IO));
    EXPECT_GE(counted(WAITING), waiting + 3);
}

TEST_F(Sample, LeavesNothingBehind) {
    ZooVisit zoo("spin,sleep,holder,blocked");
    e2eclass = static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass("qoragent/cJavaCall")));
    jobjclass = static_cast<jclass>(Env()->NewGlobalRef(Env()->FindClass("java/lang/Object")));
    ASSERT_NE(nullptr, e2eclass);
    for (int i = 0; i < 50; ++i) {
        AskDetails();
        EXPECT_EQ(nullptr, thread_e2e_info);
        Ask(QORREQ_ACTIVE_THREADS);
        AskSummary();
    }
    EXPECT_FALSE(Env()->ExceptionCheck());
    Env()->DeleteGlobalRef(e2eclass);
    Env()->DeleteGlobalRef(jobjclass);
    e2eclass = jobjclass = nullptr;
    QorDropE2EPool();
}
