// Replies built by hand, in every form that the agent has: whole, odd, cut and wrong.
#include "show/json.h"
#include "show/render.h"
#include "wire.h"

using namespace qorctl;

namespace {

TEST(DecodeThreads, OddRowsStayWhole) {
    ThreadSample sample = Threads("JVM Active Threads;"
                                  "a~^b|c\t\xc3\xa9 \xff^~^~shop.jsp~id=7~77-24~^~^~^~Object Wait;"
                                  "a~Time spent in JVM for processing request~^~^~^~77-25~odd->name->poll~"
                                  "Native Method~^~*Network Wait;!" +
                                  TIMING);
    ASSERT_EQ(sample.threads.size(), 2u);
    const Thread &first = sample.threads[0], &second = sample.threads[1];
    EXPECT_EQ(first.name, "^b|c\t\xc3\xa9 \xff^");
    EXPECT_FALSE(first.call);
    EXPECT_EQ(second.state, "Network Wait"); // the mark of level 3 isn't a part of it
    EXPECT_FALSE(second.request_url || second.request_detail);
    EXPECT_EQ(second.call->class_name, "odd->name");
    EXPECT_EQ(second.call->line, 0);
    for (const char *title : {"JVM Active Threads;!", "Thread Info Details;!"}) {
        ThreadSample none = Threads(title + TIMING);
        EXPECT_TRUE(none.threads.empty() && !none.cut) << title;
    }
}

TEST(DecodeThreads, WaitDetailsWithoutKnowledge) {
    const std::string row = "a~n~^~^~^~1-2~A->b~A.java~3~";
    ThreadSample sample =
        Threads("JVM Active Threads;" + row + "DB Wait{10}^~^~0~0~^~0~-5~select 'a'\nfrom t~^~^;" + row +
                "*RMI Wait{&0~0~^~^;" + row + "RMI Wait{&1~2~h~NA;!" + TIMING);
    ASSERT_EQ(sample.threads.size(), 3u);
    const DbWait &db = sample.threads[0].db.value();
    EXPECT_EQ(sample.threads[0].state, "DB Wait");
    EXPECT_FALSE(db.url || db.user || db.remote_host || db.type);
    EXPECT_EQ(db.sql, "select 'a'\nfrom t");
    EXPECT_EQ(db.sql_ref, -5);
    EXPECT_FALSE(sample.threads[1].rmi.value().remote_host || sample.threads[1].rmi->jndi_name);
    EXPECT_EQ(sample.threads[2].rmi.value().remote_host, "h");
    EXPECT_FALSE(sample.threads[2].rmi->jndi_name);
}

TEST(DecodeThreads, OddLocks) {
    ThreadSample sample = Threads(DETAILS + "!JVM Locks;-13~0~com.acme.X@-13~900;!" + DETAILS +
                                  "!Lock On;5~77--1~a.B@4~View Thread Holding this Lock"
                                  "!Thread Info Details;sys~^~^~^~^~77-32~^~^~^~Runnable!" +
                                  TIMING);
    ASSERT_EQ(sample.threads.size(), 3u);
    EXPECT_EQ(sample.threads[0].owns.at(0).class_name, "com.acme.X");
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

TEST(DecodeThreads, CutRowsOfActiveThreads) {
    const std::tuple<std::string, size_t, bool> rows[] = {
        {"~Runna", 1, true},         {"!", 1, true}, // fields are missing, but the section's end still fitted
        {"~DB Wait{10}^~", 1, true}, {"~Lock;", 2, true}, // section not ended
        {"~Lock;!", 2, false},                            // whole, no room for the timing
    };
    for (const auto &[tail, threads, cut] : rows) {
        ThreadSample sample =
            Threads("JVM Active Threads;" + ACTIVE_ROW + ";a~x~^~^~^~1-2~A->b~A.java~3" + tail);
        EXPECT_EQ(sample.threads.size(), threads) << tail;
        EXPECT_EQ(sample.cut, cut) << tail;
    }
    // A long reply has lost records when the agent left its timing out, though it ends well.
    std::string reply = "JVM Active Threads;";
    while (reply.size() < 1000000)
        reply += ACTIVE_ROW + ";";
    EXPECT_FALSE(Threads(reply + "!" + TIMING).cut);
    EXPECT_TRUE(Threads(reply + "!").cut);
}

TEST(DecodeThreads, StacksWithoutTheirBottomAreReported) {
    const std::string skip =
        "497 frames are skipped for storage and performance optimization~NA~^~23~3~0~^~^";
    ThreadSample sample =
        Threads(DETAILS + "!" + FRAMES + ";" + skip + "!" + DETAILS + "!" + FRAMES + "!" + TIMING);
    ExpectParts(ThreadDump(sample, Style()), {"\t... 497 frames skipped\n\n"});
    ExpectParts(SampleNotes(sample, 2), {"; 1 stack lacks frames at the bottom"});
    Json json = ToJson(sample);
    EXPECT_TRUE(json["cut"] && json["threads"][0]["stack_cut"] && !json["threads"][1]["stack_cut"]);
}

TEST(OpenReply, TakesTheTimingOffTheEnd) {
    const std::string title = "Time spent in JVM for processing request";
    const std::pair<std::string, std::optional<uint64_t>> rows[] = {
        {TIMING, 321}, {title + " 8 usec", 8}, {title + ";321 use", {}}, {title, {}}};
    for (auto &[timing, microseconds] : rows) {
        std::string text = Wire("x" + timing);
        Reply reply = OpenReply(text);
        EXPECT_EQ(reply.text, microseconds ? "x" : text);
        EXPECT_EQ(reply.jvm_microseconds, microseconds) << timing;
    }
}

TEST(OpenReply, RefusalsAreFailures) {
    for (const char *text :
         {"Request TIMED OUT|\t|\t\t||", "QOR Uninitialized for this JVM", "NoProcessing: Unkownn argument",
          "Invalid Request showstacTime spent in JVM for processing request;1 usec!",
          "Unable to complete Request. Please Try Again\n Garbage Collector currently running.!"}) {
        const std::string failure = FailureOf([&] { OpenReply(Wire(text)); });
        EXPECT_NE(failure, "no failure") << text;
        EXPECT_EQ(failure.find_first_of("\\\n\x1e\x1f\t"), failure.npos) << failure;
        EXPECT_EQ(failure.find("Time spent"), failure.npos);
    }
}

} // namespace
