// Replies built by hand, in every form that the agent has: whole, odd, cut and wrong.
#include "base/failure.h"
#include "show/json.h"
#include "show/render.h"
#include "wire.h"
#include "wire/decode.h"

#include <gtest/gtest.h>

using namespace qorctl;

namespace {

ThreadSample Threads(std::string_view legible) {
    std::string text = Wire(legible);
    return DecodeThreads(OpenReply(text));
}

std::string FailureOf(std::string_view legible) {
    try {
        Threads(legible);
    } catch (const Failure &failure) {
        EXPECT_FALSE(failure.hint.empty());
        return failure.what();
    }
    return "no failure";
}

TEST(DecodeThreads, ActiveRows) {
    ThreadSample sample =
        Threads("JVM Active Threads;" + ACTIVE_ROW +
                ";a~idle one~^~shop.jsp~id=7~77-24~^~^~^~Object Wait;"
                "a~native~^~^~^~77-25~sun.nio.ch.Net->poll~Native Method~^~*Network Wait;!" +
                TIMING);
    ASSERT_EQ(sample.threads.size(), 3u);
    const Thread &second = sample.threads[1], &third = sample.threads[2];
    EXPECT_FALSE(sample.threads[0].request_url);
    EXPECT_EQ(second.request_url, "shop.jsp");
    EXPECT_EQ(second.request_detail, "id=7");
    EXPECT_FALSE(second.call);
    EXPECT_EQ(third.state, "Network Wait"); // the mark of level 3 isn't a part of it
    ASSERT_TRUE(third.call);
    EXPECT_EQ(third.call->line, 0);
    EXPECT_EQ(third.call->file, "");
    EXPECT_EQ(sample.jvm_microseconds, 321u);
    EXPECT_FALSE(sample.cut);
    for (const char *title : {"JVM Active Threads;!", "Thread Info Details;!"}) {
        ThreadSample none = Threads(title + TIMING);
        EXPECT_TRUE(none.threads.empty() && !none.cut) << title;
    }
}

TEST(DecodeThreads, OddTextsStayWhole) {
    const struct {
        std::string name, class_name, method;
    } rows[] = {
        {"a^b|c\t\xc3\xa9 \xff", "A", "<init>"},
        {"^", "odd->name", "run"},
        {"x\r\ny", "L$$Lambda/0x00007f", "accept"},
        {"Time spent in JVM for processing request", "A", "b-c"},
    };
    for (auto &row : rows) {
        ThreadSample sample = Threads("JVM Active Threads;a~" + row.name + "~^~^~^~1-2~" + row.class_name +
                                      "->" + row.method + "~F.java~1~Lock;!" + TIMING);
        ASSERT_EQ(sample.threads.size(), 1u) << row.name;
        EXPECT_EQ(sample.threads[0].name, row.name);
        EXPECT_EQ(sample.threads[0].call->class_name, row.class_name);
        EXPECT_EQ(sample.threads[0].call->method, row.method);
    }
}

TEST(DecodeThreads, WaitDetailsWithoutKnowledge) {
    ThreadSample sample =
        Threads("JVM Active Threads;"
                "a~db~^~^~^~1-2~A->b~A.java~3~DB Wait{10}^~^~0~0~^~0~-5~select 'a'\nfrom t~^~^;"
                "a~empty rmi~^~^~^~1-5~A->b~A.java~3~*RMI Wait{&0~0~^~^;"
                "a~nameless rmi~^~^~^~1-6~A->b~A.java~3~RMI Wait{&1~2~h~NA;!" +
                TIMING);
    ASSERT_EQ(sample.threads.size(), 3u);
    ASSERT_TRUE(sample.threads[0].db && sample.threads[1].rmi && sample.threads[2].rmi);
    const DbWait &db = *sample.threads[0].db;
    EXPECT_EQ(sample.threads[0].state, "DB Wait");
    EXPECT_FALSE(db.url || db.user || db.remote_host || db.type);
    EXPECT_EQ(db.sql, "select 'a'\nfrom t");
    EXPECT_EQ(db.sql_ref, -5);
    EXPECT_EQ(sample.threads[1].state, "RMI Wait");
    EXPECT_FALSE(sample.threads[1].rmi->remote_host || sample.threads[1].rmi->jndi_name);
    EXPECT_EQ(sample.threads[2].rmi->remote_host, "h");
    EXPECT_FALSE(sample.threads[2].rmi->jndi_name);
}

TEST(DecodeThreads, StacksAndLocks) {
    ThreadSample sample = Threads("Thread Info Details;" + DETAILS_ROW + "!" + STACK +
                                  "!JVM Locks;-13~0~com.acme.X@-13~900;"
                                  "!Thread Info Details;idle~^~^~^~77-31~^~^~^~Object Wait!Call Stack"
                                  ";java.lang.Object->wait~Object.java~338~31~0~9~^~^"
                                  "!Lock On;5~77--1~a.B@4~View Thread Holding this Lock"
                                  "!Thread Info Details;sys~^~^~^~^~77-32~^~^~^~Runnable!" +
                                  TIMING);
    ASSERT_EQ(sample.threads.size(), 3u);
    EXPECT_EQ(sample.threads[2].key.thread, 32); // read by address, its name wasn't to be read
    const Thread &first = sample.threads[0], &second = sample.threads[1];
    ASSERT_EQ(first.stack.size(), 4u);
    EXPECT_EQ(first.stack[2].index, 153);
    EXPECT_EQ(first.stack[3].skipped, 0);
    EXPECT_EQ(first.stack[3].index, 850);
    EXPECT_EQ(first.owns.at(0).class_name, "com.acme.X");
    EXPECT_EQ(second.waits_for.value().owner.thread, -1);
    EXPECT_EQ(second.waits_for->class_name, "a.B@4"); // another number than the lock's: part of the name
    EXPECT_TRUE(second.owns.empty());
}

// What Java adds to a row, in details and cut anywhere: whole where it is, and the rest is reported as
// missing.
TEST(DecodeThreads, CutAnywhere) {
    const std::string record = "Thread Info Details;" + DETAILS_ROW + ADDED + "!" + STACK;
    const std::string whole = record + "!JVM Locks;12~0~com.acme.Cart@12~1;!" + record + "!";
    for (size_t length = 1; length < whole.size(); ++length) {
        ThreadSample sample = Threads(whole.substr(0, length));
        EXPECT_TRUE(sample.cut || whole[length - 1] == '!') << length;
        EXPECT_LE(sample.threads.size(), length <= whole.rfind("Thread Info Details") ? 1u : 2u) << length;
        for (const Thread &thread : sample.threads) {
            EXPECT_EQ(thread.name + thread.state, "http-1Lock");
            EXPECT_EQ(thread.end_to_end.peer, "10.0.0.1:25") << length;
            for (const Frame &frame : thread.stack)
                EXPECT_TRUE(frame.skipped == 697 || frame.method_id > 140000) << length;
        }
    }
    ThreadSample sample = Threads(whole.substr(0, whole.size() - 5));
    EXPECT_EQ(sample.threads.size(), 2u);
    EXPECT_EQ(sample.threads[1].stack.size(), 3u); // the last row lacks its end
}

TEST(DecodeThreads, CutRowsOfActiveThreads) {
    const struct {
        std::string tail;
        size_t threads;
        bool cut;
    } rows[] = {
        {"Runna", 1, true},         {"!", 1, true}, // fields are missing, but the section's end still fitted
        {"DB Wait{10}^~", 1, true}, {"Lock;", 2, true}, // section not ended
        {"Lock;!", 2, false},                           // whole, no room for the timing
    };
    for (auto &row : rows) {
        ThreadSample sample = Threads("JVM Active Threads;" + ACTIVE_ROW + ";a~x~^~^~^~1-2~A->b~A.java~3" +
                                      (row.tail == "!" ? "" : "~") + row.tail);
        EXPECT_EQ(sample.threads.size(), row.threads) << row.tail;
        EXPECT_EQ(sample.cut, row.cut) << row.tail;
    }
    // A long reply has lost records when the agent left its timing out, though it ends well.
    std::string reply = "JVM Active Threads;";
    while (reply.size() < 1000000)
        reply += ACTIVE_ROW + ";";
    EXPECT_FALSE(Threads(reply + "!" + TIMING).cut);
    EXPECT_TRUE(Threads(reply + "!").cut);
}

TEST(DecodeThreads, StacksWithoutTheirBottomAreReported) {
    std::string skip = "497 frames are skipped for storage and performance optimization~NA~^~23~3~0~^~^";
    ThreadSample sample = Threads("Thread Info Details;" + DETAILS_ROW + "!" + STACK + ";" + skip +
                                  "!Thread Info Details;" + DETAILS_ROW + "!" + STACK + "!" + TIMING);
    EXPECT_NE(ThreadDump(sample, Style()).find("\t... 497 frames skipped\n\n"), std::string::npos);
    EXPECT_NE(SampleNotes(sample, 2).find("; 1 stack lacks frames at the bottom"), std::string::npos);
    Json json = ToJson(sample);
    EXPECT_TRUE(json["cut"] && json["threads"][0]["stack_cut"] && !json["threads"][1]["stack_cut"]);
}

TEST(DecodeThreads, WrongRecordsAreRefused) {
    const std::string row = "JVM Active Threads;a~n~^~^~^~7-8~",
                      details = "Thread Info Details;" + DETAILS_ROW + "!";
    const std::pair<std::string, const char *> replies[] = {
        {"JVM Active Threads;b" + ACTIVE_ROW.substr(1) + ";!", "record 1"},
        {"JVM Active Threads;" + ACTIVE_ROW + ";a~n~^~^~^~7-8~A->b~F~1;!", "record 2"},
        {"JVM Active Threads;a~n~^~^~^~77~A->b~F~1~Lock;!", "record 1"}, // key
        {row + "Ab~F~1~Lock;!", "record 1"},
        {row + "A->b~F~one~Lock;!", "record 1"},
        {row + "A->b~F~^~Lock;!", "record 1"}, // the line is missing, the file isn't
        {row + "A->b~F~1~;!", "record 1"},
        {row + "A->b~F~1~DB Wait{9}^~^~0~0~^~0~0~^~^~^;!", "record 1"},
        {row + "A->b~F~1~RMI Wait{&1~2~h;!", "record 1"},
        {"Call Stack;A->b~F~1~1~0~1~^~^!", "before any thread"},
        {details + "Call Stack;A->b~F~1~1~zero~1~^~^!", "Call Stack"},
        {details + "JVM Locks;1~0~A~deep;!", "JVM Locks"},
        {details + "Lock On;1~owner~A~v!", "Lock On"},
        {"JVM Heap Usage;1!", "unexpected section"},
    };
    for (auto &[reply, told] : replies)
        EXPECT_NE(FailureOf(reply + TIMING).find(told), std::string::npos) << reply << "\n"
                                                                           << FailureOf(reply);
    EXPECT_NE(FailureOf("").find("empty"), std::string::npos);
}

TEST(DecodeSummary, ThirteenNumbersWithTheTimingGlued) {
    std::string text = Wire("99~57~41~1~2~3~4~5~6~7~8~9~13" + TIMING);
    Summary summary = DecodeSummary(OpenReply(text));
    const int64_t expected[SUMMARY_FIGURES] = {99, 57, 41, 1, 2, 3, 4, 5, 6, 7, 8, 9, 13};
    for (int i = 0; i < SUMMARY_FIGURES; ++i)
        EXPECT_EQ(summary.figures[i], expected[i]) << SUMMARY_NAMES[i].key;
    EXPECT_EQ(summary.jvm_microseconds, 321u);
    for (const char *wrong : {"1~2~3", "1~2~3~4~5~6~7~8~9~10~11~12~x", "1~2~3~4~5~6~7~8~9~10~11~12~13~14"})
        EXPECT_THROW(DecodeSummary(OpenReply(Wire(wrong))), Failure) << wrong;
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
         {"Request TIMED OUT|\t|\t\t||", "QOR Uninitialized for this JVM",
          "Invalid Request showstacTime spent in JVM for processing request;1 usec!",
          "NoProcessing: Unkownn argument",
          "Unable to complete Request. Please Try Again\n Garbage Collector currently running.!"}) {
        try {
            OpenReply(Wire(text));
            ADD_FAILURE() << text;
        } catch (const Failure &failure) {
            EXPECT_EQ(failure.code, EXIT_NO_ANSWER);
            EXPECT_EQ(std::string(failure.what()).find_first_of("\n\x1e\x1f\t"), std::string::npos);
            EXPECT_EQ(std::string(failure.what()).find("Time spent"), std::string::npos);
            EXPECT_FALSE(failure.hint.empty());
        }
    }
    EXPECT_EQ(DecodeText(OpenReply("Added Idle Thread Rules")), "Added Idle Thread Rules");
}

} // namespace
