// Dumps and histograms that a copy of the process makes, against what the worker makes of the same heap, and
// what they leave in the process.
#include "AgentNatives.h"
#include "DumpReaders.h"
#include "Folder.h"
#include "LogCapture.h"
#include "jvmti/heap/ClassHistogram.h"
#include "jvmti/heap/DumpState.h"
#include "jvmti/heap/ForkedDump.h"
#include "jvmti/heap/ForkedHistogram.h"
#include "jvmti/heap/ForkedWalk.h"
#include "jvmti/heap/HeapDump.h"
#include "jvmti/heap/MemorySystem.h"
#include "platforms/linux.h"
#include "platforms/memory_headroom.h"
#include "wire/memory.h"
#include "wire/records.h"

#include <atomic>
#include <csignal>
#include <fstream>
#include <tuple>
#include <unistd.h>

namespace {

constexpr char NODE[] = "qoragent.testing.HeapShop$Node", LEAF[] = "qoragent.testing.HeapShop$Leaf";
constexpr char COMPLETED[] = "JVM Heap dump started.\x1fJVM Heap:Heap dump completed sucessfully";
constexpr char DUMP[] = "516|showmem|256|dump|7", HISTOGRAM[] = "516|showmem|512|ClassHistogramOnly";

// Process ids of the copies that live, or have not been collected.
std::vector<pid_t> Copies() {
    std::vector<pid_t> found;
    for (const auto &entry : std::filesystem::directory_iterator("/proc")) {
        std::ifstream in(entry.path() / "stat");
        std::string line;
        int pid = 0, parent = 0;
        std::getline(in, line);
        if (sscanf(line.c_str(), "%d (QORD Heap Dump) %*c %d", &pid, &parent) == 2 && parent == getpid())
            found.push_back(pid);
    }
    return found;
}

int SharedMappings() {
    std::ifstream in("/proc/self/maps");
    int count = 0;
    for (std::string line; std::getline(in, line);)
        count += line.find("rw-s") != std::string::npos;
    return count;
}

const auto COLLECTORS = testing::Values("Serial", "Parallel", "G1");

// The filled shop in a session, dumped from the test's thread.
struct QuietHeap : WithCollector<SessionTest> {
    void SetUp() override {
        WithCollector::SetUp();
        Java("HeapShop", "fill");
        Java("java/lang/System", "gc");
    }

    TextDump Forked() {
        int32_t pipe[2], error = 0;
        EXPECT_TRUE(qor_create_pipe(pipe));
        EXPECT_GT(QorForkHeapDump(in.In("dump").c_str(), pipe), 0);
        qor_close_handle(&pipe[1]);
        EXPECT_TRUE(QorWaitForFork(pipe[0], QorForkClock() + 60000));
        EXPECT_EQ(QorForkOutcome(&error), FORK_DONE);
        QorForgetFork();
        qor_close_pipe(pipe);
        return TextDump::Read(in.In("dump"));
    }
    TextDump ByTheWorker() {
        EXPECT_EQ(QorHeapDump(in.In("dump").c_str()), 0);
        return TextDump::Read(in.In("dump"));
    }

    Folder in;
};

INSTANTIATE_TEST_SUITE_P(, QuietHeap, COLLECTORS, COLLECTOR_NAME);

TEST_P(QuietHeap, ForkedDumpEqualsTheOneOfTheProcess) {
    ByTheWorker(); // where the JVM keeps this thread's references is settled by the first
    const int32_t run = igbCurrentRun;
    const TextDump forked = Forked();
    EXPECT_EQ(igbCurrentRun, run);
    gbiDumpBufferSize = 64;
    const TextDump own = ByTheWorker();
    EXPECT_NE(igbCurrentRun, run);
    EXPECT_EQ(forked.Class(NODE).objects, 1234);
    EXPECT_EQ(forked.summary.heap_id, own.summary.heap_id);
    EXPECT_TRUE(forked.body == own.body) << forked.body.size() << " " << own.body.size();
}

std::map<std::string, std::pair<int64_t, int64_t>> Count() {
    int64_t count = 0;
    QorClassCountEntry *entries = nullptr;
    EXPECT_EQ(QorClassInstanceCounts(&count, &entries), 0) << qorNoHistogram;
    std::map<std::string, std::pair<int64_t, int64_t>> rows;
    for (int64_t i = 0; i < count; i++)
        rows[qorctl::JavaName(entries[i].name)] = {entries[i].count, entries[i].size};
    QorFreeClassCounts(entries, count);
    return rows;
}

TEST_P(QuietHeap, ForkedHistogramCountsWhatIsReachable) {
    QorSetForkHeapDumpCapability(1);
    const auto rows = Count();
    const TextDump dump = Forked();
    for (const std::string &klass : {std::string("int[]"), std::string(NODE) + "[]"})
        EXPECT_EQ(rows.at(klass), std::make_pair(dump.Class(klass).objects, dump.Class(klass).bytes))
            << klass;
    EXPECT_EQ(rows.at(std::string(LEAF) + "[]").first, 1) << "an array that refers to nothing";
    QorSetForkHeapDumpCapability(0);
    const auto all = Count(); // dead objects too
    for (const char *klass : {NODE, LEAF}) {
        EXPECT_EQ(rows.at(klass), all.at(klass)) << klass;
        EXPECT_EQ(std::to_string(all.at(klass).first) + " " + std::to_string(all.at(klass).second),
                  Java<std::string>("HeapShop", "histogramRow", klass));
    }
}

// Requests for forked dumps.
struct ForkedDump : AgentTest {
    void SetUp() override {
        AgentTest::SetUp();
        StartArguments start;
        start.timeout = 100;
        ASSERT_EQ(StartAgent(start), 0);
        Ask("516|NoProcessing|qorheapdir|" + in.path.string());
        ASSERT_EQ(Ask("516|NoProcessing|forkdump|1"), "Changed forkdump to 1");
    }

