#include "LogCapture.h"
#include "ModelObjects.h"
#include "Walk.h"
#include "Xtier/walk/LocalChoice.h"
#include "Xtier/walk/LocalWalk.h"
#include "Xtier/walk/LocalWalkTimes.h"
#include "jvmti/JniCalls.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <memory>
#include <numeric>

namespace {

constexpr int64_t SECOND = 1000000;
constexpr jlong SOME_TAG = 7777;

// A clock that a test sets, and that goes on by a step at each look; one that goes on when a walk has ended.
int64_t fakeNow, fakeStep;

int64_t LookUpClock() {
    return fakeNow += gbQorLocalWalk.outcome.end == WALK_NOT_ENDED ? 0 : fakeStep;
}

int64_t FakeClock() {
    return fakeNow += fakeStep;
}

void Enter(const char *part, const std::string &name, jobject a, jobject b = nullptr, jobject c = nullptr) {
    Java("Stage", "enter", part, name, a, b, c);
}

constexpr char STAGE_CLASS[] = "qoragent.testing.Stage";
constexpr char STATEMENT[] = "tessar/jdbc/driver/TessarStatement";

// A listed frame after a walk.
struct Found {
    std::string thread, method, signature;
    jobject object; // local reference or null
};

// Frames of a class in threads of that name, of all when empty; all methods or the one named.
struct Wanted {
    std::string thread, klass, method;
    int32_t kind = LOCAL_DATABASE_CALL;
};

// The frames of a snapshot that were asked for, listed as a view lists them.
struct Listing {
    explicit Listing(const std::vector<Wanted> &wanted) {
        while (walk.next())
            for (walk.frames.index = 0; walk.frames.index < walk.frames.count; walk.frames.index++)
                for (const Wanted &row : wanted)
                    takeFrame(row);
    }
    ~Listing() { FreeQorAllThreadLocalInfoList(head); }

    void takeFrame(const Wanted &row) {
        QorFrameRecord frame = {};
        if (QorReadFrame(&walk.frames, FRAME_METHOD_AND_CLASS, &frame) != 0)
            return;
        frame.frameIndex = walk.frames.index;
        if ((row.thread.empty() || "zoo-" + row.thread == walk.thread.name) && row.klass == frame.className &&
            (row.method.empty() || row.method == frame.method)) {
            EXPECT_EQ(AddToThreadLocalInfoList(&walk.thread, &frame, &head, row.kind), 0);
        }
    }

