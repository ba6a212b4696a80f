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

namespace {

constexpr jlong SOME_TAG = 7777;

int64_t fakeNow = 5000000000, fakeStep; // a clock that goes on by a step at each look

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

// The budget is looked at each thousandth callback, and what was found by then is used.
TEST_F(LocalWalks, EndWithTheirBudget) {
    Enter("nested", "timed", MakeObject(STATEMENT));
    Java("Zoo", "startMany", 300, 40);
    Listing many({{"timed", STAGE_CLASS, "inner"}, {"", "qoragent.testing.ZooRun", "descend"}});
    qorLocalWalkClock = [] { return fakeNow += fakeStep; };
    qorGetLocalObjectsQuotaPct = 10;
    const std::pair<int64_t, int32_t> ROWS[] = {
        {200001, 1000}, {150000, 2000}, {1, 0}}; // 0: not ended by time
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