    static constexpr const char *REQUESTS[] = {DUMP, HISTOGRAM};

    Folder in;
};

bool IsAnswer(const std::string &reply) {
    return reply == COMPLETED || reply.find("JVM Class Details\x1e") == 0;
}

struct BusyHeap : WithCollector<ForkedDump> {};
INSTANTIATE_TEST_SUITE_P(, BusyHeap, COLLECTORS, COLLECTOR_NAME);

TEST_P(BusyHeap, DumpsAreRightAndTheApplicationsChildrenKeepTheirExitCodes) {
    Java("Churn", "heap");
    Java("Churn", "classes");
    while (Java<int64_t>("Churn", "count", "children") < 100 && !HasFailure()) {
        ASSERT_EQ(Ask(DUMP), COMPLETED);
        TextDump::Read(in.In("dump"));
        EXPECT_TRUE(IsAnswer(Ask(HISTOGRAM)));
        EXPECT_EQ(Ask("516|NoProcessing|CZPRequest"), "") << "which collects what is left";
    }
    Java("Churn", "stop");
    EXPECT_EQ(Java<int64_t>("Churn", "count", "wrong"), 0);
}

TEST_F(ForkedDump, ManyLeaveNothing) {
    int shared = 0;
    KeepsNothing(5, [&] {
        ASSERT_TRUE(IsAnswer(Ask(DUMP)) && IsAnswer(Ask(HISTOGRAM)));
        EXPECT_EQ(Copies(), std::vector<pid_t>());
        const int now = SharedMappings();
        EXPECT_TRUE(now == shared || !shared) << now;
        shared = now;
    });
}

// Sends a signal to the first copies that come up, one each; the last one's process id.
struct Disturber {
    const int copies, signal;
    std::atomic<pid_t> last{0};
    std::atomic<bool> answered{false};
    std::set<pid_t> met;
    std::thread thread{[this] {
        while (static_cast<int>(met.size()) < copies && !answered)
            for (pid_t pid : Copies())
                if (met.insert(pid).second) {
                    kill(pid, signal);
                    last = pid;
                }
    }};

    Disturber(int count, int which) : copies(count), signal(which) {}

    // The reply, and whether it met them all: a loaded machine may let a copy end unseen.
    bool ask(const char *request, std::string *reply) {
        *reply = Ask(request);
        answered = true;
        thread.join();
        return static_cast<int>(met.size()) == copies;
    }
};

TEST_F(ForkedDump, ACopyThatComesToNoEndIsMadeAgainUpToThreeTimes) {
    constexpr char ENDED[] = "its process was ended", FAULT[] = "a fault in its process";
    const std::tuple<int, int, const char *> CASES[] = {// as it stands still; a fourth isn't made
                                                        {SIGSTOP, 1, ENDED},
                                                        {SIGKILL, 3, ENDED},
                                                        {SIGSEGV, 4, FAULT}};
    gbiForkStandstill = 1500;
    for (const auto &[signal, copies, why] : CASES) {
        for (const char *request : REQUESTS) {
            std::string reply;
            for (bool met = false; !met;) {
                LogCapture log(3);
                met = Disturber(copies, signal).ask(request, &reply);
                EXPECT_TRUE(!met || log.count(std::string("made once more: ") + why) == std::min(copies, 3))
                    << log.text();
            }
            EXPECT_EQ(Copies(), std::vector<pid_t>());
            if (copies < 4)
                EXPECT_TRUE(IsAnswer(reply)) << reply;
            else
                EXPECT_NE(reply.find(std::string(" failed, ") + why), reply.npos) << reply;
            if (request == DUMP && copies < 4)
                TextDump::Read(in.In("dump"));
        }
    }
    EXPECT_EQ(std::filesystem::file_size(in.In("dump")), 0u);
}

// A copy that can't be ready in time: the answer says so before the caller gives up, and reaches nobody else.
struct LateCopy : ForkedDump {
    void SetUp() override {
        ForkedDump::SetUp();
        qor_max_timeout = 3; // the wait is a second
    }

