#include "LogCapture.h"
#include "ModelObjects.h"
#include "Walk.h"
#include "Xtier/LocalChoice.h"
#include "Xtier/LocalWalk.h"
#include "Xtier/LocalWalkTimes.h"
#include "jvmti/JniCalls.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <numeric>
#include <regex>

namespace {

int64_t fakeNow = 5000000000, fakeStep; // a clock that goes on by a step at each look

void Enter(const char *part, const char *name, jobject a, jobject b = nullptr, jobject c = nullptr) {
    Java("Stage", "enter", part, name, a, b, c);
}

jobject MakeStatement() {
    return MakeObject("tessar/jdbc/driver/TessarStatement");
}

// The frames of a snapshot whose "thread class->method" matches, listed as a view lists them.
struct Listing {
    explicit Listing(const char *wanted) {
        const std::regex pattern(wanted);
        while (walk.next())
            for (walk.frames.index = 0; walk.frames.index < walk.frames.count; walk.frames.index++) {
                QorFrameRecord frame = {};
                if (QorReadFrame(&walk.frames, FRAME_METHOD_AND_CLASS, &frame) != 0)
                    continue;
                frame.frameIndex = walk.frames.index;
                const std::string name = walk.thread.name;
                if (std::regex_match(name + " " + frame.className + "->" + frame.method, pattern)) {
                    EXPECT_EQ(AddToThreadLocalInfoList(&walk.thread, &frame, &head, LOCAL_DATABASE_CALL), 0);
                }
            }
    }
    ~Listing() { FreeQorAllThreadLocalInfoList(head); }

    Walk walk;
    QorAllThreadLocalInfoList *head = nullptr;
};

struct LocalWalks : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        qorGetLocalObjectsQuotaPct = qorHandWalkQuotaPct = 100;
        qorIsPollOrTrace = 0;
    }
    void TearDown() override {
        QorCloseLocalWalk();
        SessionTest::TearDown();
    }

    static int32_t walk(Listing *listing) { return QorGetLocalVariableForAllThread(listing->head); }
};

} // namespace

// No walk goes on into the heap, which would take the time of a pass over it: not when a thread has ended and
// its record stays empty either.
TEST_F(LocalWalks, EndBeforeTheHeap) {
    Enter("nested", "gone", MakeStatement());
    Listing listing("zoo-gone .*->inner");
    Java("Zoo", "stop");
    ASSERT_EQ(walk(&listing), 0);
    EXPECT_EQ(gbQorLocalWalk.outcome.end, WALK_BEHIND_STACKS);
    ASSERT_TRUE(listing.head);
    EXPECT_EQ(listing.head->objLocalVarHandle, nullptr);
}

// Tags of the walk and of the session don't meet, and neither do those of two walks.
TEST_F(LocalWalks, LeaveNoTagsAndNoReferences) {
    jobject statement = MakeStatement();
    jobject request = MakeObject("java/lang/Object"), array = Env()->NewByteArray(1);
    Enter("three", "tagged", array, request, statement);
    ASSERT_EQ(jvmti->SetTag(statement, 7777), JVMTI_ERROR_NONE);
    ASSERT_EQ(jvmti->SetTag(request, 1), JVMTI_ERROR_NONE);
    KeepsNothing(100, [] {
        Listing listing("zoo-tagged .*Stage->.*|.* java.lang.Thread->run");
        walk(&listing);
        walk(&listing); // the first walk's results are dropped
    });
    jlong tag = -1, all[1000];
    jint count = -1;
    EXPECT_EQ(jvmti->GetTag(statement, &tag), JVMTI_ERROR_NONE);
    EXPECT_EQ(tag, 7777);
    std::iota(all, all + 1000, 1);
    EXPECT_EQ(gbQorLocalWalk.env->GetObjectsWithTags(1000, all, &count, nullptr, nullptr), JVMTI_ERROR_NONE);
    EXPECT_EQ(count, 0);
}

// The budget is looked at each thousandth callback, and what was found by then is used.
TEST_F(LocalWalks, EndWithTheirBudget) {
    Enter("nested", "timed", MakeStatement());
    Java("Zoo", "startMany", 300, 40);
    Listing many("zoo-timed .*->inner|.*ZooRun->descend.*");
    qorLocalWalkClock = [] { return fakeNow += fakeStep; };
    qorGetLocalObjectsQuotaPct = 10;
    const std::pair<int64_t, int32_t> ROWS[] = {{200001, 1000}, {1, 0}}; // 0: not ended by time
    for (const auto &[step, iterations] : ROWS) {
        prevFollowRefAbortReportTime = 0;
        fakeStep = step;
        LogCapture log(LOG_NOTE + 1);
        EXPECT_EQ(walk(&many), 0);
        EXPECT_EQ(gbQorWalkCut, iterations > 0);
        EXPECT_EQ(log.count("Aborting GetLocalObj after " + std::to_string(iterations) + " iterations ("),
                  iterations > 0)
            << log.text();
    }
}
