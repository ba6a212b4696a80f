// The views of one thread and of its lock, from replies built by hand; deadlocks and names out of a sample.
#include "show/json.h"
#include "show/locks.h"
#include "show/render.h"
#include "wire.h"
#include "wire/request.h"

using namespace qorctl;

namespace {

const std::string WAIT = "Lock On;99~77-31~a.Lock@99~View Thread Holding this Lock!";
const std::string HEAD = "Thread Info Details;http-1~^~ ~ ~77-23~a.Cart->add~Cart.java~40~Lock!";
const std::string ROWS = "Call Stack;user~23~0~-1609482896~2~3~a.Cart->add~Cart.java~40;"
                         "sys~23~1~1678214552~2~3~java.lang.Thread->run~Native Method~ ;!";
const std::string LOCKS = "JVM Locks;0~0~a.Cart@1565871900~1;7~0~a.Odd@name~0;!";

TEST(DecodeStack, WholeReply) {
    ThreadSample sample = Stack(WAIT + HEAD + ROWS + LOCKS + TIMING);
    const Thread &thread = sample.threads.at(0);
    EXPECT_FALSE(sample.cut || thread.request_url || thread.request_detail);
    EXPECT_TRUE(*thread.stack.at(0).user && !*thread.stack.at(1).user);
    EXPECT_EQ(thread.waits_for.value().owner.thread, 31); // it comes before its thread
    EXPECT_EQ(thread.owns.at(0).lock, 1565871900);        // a lock without a number has the one in its text
    EXPECT_EQ(thread.owns.at(0).class_name + thread.owns.at(1).class_name, "a.Carta.Odd@name");
    ExpectParts(StackNotes(sample), {"2 frames, 321 us"});
    sample = Stack(HEAD + ROWS + "Parked On;8~a.Latch@8!" + TIMING);
    EXPECT_EQ(ToJson(sample)["threads"][0]["parked_on"], Json({{"lock", 8}, {"class", "a.Latch"}}));
    ExpectParts(ThreadDump(sample, Style()), {"\n\t- parking to wait for <8> (a a.Latch)\n"});
}

TEST(DecodeStack, OddThreads) {
    ThreadSample bare = Stack("Thread Info Details;idle~^~ ~ ~77-9~ ~ ~ ~Object Wait!Call Stack;!" + TIMING);
    EXPECT_TRUE(!bare.threads.at(0).call && bare.threads[0].stack.empty());
    EXPECT_TRUE(Stack(TIMING).threads.empty() && !Stack(TIMING).cut);    // no such thread
    ThreadSample frameless = Stack("Thread Info Details;n~^~" + TIMING); // its frames were unavailable
    EXPECT_TRUE(frameless.threads.empty() && frameless.cut);
    for (const std::string &wrong :
         {HEAD + "Call Stack;other~23~0~1~2~3~a->b~F~1;!", HEAD + "Call Stack;user~23~0~1~2~a->b~F~1;!",
          std::string("Thread Info Details;n~x~ ~ ~77-9~ ~ ~ ~Lock!"),
          std::string("Thread Info Details;n~^~ ~ ~77-9~ ~ ~ ~DB Wait{a~b!"), ROWS})
        EXPECT_THROW(Stack(wrong + TIMING), Failure) << wrong;
}

TEST(DecodeStack, AFullStackIsReportedAsCut) {
    std::string rows = "Call Stack;";
    const std::string row = "user~23~0~1~2~3~a." + std::string(1000, 'B') + "->c~F~1;";
    while (rows.size() + row.size() < 99000)
        rows += row;
    EXPECT_FALSE(Stack(HEAD + rows + "!").threads[0].stack_cut);
    rows += row + row + "!";
    EXPECT_FALSE(Stack(HEAD + rows + TIMING).threads[0].stack_cut);
    ThreadSample cut = Stack(HEAD + rows);
    ExpectParts(ThreadDump(cut, Style()), {"\t... frames below are missing"});
    ExpectParts(StackNotes(cut), {"frames at its bottom are missing"});
    EXPECT_EQ(ToJson(cut)["cut"], true);
}

TEST(DecodeLockHolder, Answers) {
    const std::pair<std::string, LockHolder::Answer> rows[] = {
        {TIMING, LockHolder::MOVED_ON},
        {"!" + TIMING, LockHolder::NOBODY},
        {"Thread Holding Lock;!" + TIMING, LockHolder::NO_FRAMES},
        {"Thread Holding Lock;sys~own~77-31~a.B->c~Native Method~ ~Sleeping!" + TIMING, LockHolder::FOUND},
    };
    LockHolder holder;
    for (auto &[reply, answer] : rows) {
        holder = DecodeLockHolder(OpenReply(Wire(reply)));
        EXPECT_EQ(holder.answer, answer) << reply;
        EXPECT_EQ(ToJson(holder).is_null(), answer != LockHolder::FOUND);
    }
    EXPECT_EQ(HolderLine(holder.thread, Style()), "held by \"own\" #31 Sleeping in a.B.c(Native Method)\n");
    for (const char *wrong : {"Thread Holding Lock;sys~own~77~a.B->c~F~1~Lock!", "Other;x!"})
        EXPECT_THROW(DecodeLockHolder(OpenReply(Wire(wrong + TIMING))), Failure) << wrong;
}

// Threads by number; each waits for the lock that the second one holds, 0 for none.
ThreadSample Waiting(std::initializer_list<std::pair<int, int>> threads) {
    ThreadSample sample;
    for (auto [id, owner] : threads) {
        Thread &thread = sample.threads.emplace_back();
        thread.key = {77, id};
        thread.name = "t" + std::to_string(id);
        thread.state = "Lock";
        if (owner)
            thread.waits_for = LockWait{owner * 10, {77, owner}, "a.Lock"};
    }
    return sample;
}

TEST(Locks, DeadlocksAreFoundOnce) {
    EXPECT_TRUE(FindDeadlocks(Waiting({{1, 2}, {2, 3}, {3, 0}, {4, -1}, {5, 99}})).empty());
    ThreadSample sample = Waiting({{9, 1}, {1, 2}, {2, 3}, {3, 1}, {4, 4}, {5, 9}});
    ExpectParts(LocksText(sample, Style()),
                {"deadlock: t1 #1 waits for t2 #2 waits for t3 #3 waits for t1 #1\n"});
    EXPECT_EQ(LocksJson(sample)["waits"].at(1)["holder"]["name"], "t2");
    EXPECT_EQ(LocksJson(sample)["deadlocks"], Json({{1, 2, 3}, {4}})); // thread 9 only waits for one
}

// Held by one out of sight, by one that a carrier runs, by nobody knows whom, and by one that a cut reply
// lacks.
TEST(Locks, HoldersOutOfSightAreNamedAsSuch) {
    ThreadSample known = Waiting({{1, 99}, {2, 3}, {3, 0}, {4, -1}});
    known.threads[2].stack.emplace_back().class_name = "java.lang.VirtualThread";
    known.threads[3].waits_for->owner.thread = 0;
    std::string text = LocksText(known, Style());
    EXPECT_NE(text.find("held by a virtual thread"), text.rfind("held by a virtual thread")) << text;
    ExpectParts(text, {"owner unknown"});
    known.threads[2].owns = {{30, "a.Lock", 1}};
    known.cut = true;
    text = LocksText(known, Style());
    EXPECT_EQ(text.find("virtual"), std::string::npos) << text;
    ExpectParts(text, {"#99\n"});
}

// A sample whose waits name no owner: the rows of owned locks lead to it, by number and class.
TEST(Locks, HoldersAreFoundByWhatTheyOwn) {
    ThreadSample sample = Waiting({{1, 0}, {2, 0}, {3, 0}, {4, -1}});
    for (Thread &thread : sample.threads)
        thread.waits_for = LockWait{7, {77, 0}, "a.Lock"};
    sample.threads[0].owns = {{7, "a.Lock", 1}};
    sample.threads[1].owns = {{8, "a.Lock", 1}, {7, "a.Other", 1}};
    sample.threads[2].owns = {{8, "a.Lock", 1}, {7, "a.Lock", 1}};
    sample.threads[3].waits_for->owner.thread = -1;
    EXPECT_EQ(HolderOf(sample, sample.threads[1]), &sample.threads[0]);
    EXPECT_EQ(HolderOf(sample, sample.threads[0]), &sample.threads[2]) << "nobody waits for himself";
    EXPECT_EQ(HolderOf(sample, sample.threads[3]), nullptr) << "nobody holds it, says the JVM";
}

TEST(Locks, NamesOfThreads) {
    ThreadSample sample = Waiting({{1, 0}, {2, 0}, {12, 0}});
    EXPECT_EQ(FindByName(sample, "t1").key.thread, 1); // a whole name before a part of one
    EXPECT_EQ(FindByName(sample, "T12").key.thread, 12);
    for (const char *wrong : {"t", "x"})
        EXPECT_THROW(FindByName(sample, wrong), Failure);
    EXPECT_TRUE(IsThreadNumber("12") && IsThreadNumber("77-12") && !IsThreadNumber("t-12"));
}

} // namespace