    // A request whose copy is stopped.
    std::string AskStopped(const char *request) {
        std::string reply;
        for (bool met = false; !met;) {
            Disturber disturber(1, SIGSTOP);
            met = disturber.ask(request, &reply);
            copy = disturber.last.load();
        }
        EXPECT_EQ(Ask("516|showmem|256").find("JVM Heap Memory Usage"), 0u) << "somebody else's reply";
        return reply;
    }
    static void AwaitNoCopy() {
        while (!Copies().empty())
            Ask("516|NoProcessing|CZPRequest");
    }

    pid_t copy = 0;
    const std::string late = "Class histogram still being made, ask again.\x1f";
    const std::string busy = "Unable to start Heap Dump: an earlier one is still being written.\x1f";
};

TEST_F(LateCopy, ItsHistogramIsKeptForTheNextWhoAsksAndItsDumpGoesOn) {
    EXPECT_EQ(AskStopped(HISTOGRAM).find(late), 0u);
    EXPECT_EQ(Ask(DUMP), busy);
    EXPECT_EQ(Ask(HISTOGRAM).find(late), 0u);
    kill(copy, SIGCONT);
    std::string kept = late;
    while (kept.find(late) == 0)
        kept = Ask(HISTOGRAM);
    EXPECT_TRUE(IsAnswer(kept)) << kept;
    EXPECT_GE(qorctl::DecodeHistogram(qorctl::OpenReply(kept)).age_seconds, 1);
    EXPECT_FALSE(qorctl::DecodeHistogram(qorctl::OpenReply(Ask(HISTOGRAM))).age_seconds) << "a fresh one";

    EXPECT_EQ(AskStopped(DUMP), "JVM Heap dump started.\x1fJVM Heap:Heap dump timed out");
    EXPECT_EQ(Ask(HISTOGRAM).find(busy), 0u);
    kill(copy, SIGCONT);
    AwaitNoCopy();
    TextDump::Read(in.In("dump"));
}

TEST_F(LateCopy, IsKilledAtTheEndOfTheAgentWhichDoesNotWait) {
    for (const char *request : REQUESTS) {
        qor_max_timeout = 5000;
        Disturber disturber(1, SIGSTOP);
        std::string reply;
        std::thread asker = AskAside(request, &reply);
        disturber.thread.join();
        ShutDownAgent();
        asker.join();
        EXPECT_EQ(kill(disturber.last, 0), -1) << "it lives, or nobody has collected it";
        ASSERT_EQ(StartAgent({}), 0);
        Ask("516|NoProcessing|forkdump|1");
    }
}

TEST_F(ForkedDump, IsRefusedWithTheReason) {
    // The heap, and for a dump the tags, must fit what is free.
    const auto fitting = static_cast<int32_t>(QorMemoryHeadroom() / QorGetUsedMemory());
    for (int32_t &shares : gbiForkHeapShares)
        shares = fitting * 3;
    for (const char *request : REQUESTS) {
        EXPECT_EQ(Ask(request).find("System low on Virtual Memory, Unable to start Heap Dump.\x1f"), 0u);
        EXPECT_EQ(Copies(), std::vector<pid_t>());
    }
    EXPECT_FALSE(std::filesystem::exists(in.In("dump")));
    for (int32_t &shares : gbiForkHeapShares)
        shares = fitting / 3;
    for (const char *request : REQUESTS)
        EXPECT_TRUE(IsAnswer(Ask(request))) << request;
    // The request's flag has the last word.
    Ask("516|NoProcessing|forkdump|0");
    EXPECT_EQ(Ask("2564|showmem|256|dump|7"), COMPLETED);
}

// A JVM whose heap is shared memory, where there is one.
struct SharedHeap : WithCollector<ForkedDump> {};
INSTANTIATE_TEST_SUITE_P(, SharedHeap, testing::Values("Z"), COLLECTOR_NAME);

TEST_P(SharedHeap, IsRefused) {
    if (Java<std::string>("HeapShop", "collectors").find("ZGC") == std::string::npos)
        GTEST_SKIP() << "this JVM has no such collector";
    for (const char *request : REQUESTS)
        EXPECT_EQ(Ask(request).find("Unable to start Heap Dump: the JVM's heap is shared memory.\x1f"), 0u);
    EXPECT_EQ(Copies(), std::vector<pid_t>());
}

} // namespace
