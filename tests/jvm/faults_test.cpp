// Each allocation, system call and call into the JVM that the agent makes for these requests fails once. The
// host lives, the reply is whole or something says why not, the same request is answered right after, and
// nothing is left behind. Calls into the JVM may fail without a word.
#include "AgentNatives.h"
#include "Descriptors.h"
#include "FailingCalls.h"
#include "Folder.h"
#include "LogCapture.h"
#include "Replies.h"
#include "jvmti/threads/VirtualFields.h"
#include "qoragent/agent_state.h"
#include "qorrequest.h"
#include "wire/request.h"

#include <regex>
#include <unistd.h>

namespace {

struct Request {
    std::string text;
    std::vector<std::string> shown;         // parts of a whole reply
    std::function<std::string()> look = {}; // what is wrong with the file that it made
};

struct Faults : AgentTest {
    void SetUp() override {
        AgentTest::SetUp();
        Start();
        ShutDownAgent();
        blocks_ = AllocatedBlocks();
        Start();
    }
    void TearDown() override {
        ShutDownAgent();
        EXPECT_EQ(AllocatedBlocks(), blocks_ - 1); // the text of the captured log was allocated elsewhere
        AgentTest::TearDown();
    }

    static void Start() {
        StartArguments arguments;
        arguments.timeout = 15;
        arguments.localsQuota = 100;
        ASSERT_EQ(StartAgent(arguments), START_OK);
        qorDBQuery = 1;
        qorHandWalkQuotaPct = 100;
    }

    // What a reply lacks, "" when it is whole.
    static std::string Missing(const Request &request, const std::string &reply) {
        const std::string wrong = request.look ? request.look() : "";
        for (const std::string &part : request.shown)
            if (reply.find(part) == std::string::npos)
                return "\"" + part + "\" of " + request.text + " is not in: " + reply;
        return wrong;
    }

    static bool IsRefusal(const std::string &reply) {
        static const std::regex REFUSALS(
            "TIMED OUT|Unable to start Heap Dump|Class histogram failed|Heap dump failed");
        return std::regex_search(reply, REFUSALS);
    }

    // A request in which a new place fails, if it meets one.
    static std::string AskFailing(const std::string &request, std::string *place) {
        jobject text = Text(request);
        ArmFailingCall();
        jobject reply = Java_qoragent_Agent_dataFromNative(Env(), nullptr, static_cast<jstring>(text));
        *place = DisarmFailingCall();
        const std::string shown = reply ? TextOf(reply) : NO_ANSWER;
        Env()->DeleteLocalRef(text);
        Env()->DeleteLocalRef(reply);
        return shown;
    }

    // One new place of a request fails, and then the request is asked again; false when it met none.
    static bool FailOne(const Request &request, LogCapture *log) {
        std::string place;
        const size_t said = log->text().size();
        const int64_t complaints = Complaints();
        const std::string reply = AskFailing(request.text, &place), missing = Missing(request, reply);
        EXPECT_FALSE(Env()->ExceptionCheck()) << place;
        const bool told =
            place[0] == 'J' || log->text().size() > said || Complaints() > complaints || IsRefusal(reply);
        EXPECT_TRUE(missing.empty() || (!place.empty() && told)) << "not told, " << place << missing;
        if (place.empty())
            return false;
        const std::string after = Missing(request, Ask(request.text));
        EXPECT_EQ(after, "") << "after " << place << log->text().substr(said);
        EXPECT_EQ(TakeJvmComplaints(), "") << place;
        return true;
    }

    // How many new places it met.
    static int FailPlaces(const Request &request, LogCapture *log) {
        int places = 0;
        while (places < 3000 && FailOne(request, log))
            places++;
        return places;
    }

    // `prepare`: what the requests need of the session.
    void FailEach(
        const std::vector<Request> &requests, void (*prepare)() = [] {}) {
        prepare();
        for (const Request &request : requests)
            Missing(request, Ask(request.text));
        ShutDownAgent();
        kept_ = AllocatedBlocks() - blocks_;
        blocks_ += kept_;
        Start();
        prepare();
        Ask(requests.front().text); // then the worker has its environment
        WrapJni(Env());
        WrapJni(jvmtijni_env);
        WrapJvmti(jvmti);
        LogCapture log(LOG_WARNING);
        const Request setting = {SettingRequest(3), {SettingReply(3)}};
        qor_max_timeout = 2; // what loses a request costs that long
        int places = FailPlaces(setting, &log);
        qor_max_timeout = 15;
        for (const Request &request : requests) {
            for (int i = 0; i < 2; i++)
                ASSERT_EQ(Missing(request, Ask(request.text)), "");
            const int64_t references = GlobalReferences();
            const int descriptors = OpenDescriptors();
            places += FailPlaces(request, &log);
            EXPECT_LE(OpenDescriptors(), descriptors) << request.text;
            // A class that JDK 25 has is first looked up where a call fails, and kept.
            EXPECT_LE(GlobalReferences(), references + (QorJvmRelease() >= 25)) << request.text;
        }
        EXPECT_GE(places, 10);
    }

