// The views of one thread and of its lock, from replies built by hand; deadlocks and names out of a sample.
#include "show/json.h"
#include "show/locks.h"
#include "show/render.h"
#include "wire.h"

using namespace qorctl;

namespace {

const std::string HEAD = "Thread Info Details;http-1~^~ ~ ~77-23~a.Cart->add~Cart.java~40~Lock!";

TEST(DecodeStack, OddReplies) {
    const std::string rows = "Call Stack;user~23~0~1~2~3~a.Cart->add~Cart.java~40;!";
    const ThreadSample sample = Stack("Lock On;99~77-31~a.Lock@99~View Thread Holding this Lock!" + HEAD +
                                      rows + "JVM Locks;0~0~a.Cart@1565871900~1;7~0~a.Odd@name~0;!" + TIMING);
    const Thread &thread = sample.threads.at(0);
    EXPECT_EQ(thread.waits_for.value().owner.thread, 31); // it comes before its thread
    EXPECT_EQ(thread.owns.at(0).lock, 1565871900);        // a lock without a number has the one in its text
    EXPECT_EQ(thread.owns.at(1).class_name, "a.Odd@name");
    ExpectParts(ThreadDump(Stack(HEAD + rows + "Parked On;8~a.Latch@8!" + TIMING), Style()),
                {"\n\t- parking to wait for <8> (a a.Latch)\n"});
    EXPECT_TRUE(Stack(TIMING).threads.empty() && !Stack(TIMING).cut);    // no such thread
    ThreadSample frameless = Stack("Thread Info Details;n~^~" + TIMING); // its frames were unavailable
    EXPECT_TRUE(frameless.threads.empty() && frameless.cut);
}

TEST(DecodeStack, AFullStackIsReportedAsCut) {
    const std::string row = "user~23~0~1~2~3~a." + std::string(1000, 'B') + "->c~F~1;";
    std::string rows = HEAD + "Call Stack;";
    while (rows.size() < 100000)
        rows += row;
    rows += "!";
    EXPECT_FALSE(Stack(rows + TIMING).threads[0].stack_cut);
    ThreadSample cut = Stack(rows);
    ExpectParts(ThreadDump(cut, Style()), {"\t... frames below are missing"});
    ExpectParts(StackNotes(cut), {"frames at its bottom are missing"});
    EXPECT_EQ(ToJson(cut)["cut"], true);
}

TEST(DecodeLockHolder, Answers) {
    const std::pair<std::string, LockHolder::Answer> rows[] = {
        {"", LockHolder::MOVED_ON},
        {"!", LockHolder::NOBODY},
        {"Thread Holding Lock;!", LockHolder::NO_FRAMES},
        {"Thread Holding Lock;sys~own~77-31~a.B->c~Native Method~ ~Sleeping!", LockHolder::FOUND},
    };
    for (auto &[reply, answer] : rows)
        EXPECT_EQ(DecodeLockHolder(OpenReply(Wire(reply + TIMING))).answer, answer) << reply;
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
    EXPECT_EQ(LocksJson(sample)["deadlocks"], Json({{1, 2, 3}, {4}})); // thread 9 only waits for one
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

} // namespace
