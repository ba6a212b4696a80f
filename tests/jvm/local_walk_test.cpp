#include "LogCapture.h"
#include "ModelObjects.h"
#include "Walk.h"
#include "Xtier/walk/LocalChoice.h"
#include "Xtier/walk/LocalWalk.h"
#include "Xtier/walk/LocalWalkTimes.h"
#include "jvmti/JniCalls.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <numeric>
#include <regex>

namespace {

constexpr jlong SOME_TAG = 7777;

int64_t fakeNow = 5000000000, fakeStep; // a clock that goes on by a step at each look

void Enter(const char *part, const std::string &name, jobject a, jobject b = nullptr, jobject c = nullptr) {
    Java("Stage", "enter", part, name, a, b, c);
}

constexpr char STATEMENT[] = "tessar/jdbc/driver/TessarStatement";

// A listed frame after a walk.
struct Found {
    std::string method;
    jobject object; // local reference or null
};

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

    std::vector<Found> found() const {
        std::vector<Found> rows;
        for (const QorAllThreadLocalInfoList *entry = head; entry; entry = entry->next)
            rows.push_back({entry->methodName, entry->objLocalVarHandle
                                                   ? Env()->NewLocalRef(entry->objLocalVarHandle)
                                                   : nullptr});
        return rows;
    }

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

    static bool same(jobject a, jobject b) { return Env()->IsSameObject(a, b); }
};

} // namespace

// Nobody loses an object to another frame, and the frames of a recursion hand theirs, the top one first, to
// the one that was listed first. Classes are learnt in the first round.
TEST_F(LocalWalks, ShareObjectsBetweenFramesAndThreads) {
    jobject statement = MakeObject(STATEMENT);
    jobject top = MakeObject("tessar/jdbc/driver/TessarPreparedStatement");
    Enter("nested", "one", statement);
    Enter("nested", "two", statement);
    Enter("recursion", "deep", statement, Text("between"), top);
    for (int32_t round = 0; round < 2; round++) {
        Listing listing(".*Stage->(inner|innermost|fall)");
        ASSERT_EQ(walk(&listing), 0);
        int32_t shared = 0;
        std::vector<jobject> recursive;
        for (const Found &row : listing.found()) {
            shared += row.method != "fall" && same(row.object, statement);
            if (row.method == "fall")
                recursive.push_back(row.object);
        }
        EXPECT_EQ(shared, 4);
        ASSERT_EQ(recursive.size(), 3u);
        EXPECT_TRUE(!recursive[0] && !recursive[1] && same(recursive[2], top));
    }
}

// No walk goes on into the heap, which would take the time of a pass over it: not when a thread has ended and
// its record stays empty either.
TEST_F(LocalWalks, EndBeforeTheHeap) {
    Enter("nested", "gone", MakeObject(STATEMENT));
    Listing listing("zoo-gone .*->inner");
    Java("Zoo", "stop");
    ASSERT_EQ(walk(&listing), 0);
    EXPECT_EQ(gbQorLocalWalk.outcome.end, WALK_BEHIND_STACKS);
    EXPECT_EQ(listing.found()[0].object, nullptr);
}

// Tags of the walk and of the session don't meet, and neither do those of two walks.
TEST_F(LocalWalks, LeaveNoTagsAndNoReferences) {
    jobject statement = MakeObject(STATEMENT);
    jobject request = MakeObject("ferrule/servlet/internal/ServletRequestImpl"),
            array = Env()->NewByteArray(1);
    Enter("three", "tagged", array, request, statement);
    ASSERT_EQ(jvmti->SetTag(statement, SOME_TAG), JVMTI_ERROR_NONE);
    ASSERT_EQ(jvmti->SetTag(request, 1), JVMTI_ERROR_NONE);
    KeepsNothing(100, [] {
        Listing listing("zoo-tagged .*Stage->.*|.* java.lang.Thread->run");
        walk(&listing);
        walk(&listing); // the first walk's results are dropped
    });
    jlong tag = -1, all[1000];
    jint count = -1;
    EXPECT_EQ(jvmti->GetTag(statement, &tag), JVMTI_ERROR_NONE);
    EXPECT_EQ(tag, SOME_TAG);
    std::iota(all, all + 1000, 1);
    EXPECT_EQ(gbQorLocalWalk.env->GetObjectsWithTags(1000, all, &count, nullptr, nullptr), JVMTI_ERROR_NONE);
    EXPECT_EQ(count, 0);
}

// The budget is looked at each thousandth callback, and what was found by then is used.
TEST_F(LocalWalks, EndWithTheirBudget) {
    Enter("nested", "timed", MakeObject(STATEMENT));
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
