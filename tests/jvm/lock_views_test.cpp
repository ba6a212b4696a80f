// The full stack of one thread, and the way from a lock to its holder.
#include "JvmFixture.h"
#include "RequestHandler/RequestHandler.h"
#include "SampleReply.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "reply/records.h"

#include <cstring>
#include <unistd.h>

namespace {

struct Views : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorLockInfoLevel = 1;
    }
    void TearDown() override {
        qorLockInfoLevel = 0;
        SessionTest::TearDown();
    }
};

int64_t IdOf(const char *kind) {
    return CallLong(ZOO, "id", "(Ljava/lang/String;)J", Text(kind));
}

std::string Key(int64_t id) {
    return std::to_string(getpid()) + "-" + std::to_string(id);
}

} // namespace

TEST_F(Views, StackHasEveryFrameAndTheLocks) {
    ZooVisit zoo("holder,blocked");
    const TrueThread truth = ThreadTruth().at(IdOf("blocked"));
    const std::vector<std::string> sections =
        Split(Ask(QORREQ_THREAD_DETAILS, "", Key(truth.id)), SECTION_END);
    ASSERT_EQ(5u,
              sections.size()); // the wait, the head, the stack, the locks and nothing behind the last end

    const std::vector<std::string> wait = Split(Split(sections[0], RECORD_END).at(1), FIELD_SEP);
    ASSERT_EQ(1u, truth.wanted.size());
    EXPECT_EQ(std::to_string(truth.wanted[0].hash), wait.at(0));
    EXPECT_EQ(Key(truth.wanted[0].owner), wait.at(1));

    const std::vector<std::string> head = Split(Split(sections[1], RECORD_END).at(1), FIELD_SEP);
    ASSERT_EQ(9u, head.size());
    EXPECT_EQ(truth.name, head[0]);
    EXPECT_EQ("^", head[1]);
    EXPECT_EQ(" ", head[2]);
    EXPECT_EQ(" ", head[3]);
    EXPECT_EQ(Key(truth.id), head[4]);
    EXPECT_EQ(truth.frames[0].call, head[5]);
    EXPECT_EQ(std::to_string(truth.frames[0].line), head[7]);
    EXPECT_EQ("Lock", head[8]);

    const std::vector<std::string> rows = Split(sections[2], RECORD_END);
    EXPECT_EQ("Call Stack", rows[0]);
    ASSERT_EQ(truth.frames.size() + 2, rows.size()); // the title, and nothing behind the last end
    for (size_t i = 0; i < truth.frames.size(); ++i) {
        const std::vector<std::string> row = Split(rows[i + 1], FIELD_SEP);
        ASSERT_EQ(9u, row.size());
        EXPECT_EQ("user", row[0]);
        EXPECT_EQ(std::to_string(truth.id), row[1]);
        EXPECT_EQ(std::to_string(i), row[2]);
        EXPECT_EQ("2", row[4]);
        EXPECT_EQ("3", row[5]);
        EXPECT_EQ(truth.frames[i].call, row[6]);
        const bool hasLine = truth.frames[i].line > 0;
        EXPECT_EQ(hasLine ? truth.frames[i].file : "Native Method", row[7]);
        EXPECT_EQ(hasLine ? std::to_string(truth.frames[i].line) : " ", row[8]);
    }

    const std::vector<std::string> locks = Split(sections[3], RECORD_END);
    EXPECT_EQ("JVM Locks", locks[0]);
    ASSERT_EQ(truth.owned.size() + 2, locks.size());
    const std::vector<std::string> lock = Split(locks[1], FIELD_SEP);
    EXPECT_EQ("0", lock.at(0)); // management knows no hash of an owned lock, and this view shows the hash
    EXPECT_EQ(truth.owned[0].className + "@" + std::to_string(truth.owned[0].hash), lock.at(2));
    EXPECT_EQ(std::to_string(truth.owned[0].depth), lock.at(3));
}