    int64_t blocks_, kept_; // when an agent has ended; of them, what requests left
};

} // namespace

TEST_F(Faults, Samples) {
    ZooVisit zoo("holder,blocked,lock-holder,lock-waiter,socket-read,deep");
    Java("Tiers", "start");
    Java("Customers", "start", 2, 100);
    FailEach({
        {"788|showstack|32768",
         {"ZooLocks->wantInner", "Lock On", "ZooLocks->takeOuter", "/tomcat", "jdbc:tessar"}},
        {"516|showstack|8192", {"jdbc:tessar", "zoo-blocked", "select 1 from orders"}},
    });
    EXPECT_EQ(kept_, 0);
}

TEST_F(Faults, Views) {
    ZooVisit zoo("holder,blocked");
    Java("Customers", "start", 1, 100);
    const std::string port = std::to_string(Java<int64_t>("Customers", "localPort", 0));
    const qorctl::ThreadSample sample = Threads(Ask("788|showstack|32768"));
    const qorctl::Thread *blocked = Find(sample, "zoo-blocked");
    ASSERT_TRUE(blocked && blocked->waits_for);
    const std::string key = blocked->key.Text(), lock = std::to_string(blocked->waits_for->lock);
    std::vector<Request> requests = {
        {"516|showstack|256", {"\x1d"}},
        {"516|showstack|512|ARG=x,1=" + key, {"wantInner", "Lock On", "JVM Locks"}},
        {"516|showstack|2048|ARG=x,0=" + lock + ",1=" + key, {"zoo-holder"}},
        {"516|showstack|128", {"JVM Heap Usage", "Minor"}},
        {"516|showmem|0", {"JVM Heap Memory Usage"}},
        {"516|showstack|16384|ARG=x,0=" + port, {"customer-0|"}},
        {"516|xtier01|" + port + "|127.0.0.1|" + std::to_string(getpid()), {std::to_string(getpid()) + ","}},
        {qorctl::LocalsRequest(blocked->key.thread, blocked->stack[0]), {"Method Locals"}},
        {"516|showstack|1024|ARG=x,0=7777,1=0", {"Object Description"}},
        {"516|NoProcessing|activethreads|TEST|threadname|nobody*", {"Added Idle Thread Rules"}},
    };
    FailEach(requests, [] {
        jobject specimen = Java<jobject>("Specimens", "make", "Values");
        jvmti->SetTag(Env()->NewGlobalRef(specimen), 7777);
    });
}

TEST_F(Faults, VirtualThreads) {
    if (Java<int64_t>("HeapShop", "parkVirtual", 40) == 0) {
        blocks_++; // no log is captured
        GTEST_SKIP() << "a JVM without virtual threads";
    }
    const Request groups = {"788|showstack|65536|ARG=x,2=2000", {"JVM Virtual Threads"}};
    const std::string view = Ask(groups.text);
    std::smatch row;
    ASSERT_TRUE(std::regex_search(view, row,
                                  std::regex("\x1e"
                                             "40\x1d([0-9]+-[0-9]+)\x1d")))
        << view;
    FailEach({groups, {"516|showstack|512|ARG=x,1=" + row.str(1), {"parkVirtual"}}});
}

// Dumps and histograms by the worker and by a copy of the process.
struct Dumps : Faults, testing::WithParamInterface<int> {};

TEST_P(Dumps, AreWholeOrSaySo) {
    Folder in;
    Java("HeapShop", "fill");
    size_t whole = 0; // bytes of the first file
    const auto text = [&] {
        const std::string dump = in.Content("text");
        whole = whole ? whole : dump.size();
        const bool ends = dump.size() > 5 && dump.compare(dump.size() - 5, 5, " secs") == 0;
        return ends && dump.size() > whole / 2 ? "" : "no whole file";
    };
    const auto hprof = [&] { return unlink(in.In("a.hprof").c_str()) == 0 ? "" : "no file"; };
    std::vector<Request> requests = {
        {"516|NoProcessing|qorheapdir|" + in.path.string(), {"Changed"}},
        {"516|NoProcessing|forkdump|" + std::to_string(GetParam()), {"Changed"}},
        {"516|showmem|256|text|7", {GetParam() ? "completed sucessfully" : "Time spent"}, text},
        {"516|showmem|512|ClassHistogramOnly",
         {"HeapShop$Node;\x1d"
          "1234\x1d"}},
    };
    if (!GetParam())
        requests.push_back({"516|showmem|256|a.hprof|7", {"dumped"}, hprof});
    FailEach(requests);
}

INSTANTIATE_TEST_SUITE_P(, Dumps, testing::Values(0, 1),
                         [](const auto &copy) { return copy.param ? "InACopy" : "ByTheWorker"; });