    std::vector<Found> found() const {
        std::vector<Found> rows;
        for (const QorAllThreadLocalInfoList *entry = head; entry; entry = entry->next)
            rows.push_back(
                {entry->threadName, entry->methodName, entry->strSignature,
                 entry->objLocalVarHandle ? Env()->NewLocalRef(entry->objLocalVarHandle) : nullptr});
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

    // The signature of the object that a walk finds for the frame of that method, which must be `expected`.
    static std::string readOne(const char *thread, const char *method, int32_t kind, jobject expected) {
        Listing listing({{thread, STAGE_CLASS, method, kind}});
        EXPECT_EQ(walk(&listing), 0);
        const std::vector<Found> rows = listing.found();
        if (rows.size() != 1)
            return "no frame";
        EXPECT_TRUE(same(rows[0].object, expected)) << thread;
        return rows[0].signature;
    }

    static bool same(jobject a, jobject b) { return Env()->IsSameObject(a, b); }
};

} // namespace

// In slot order. Classes are learnt in the first round.
TEST_F(LocalWalks, ChooseTheFirstObjectOfInterest) {
    jobject statement = MakeObject(STATEMENT);
    jobject request = MakeObject("ferrule/servlet/internal/ServletRequestImpl");
    jobject context = MakeObject("ferrule/servlet/internal/WebAppServletContext");
    jobject event = MakeObject("tessar/kvo/server/TransactionEvent");
    jobject entity = MakeObject("tessar/kvo/server/EntityImpl");
    jobject text = Text("text"), none = nullptr, klass = Env()->GetObjectClass(statement);
    const std::string FOUND = "L" + std::string(STATEMENT) + ";";
    const char *const REQUEST = "Lferrule/servlet/internal/ServletRequestImpl;";
    const char *const EVENT = "Ltessar/kvo/server/TransactionEvent;";
    const struct {
        const char *name;
        jobject a, b, c, chosen;
        std::string signature;
        int32_t kind;
    } ROWS[] = {
        {"first", statement, request, text, statement, FOUND, LOCAL_WEB_REQUEST},
        {"second", text, request, statement, request, REQUEST, LOCAL_DATABASE_CALL},
        {"after-context", context, none, statement, statement, FOUND, LOCAL_WEB_REQUEST},
        {"none", text, context, none, none, "", LOCAL_DATABASE_CALL},
        {"after-its-class", klass, statement, none, statement, FOUND, LOCAL_DATABASE_CALL},
        {"front", text, event, entity, text, EVENT, LOCAL_VIEW_OR_ENTITY},
        {"the-entity", entity, event, statement, entity, EVENT, LOCAL_VIEW_OR_ENTITY},
        {"after", event, entity, statement, entity, EVENT, LOCAL_VIEW_OR_ENTITY},
        {"twice", event, event, entity, entity, EVENT, LOCAL_VIEW_OR_ENTITY},
    };
    for (const auto &row : ROWS)
        Enter("three", row.name, row.a, row.b, row.c);
    Enter("alone", "alone", event); // a frame's gate is a neighbour in three(), and alone() has none
    Java("Tiers", "start");
    for (int32_t round = 0; round < 3; round++) {
        for (const auto &row : ROWS) {
            EXPECT_EQ(readOne(row.name, "three", row.kind, row.chosen), row.signature)
                << row.name << " round " << round;
        }
        EXPECT_EQ(readOne("alone", "alone", LOCAL_VIEW_OR_ENTITY, nullptr), "");
        // A view's frame has no neighbours: its row's attribute alone.
        Listing listing(
            {{"attribute", "tessar.kvo.server.ViewRowImpl", "setAttribute", LOCAL_VIEW_OR_ENTITY}});
        EXPECT_EQ(walk(&listing), 0);
        EXPECT_EQ(listing.found().at(0).signature, "Ltessar/kvo/server/ViewAttributeDefImpl;");
    }
}

// Nobody loses an object to another frame, and the frames of a recursion hand theirs, the top one first, to
// the one that was listed first.
TEST_F(LocalWalks, ShareObjectsBetweenFramesAndThreads) {
    jobject statement = MakeObject(STATEMENT);
    jobject top = MakeObject("tessar/jdbc/driver/TessarPreparedStatement");
    Enter("nested", "one", statement);
    Enter("nested", "two", statement);
    Enter("recursion", "deep", statement, Text("between"), top);
    for (int32_t round = 0; round < 2; round++) {
        Listing listing(
            {{"", STAGE_CLASS, "inner"}, {"", STAGE_CLASS, "innermost"}, {"", STAGE_CLASS, "fall"}});
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

// From JDK 11 on the constants of compiled code are reported beside a frame's locals.
TEST_F(LocalWalks, TakeNoConstantsOfCompiledCode) {
    jobject constant = MakeObject(STATEMENT);
    Enter("hot", "hot", constant);
    ZooVisit zoo("file-read"); // without any native frame JNI locals are not looked at
    Listing listing(
        {{"hot", "qoragent.testing.Stage$Hot", "hot"}, {"file-read", "java.io.FileInputStream", ""}});
    ASSERT_EQ(walk(&listing), 0);
    ASSERT_GT(listing.found().size(), 1u);
    for (const Found &row : listing.found())
        EXPECT_FALSE(row.object && same(row.object, constant)) << row.method;
}

// No walk goes on into the heap, which would take the time of a pass over it: also when a thread has left its
// frame, so that its record stays empty.
TEST_F(LocalWalks, EndBeforeTheHeap) {
    jobject statement = MakeObject(STATEMENT);
    Enter("leaver", "leaver", statement);
    Enter("nested", "stayer", statement);
    Listing listing({{"leaver", STAGE_CLASS, "inside"}, {"stayer", STAGE_CLASS, "inner"}});
    Java("Stage", "leave", "leaver");
    ASSERT_EQ(walk(&listing), 0);
    EXPECT_TRUE(gbQorLocalWalk.outcome.end != WALK_HEAP_REACHED &&
                gbQorLocalWalk.outcome.end != WALK_NOT_ENDED);
    for (const Found &row : listing.found())
        EXPECT_EQ(row.object != nullptr, row.thread == "zoo-stayer") << row.thread;

    // Once all records have an object, the next frame is the end.
    Listing quick({{"stayer", STAGE_CLASS, "innermost"}});
    ASSERT_EQ(walk(&quick), 0);
    EXPECT_EQ(gbQorLocalWalk.outcome.end, WALK_RECORDS_HIT);
    EXPECT_NE(quick.found()[0].object, nullptr);

    // A thread that has ended is lost: all stacks are seen, and nothing after them.
    Listing late({{"stayer", STAGE_CLASS, "inner"}});
    Java("Zoo", "stop");
    ASSERT_EQ(walk(&late), 0);
    EXPECT_EQ(gbQorLocalWalk.outcome.end, WALK_BEHIND_STACKS);
    EXPECT_EQ(late.found()[0].object, nullptr);
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
        Listing listing({{"tagged", STAGE_CLASS, ""}, {"", "java.lang.Thread", "run"}});
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

struct TimedWalks : LocalWalks {
    void SetUp() override {
        LocalWalks::SetUp();
        Enter("nested", "timed", MakeObject(STATEMENT));
        listing = std::make_unique<Listing>(std::vector<Wanted>{{"timed", STAGE_CLASS, "inner"}});
        qorLocalWalkClock = FakeClock;
        qorGetLocalObjectsQuotaPct = 10;
        fakeNow = 5000 * SECOND;
        fakeStep = 0;
    }
    void TearDown() override {
        listing.reset();
        LocalWalks::TearDown();
    }
    int32_t walk() { return LocalWalks::walk(listing.get()); }

    std::unique_ptr<Listing> listing;
};

TEST_F(TimedWalks, KeepToTheirShareOfTime) {
    qorIsPollOrTrace = 1;
    // The first poll has the whole budget. The clock is looked at twice: at the start and at the end.
    fakeStep = 3 * SECOND / 10;
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(lAllowedFollowRefTimeUSec, 200000);
    const int64_t start = fakeNow - fakeStep;
    EXPECT_EQ(nextFollowRefTime, start + 3 * SECOND);
    fakeStep = 0;
    fakeNow = start + 2 * SECOND;
    EXPECT_EQ(walk(), -1) << "barred";
    // A request that isn't a poll isn't barred, and has the whole budget.
    qorIsPollOrTrace = 0;
    fakeNow = start + SECOND;
    lAllowedFollowRefTimeUSec = 1;
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(lAllowedFollowRefTimeUSec, 200000);
    // A poll's budget is the quota's share of the time since the last walk.
    qorIsPollOrTrace = 1;
    fakeNow += SECOND / 2;
    EXPECT_EQ(walk(), 0);
    EXPECT_EQ(lAllowedFollowRefTimeUSec, 50000);
}

// The budget is looked at each thousandth callback, and what was found by then is used.
TEST_F(TimedWalks, EndWithTheirBudget) {
    Java("Zoo", "startMany", 300, 40);
    Listing many({{"timed", STAGE_CLASS, "inner"}, {"", "qoragent.testing.ZooRun", "descend"}});
    const std::pair<int64_t, int32_t> ROWS[] = {
        {200001, 1000}, {150000, 2000}, {1, 0}}; // 0: not ended by time
    for (const auto &[step, iterations] : ROWS) {
        prevFollowRefExecTime = nextFollowRefTime = prevFollowRefAbortReportTime = 0;
        fakeNow = 5000 * SECOND;
        fakeStep = step;
        LogCapture log(LOG_NOTE + 1);
        EXPECT_EQ(LocalWalks::walk(&many), 0);
        EXPECT_EQ(log.count("Aborting GetLocalObj after " + std::to_string(iterations) + " iterations ("),
                  iterations > 0)
            << log.text();
    }
}

// Requests by hand share their part of the last ten seconds; the first after ten without any is made.
TEST_F(TimedWalks, ByHandKeepToTheirShareOfTheLastSeconds) {
    qorHandWalkQuotaPct = 5;
    fakeStep = 150000; // what each walk takes, and the time between two
    // Pauses and budgets, 0 for a walk that is left out; after the second pause the first three are older
    // than ten seconds.
    const std::pair<int64_t, int64_t> ROWS[] = {{0, 200000},
                                                {0, 200000},
                                                {0, 200000},
                                                {0, 50000},
                                                {0, 0},
                                                {8 * SECOND, 0},
                                                {SECOND * 14 / 10, 200000},
                                                {0, 200000},
                                                {0, 50000},
                                                {0, 0},
                                                {10 * SECOND, 200000}};
    for (const auto &[pause, budget] : ROWS) {
        fakeNow += pause;
        EXPECT_EQ(walk(), budget ? 0 : -1) << fakeNow;
        EXPECT_EQ(gbQorWalkLeftOut, budget == 0) << fakeNow;
        EXPECT_TRUE(budget == 0 || lAllowedFollowRefTimeUSec == budget) << fakeNow;
    }
}

// The look-up of what was found is a part of the walk's time. Cut short, it leaves what classes it has seen
// to the next walk, and no object to a wrong frame.
TEST_F(TimedWalks, LookUpWithinTheirBudget) {
    jobject statement = MakeObject(STATEMENT);
    for (int i = 0; i < 100; i++) {
        const QorLocalFrame references(Env(), 16);
        Enter("three", "crowd-" + std::to_string(i), MakeObject("java/lang/Object"),
              MakeObject("java/lang/Object"), MakeObject("java/lang/Object"));
    }
    Enter("three", "looked-up", nullptr, statement);
    Listing crowd({{"", STAGE_CLASS, "three"}});
    qorLocalWalkClock = LookUpClock;
    fakeStep = SECOND;
    int64_t left = -1;
    for (int32_t walks = 1; gbQorLocalWalk.tagBase != left; walks++) {
        left = walks == 1 ? 0 : gbQorLocalWalk.tagBase;
        ASSERT_LT(walks, 10);
        EXPECT_EQ(LocalWalks::walk(&crowd), 0);
        EXPECT_EQ(nextFollowRefTime, fakeNow + (gbQorLocalWalk.tagBase != left ? 18 : 9) * SECOND) << walks;
        EXPECT_EQ(gbQorWalkCut, gbQorLocalWalk.tagBase != left) << walks;
        for (const Found &row : crowd.found())
            EXPECT_TRUE(!row.object || row.thread == "zoo-looked-up");
    }
    EXPECT_GT(left, 0) << "the first look-up was cut short";
    for (const Found &row : crowd.found())
        EXPECT_EQ(same(row.object, statement), row.thread == "zoo-looked-up");
}