// What no thread owns: shown by both views with stacks, as the JVM names it.
TEST_F(Views, AThreadShowsWhatItIsParkedBy) {
    ZooVisit zoo("latch,lock-holder,lock-waiter,park");
    const TrueThread truth = ThreadTruth().at(IdOf("latch"));
    ASSERT_EQ(1u, truth.wanted.size());
    const std::string hash = std::to_string(truth.wanted[0].hash),
                      record = hash + FIELD_SEP + truth.wanted[0].className + "@" + hash;
    poll_details = FLAG_POLL_DETAILS;
    const SampleReply all = SampleReply::Parse(Ask(QORREQ_POLL_DETAILS, "JVMALLTHREADS"), true, true);
    poll_details = 0;
    EXPECT_EQ("", all.error);
    for (const char *kind : {"latch", "lock-holder", "lock-waiter", "park"}) {
        const bool shown =
            strcmp(kind, "latch") == 0; // the waiter has an owner's record, the others no blocker
        ASSERT_NE(nullptr, all.Find("zoo-" + std::string(kind)));
        EXPECT_EQ(shown ? record : "", all.Find("zoo-" + std::string(kind))->parkedOn) << kind;
        const std::vector<std::string> sections =
            Split(Ask(QORREQ_THREAD_DETAILS, "", Key(IdOf(kind))), SECTION_END);
        EXPECT_EQ(shown, sections[sections.size() - 2] == "Parked On\x1e" + record) << kind;
    }
}

TEST_F(Views, StackOfNobodyIsEmptyAndADeepOneIsWhole) {
    EXPECT_EQ("", Ask(QORREQ_THREAD_DETAILS, "", "1-1"));
    EXPECT_EQ("", Ask(QORREQ_THREAD_DETAILS, "", ""));
    CallObject(ZOO, "startDeep", "(I)Ljava/lang/Thread;", 700);
    const std::string deep = Ask(QORREQ_THREAD_DETAILS, "", Key(IdOf("deep-700")));
    EXPECT_EQ(std::string::npos, deep.find("skipped"));
    EXPECT_EQ(702u, Split(Split(deep, SECTION_END).at(1), RECORD_END).size());
    CallVoid(ZOO, "stop", "()V");
}

TEST_F(Views, LockLeadsToItsHolder) {
    ZooVisit zoo("holder,blocked,sleep");
    const std::map<int64_t, TrueThread> truth = ThreadTruth();
    const TrueThread &blocked = truth.at(IdOf("blocked")), &holder = truth.at(IdOf("holder"));
    const std::string lock = std::to_string(blocked.wanted.at(0).hash), waiter = Key(blocked.id);

    const std::string reply = Ask(QORREQ_LOCK_HOLDER, lock, waiter);
    const std::vector<std::string> parts = Split(reply, RECORD_END);
    ASSERT_EQ(2u, parts.size()) << reply;
    EXPECT_EQ("Thread Holding Lock", parts[0]);
    const std::vector<std::string> row = Split(parts[1], FIELD_SEP);
    ASSERT_EQ(7u, row.size()) << reply;
    EXPECT_EQ("user", row[0]);
    EXPECT_EQ(holder.name, row[1]);
    EXPECT_EQ(Key(holder.id), row[2]);
    EXPECT_EQ(holder.frames.at(0).call, row[3]);
    EXPECT_EQ(std::string("Object Wait") + SECTION_END, row[6]);

    // A thread that waits for another lock, or for none, leads nowhere; so does a request without its fields.
    EXPECT_EQ("", Ask(QORREQ_LOCK_HOLDER, "1", waiter));
    EXPECT_EQ("", Ask(QORREQ_LOCK_HOLDER, std::to_string((1LL << 32) + blocked.wanted[0].hash), waiter));
    EXPECT_EQ("", Ask(QORREQ_LOCK_HOLDER, lock, Key(IdOf("sleep"))));
    EXPECT_EQ("", Ask(QORREQ_LOCK_HOLDER, lock, ""));
    EXPECT_EQ("", Ask(QORREQ_LOCK_HOLDER, "", waiter));
    qorLockInfoLevel = 2; // there any lock of a waiting thread will do
    EXPECT_EQ(reply, Ask(QORREQ_LOCK_HOLDER, "1", waiter));
    qorLockInfoLevel = 3;
    EXPECT_EQ("", Ask(QORREQ_LOCK_HOLDER, lock, waiter));
}
