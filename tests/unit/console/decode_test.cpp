// Replies built by hand: odd, cut and wrong.
#include "show/json.h"
#include "show/render.h"
#include "wire.h"

using namespace qorctl;

namespace {

TEST(DecodeThreads, OddRowsStayWhole) {
    const ThreadSample sample = Rows("a~^b|c\t\xc3\xa9 \xff^~^~^~^~77-24~^~^~^~Object Wait;"
                                     "a~Time spent in JVM for processing request~^~^~^~77-25~odd->name->poll~"
                                     "Native Method~^~*Network Wait;" +
                                     Row("1", "DB Wait{10}^~^~0~0~^~0~-5~select 'a'\nfrom t~^~^") +
                                     Row("2", "*RMI Wait{&0~0~^~^") + Row("3", "RMI Wait{&1~2~h~NA"));
    ASSERT_EQ(sample.threads.size(), 5u);
    EXPECT_EQ(sample.threads[0].name, "^b|c\t\xc3\xa9 \xff^");
    EXPECT_FALSE(sample.threads[0].call);
    EXPECT_EQ(sample.threads[1].state, "Network Wait"); // the mark of level 3 isn't a part of it
    EXPECT_EQ(sample.threads[1].call->class_name, "odd->name");
    const DbWait &db = sample.threads[2].db.value();
    EXPECT_FALSE(db.url || db.user || db.remote_host || db.type);
    EXPECT_EQ(db.sql, "select 'a'\nfrom t");
    EXPECT_FALSE(sample.threads[3].rmi.value().remote_host);
    EXPECT_TRUE(sample.threads[4].rmi->remote_host == "h" && !sample.threads[4].rmi->jndi_name);
}

TEST(DecodeThreads, OddLocks) {
    ThreadSample sample = Threads(DETAILS + "!JVM Locks;-13~0~a.X@-13~900;!" + DETAILS +
                                  "!Lock On;5~77--1~a.B@4~View Thread Holding this Lock"
                                  "!Thread Info Details;sys~^~^~^~^~77-32~^~^~^~Runnable!" +
                                  TIMING);
    ASSERT_EQ(sample.threads.size(), 3u);
    EXPECT_EQ(sample.threads[0].owns.at(0).class_name, "a.X");
    EXPECT_EQ(sample.threads[1].waits_for.value().owner.thread, -1);
    EXPECT_EQ(sample.threads[1].waits_for->class_name, "a.B@4"); // not the lock's number: part of the name
    EXPECT_EQ(sample.threads[2].key.thread, 32); // read by address, its name wasn't to be read
}

TEST(DecodeThreads, CutAnywhere) {
    const std::string record = DETAILS + ADDED + "!" + FRAMES;
    const std::string whole = record + "!JVM Locks;12~0~com.acme.Cart@12~1;!" + record + "!";
    for (size_t length = 1; length < whole.size(); ++length) {
        ThreadSample sample = Threads(whole.substr(0, length));
        EXPECT_TRUE(sample.cut || whole[length - 1] == '!') << length;
        EXPECT_LE(sample.threads.size(), length <= whole.rfind("Thread Info Details") ? 1u : 2u) << length;
        for (const Thread &thread : sample.threads) {
            EXPECT_EQ(thread.name + thread.state + thread.end_to_end.peer.value_or(""),
                      "http-1Lock10.0.0.1:25");
            for (const Frame &frame : thread.stack)
                EXPECT_TRUE(frame.skipped == 697 || frame.method_id > 140000) << length;
        }
    }
    EXPECT_EQ(Threads(whole.substr(0, whole.size() - 5)).threads.at(1).stack.size(), 3u);
}

// Though it ends well a long reply has lost records when the agent left its timing out.
TEST(DecodeThreads, LongWithoutTiming) {
    EXPECT_FALSE(Threads("JVM Active Threads;" + ACTIVE_ROW + ";!").cut);
    std::string rows;
    while (rows.size() < 1000000) // of few rows, as a sanitizer makes each dear
        rows += "a~" + std::string(1000, 'x') + ACTIVE_ROW.substr(2) + ";";
    EXPECT_FALSE(Rows(rows).cut);
    EXPECT_TRUE(Threads("JVM Active Threads;" + rows + "!").cut);
}

TEST(DecodeThreads, StacksWithoutTheirBottomAreReported) {
    const std::string thread = DETAILS + "!" + FRAMES;
    ThreadSample sample =
        Threads(thread + ";497 frames are skipped for storage and performance optimization~NA~^~23~3~0~^~^!" +
                thread + "!" + TIMING);
    ExpectParts(ThreadDump(sample, Style()), {"\t... 497 frames skipped\n\n"});
    ExpectParts(SampleNotes(sample, 2), {"; 1 stack lacks frames at the bottom"});
    Json json = ToJson(sample);
    EXPECT_TRUE(json["cut"] && json["threads"][0]["stack_cut"] && !json["threads"][1]["stack_cut"]);
}

TEST(OpenReply, TakesTheTimingOffTheEnd) {
    const std::string title = "Time spent in JVM for processing request";
    const std::pair<std::string, std::optional<uint64_t>> rows[] = {
        {TIMING, 321}, {title + " 8 usec", 8}, {title + ";321 use", {}}};
    for (auto &[timing, microseconds] : rows) {
        std::string text = Wire("x" + timing);
        Reply reply = OpenReply(text);
        EXPECT_EQ(reply.text, microseconds ? "x" : text);
        EXPECT_EQ(reply.jvm_microseconds, microseconds) << timing;
    }
    for (const char *refusal :
         {"Request TIMED OUT|\t|\t\t||",
          "Invalid Request showstacTime spent in JVM for processing request;1 usec!",
          "Unable to complete Request. Please Try Again\n Garbage Collector currently running.!"}) {
        const std::string failure = FailureOf([&] { OpenReply(Wire(refusal)); });
        ExpectParts(failure, {"the agent answers \""});
        EXPECT_EQ(failure.find_first_of("\\\n\x1e\x1f\t"), failure.npos) << failure;
        EXPECT_EQ(failure.find("Time spent"), failure.npos);
    }
}

} // namespace
