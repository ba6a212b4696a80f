#include "JvmFixture.h"
#include "LogCapture.h"
#include "Walk.h"
#include "jvmti/JniCalls.h"
#include "jvmti/JvmtiCalls.h"
#include "qorsettings.h"
#include "qorutil.h"

namespace {

struct Threads : SessionTest {
    ~Threads() override {
        maxStackDepthQueried = 1000;
        readconditions(nullptr);
    }
};

std::vector<TrueFrame> shownToJava(const std::vector<TrueFrame> &frames) {
    std::vector<TrueFrame> shown;
    for (const TrueFrame &frame : frames)
        if (!IsMadeByJvm(frame.call))
            shown.push_back(frame);
    return shown;
}

// The frames of the thread at the cursor, as the JVM would write them. The class of a frame that could not be
// read is "?".
std::vector<TrueFrame> readFrames(Walk *walk) {
    std::vector<TrueFrame> frames;
    QorFrameRecord record;
    for (int32_t i = 0; i < walk->frames.count; i++) {
        walk->frames.index = i;
        const bool read = QorReadFrame(&walk->frames, FRAME_WITH_FILE_AND_LINE, &record) == 0;
        EXPECT_EQ(record.frameIndex, i);
        frames.push_back({(read ? record.className : "?") + std::string("->") + record.method,
                          *record.fileName ? record.fileName : "-", record.line});
    }
    return frames;
}

void expectFrames(const TrueThread &truth, const std::vector<TrueFrame> &read) {
    const std::vector<TrueFrame> expected = shownToJava(truth.frames), got = shownToJava(read);
    ASSERT_EQ(got.size(), expected.size()) << truth.name;
    for (size_t i = 0; i < got.size(); i++) {
        EXPECT_EQ(got[i].call, expected[i].call) << truth.name << " frame " << i;
        EXPECT_EQ(got[i].file, expected[i].file) << truth.name << " frame " << i;
        EXPECT_EQ(std::max(got[i].line, 0), std::max(expected[i].line, 0)) << truth.name << " frame " << i;
    }
}

int32_t refinedState(Walk *walk) {
    QorFrameRecord record;
    for (int32_t i = 0; i < walk->frames.count; i++) {
        walk->frames.index = i;
        QorReadFrame(&walk->frames, FRAME_METHOD_AND_CLASS, &record);
        GetThreadEnhancedState(&record, &walk->thread);
    }
    return walk->thread.state;
}

} // namespace

TEST_F(Threads, AgreeWithWhatTheJvmSays) {
    {
        // An earlier walk over other methods leaves nothing to be found.
        ZooVisit others("holder,blocked,wait-inside");
        Walk earlier;
        while (earlier.next())
            readFrames(&earlier);
    }
    ZooVisit zoo("");
    CallVoid(ZOO, "check", "()V");
    const std::map<int64_t, TrueThread> truth = ThreadTruth();
    std::set<std::string> seen;
    Walk walk;
    while (walk.next()) {
        const std::string name = walk.thread.name;
        seen.insert(name);
        if (name.compare(0, 4, "zoo-") != 0)
            continue;
        ASSERT_EQ(truth.count(walk.thread.tid), 1u) << name;
        const TrueThread &expected = truth.at(walk.thread.tid);
        EXPECT_EQ(name, expected.name);
        EXPECT_EQ(walk.thread.daemon, 1);
        EXPECT_EQ(walk.thread.priority, 5);
        EXPECT_EQ(walk.thread.handle, &walk.handle);
        EXPECT_EQ(QorGetWalkThreadId(&walk.handle, walk.handle.index), walk.thread.tid);
        if (name != "zoo-spin") // it runs, so that its line moves
            expectFrames(expected, readFrames(&walk));
    }
    for (const auto &[id, thread] : truth)
        EXPECT_EQ(seen.count(thread.name), 1u) << thread.name << " " << id;
}

TEST_F(Threads, StandInTheStatesThatTheirCallsTell) {
    const std::map<std::string, int32_t> expected = {
        {"spin", STATE_RUNNABLE},
        {"socket-read", STATE_NETWORK_WAIT},
        {"socket-read-timeout", STATE_NETWORK_WAIT},
        {"socket-write", STATE_NETWORK_WAIT},
        {"accept", STATE_OBJECT_WAIT},
        {"accept-timeout", STATE_OBJECT_WAIT},
        {"channel-accept", STATE_OBJECT_WAIT},
        {"channel-read", STATE_NETWORK_WAIT},
        {"select", STATE_NETWORK_WAIT},
        {"datagram-receive", STATE_NETWORK_WAIT},
        {"file-read", STATE_IO_WAIT},
        {"file-read-bytes", STATE_IO_WAIT},
        {"file-channel-read", STATE_NETWORK_WAIT},
        {"random-access-read", STATE_IO_WAIT},
        {"file-write", STATE_IO_WAIT},
        {"sleep", STATE_SLEEPING},
        {"park", STATE_OBJECT_WAIT},
        {"park-timed", STATE_OBJECT_WAIT},
        {"wait", STATE_OBJECT_WAIT},
        {"wait-timed", STATE_OBJECT_WAIT},
        {"join", STATE_OBJECT_WAIT},
        {"blocked", STATE_LOCK},
        {"lock-waiter", STATE_OBJECT_WAIT},
    };
    ZooVisit zoo("");
    CallVoid(ZOO, "check", "()V");
    std::map<std::string, int32_t> got;
    Walk walk;
    while (walk.next()) {
        const std::string name = walk.thread.name;
        if (name.compare(0, 4, "zoo-") == 0 && expected.count(name.substr(4)))
            got[name.substr(4)] = refinedState(&walk);
    }
    for (const auto &[kind, state] : expected)
        EXPECT_EQ(got.count(kind) ? got[kind] : -1, state) << kind;
}

// More methods than the walk can keep, in one walk: those that collide and those that find no room read like
// the first one.
TEST_F(Threads, MayShowMoreMethodsThanAreKept) {
    constexpr int32_t MORE_THAN_KEPT = 16500;
    CallLong("qoragent/testing/JvmCounts", "globalRefs", "()J"); // brings the management classes in
    for (const char *name : {"java/math/BigDecimal",
                             "java/math/BigInteger",
                             "java/lang/StrictMath",
                             "java/util/Scanner",
                             "java/util/concurrent/CompletableFuture",
                             "java/util/concurrent/ForkJoinPool",
                             "java/util/stream/Collectors",
                             "java/util/stream/IntStream",
                             "java/time/ZonedDateTime",
                             "java/time/OffsetDateTime",
                             "java/time/Period",
                             "java/time/YearMonth",
                             "java/text/DecimalFormat",
                             "java/text/SimpleDateFormat",
                             "java/text/ChoiceFormat",
                             "java/util/GregorianCalendar",
                             "java/util/concurrent/ConcurrentSkipListMap",
                             "java/util/BitSet",
                             "java/util/Formatter",
                             "java/util/concurrent/LinkedBlockingDeque",
                             "java/util/PriorityQueue",
                             "java/nio/file/Files",
                             "java/util/concurrent/ScheduledThreadPoolExecutor",
                             "java/util/zip/ZipOutputStream"})
        ASSERT_NE(Env()->FindClass(name), nullptr) << name;
    std::vector<jmethodID> methods;
    QorLocalFrame frame(Env(), 4096);
    jint classCount = 0;
    jclass *classes = nullptr;
    ASSERT_EQ(jvmti->GetLoadedClasses(&classCount, &classes), JVMTI_ERROR_NONE);
    for (jint i = 0; i < classCount; i++) {
        jint count = 0;
        jmethodID *found = nullptr;
        if (!QorIsClassInitialized(classes[i]) ||
            jvmti->GetClassMethods(classes[i], &count, &found) != JVMTI_ERROR_NONE)
            continue;
        methods.insert(methods.end(), found, found + count);
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(found));
    }
    jvmti->Deallocate(reinterpret_cast<unsigned char *>(classes));
    ASSERT_GT(methods.size(), size_t(MORE_THAN_KEPT));

    QorFrameHandle frames = {};
    QorFrameRecord record;
    char text[NAME_SIZE];
    Walk walk;
    int32_t kept = 0;
    for (int32_t round = 0; round < 2; round++) {
        for (size_t i = 0; i < methods.size(); i++) {
            frames.frames[0] = {methods[i], 0};
            frames.count = 1;
            ASSERT_EQ(QorReadFrame(&frames, FRAME_WITH_FILE_AND_LINE, &record), 0) << i;
            ASSERT_EQ(QorGetMethodInfo(&frames, text), 0);
            ASSERT_STREQ(record.method, text) << i;
            ASSERT_EQ(QorGetClassInfo(&frames, text), 0);
            ASSERT_STREQ(record.className, text) << i;
            ASSERT_EQ(record.line, QorGetLineNumber(&frames)) << i;
            kept += record.facts != nullptr;
        }
    }
    EXPECT_GT(kept, MORE_THAN_KEPT);
    EXPECT_LT(kept, static_cast<int32_t>(2 * methods.size()));
}

TEST_F(Threads, TellSystemCallsFromUserCalls) {
    ZooVisit zoo("park");
    char rules[] = "abcd|systemcall|java.*\nabcd|systemcall|jdk.*\nabcd|systemcall|sun.*\n";
    readconditions(rules);
    QorFrameRecord record;
    std::string types;
    Walk walk;
    ASSERT_TRUE(walk.find("zoo-park"));
    for (walk.frames.index = 0; walk.frames.index < walk.frames.count; walk.frames.index++) {
        ASSERT_EQ(QorReadFrame(&walk.frames, FRAME_METHOD_AND_CLASS, &record), 0);
        const bool user = std::string(record.className).compare(0, 9, "qoragent.") == 0;
        EXPECT_EQ(record.callType, user ? 1 : 0) << record.className;
        types += record.callType ? 'u' : 's';
    }
    EXPECT_EQ(types.substr(0, 2) + types.back(), "sss");
    EXPECT_NE(types.find('u'), std::string::npos);
}

TEST_F(Threads, AreCutAtTheDepthAskedFor) {
    CallObject(ZOO, "startDeep", "(I)Ljava/lang/Thread;", 1100);
    const struct { int32_t depth, count; } ROWS[] = {{1000, 1000}, {5000, MAX_FRAMES}, {7, 7}, {0, 0}};
    for (const auto &row : ROWS) {
        maxStackDepthQueried = row.depth;
        Walk walk;
        ASSERT_TRUE(walk.find("zoo-deep-1100")) << row.depth;
        EXPECT_EQ(walk.frames.count, row.count) << row.depth;
        QorFrameRecord record;
        EXPECT_EQ(QorReadFrame(&walk.frames, FRAME_METHOD_AND_CLASS, &record), row.count ? 0 : -1);
        EXPECT_STREQ(record.method, row.count ? "park" : "");
        walk.frames.index = walk.frames.count;
        EXPECT_EQ(QorReadFrame(&walk.frames, FRAME_METHOD_AND_CLASS, &record), -1);
    }
    maxStackDepthQueried = -1;
    Walk refused;
    EXPECT_EQ(refused.next(), false);
    EXPECT_EQ(refused.handle.count, 0);
    CallVoid(ZOO, "stop", "()V");
}

// A thread that a closed walk has seen can be collected when it has ended.
TEST_F(Threads, AreNotHeldByAClosedWalk) {
    jweak seen = nullptr;
    {
        ZooVisit zoo("park");
        for (int32_t sample = 0; sample < 300; sample++) {
            Walk walk;
            ASSERT_TRUE(walk.find("zoo-park"));
            if (!seen)
                seen = Env()->NewWeakGlobalRef(walk.handle.threads[walk.handle.index]);
        }
    }
    for (int32_t round = 0; round < 50 && !Env()->IsSameObject(seen, nullptr); round++)
        CallVoid("java/lang/System", "gc", "()V");
    EXPECT_TRUE(Env()->IsSameObject(seen, nullptr));
    Env()->DeleteWeakGlobalRef(seen);
}

TEST_F(Threads, CarryNoCharacterOfTheRecordFormatInTheirNames) {
    ZooVisit zoo("park");
    jobject thread = CallObject(ZOO, "thread", "(Ljava/lang/String;)Ljava/lang/Thread;", Text("park"));
    jclass klass = Env()->GetObjectClass(thread);
    jmethodID setName = Env()->GetMethodID(klass, "setName", "(Ljava/lang/String;)V");
    const struct {
        std::string name, shown;
    } ROWS[] = {
        {"a\x0e\x1a\x1b\x1c\x1d\x1e\x1f"
         "z",
         "a       z"},
        {"a\x0d\x0f\x19 z", "a\x0d\x0f\x19 z"},
        {std::string(2000, 'n'), std::string(NAME_SIZE - 1, 'n')},
        {std::string(NAME_SIZE - 2, 'n') + "\xc3\xa9", std::string(NAME_SIZE - 2, 'n')},
    };
    for (const auto &row : ROWS) {
        Env()->CallVoidMethod(thread, setName, Text(row.name));
        ASSERT_FALSE(Env()->ExceptionCheck());
        Walk walk;
        EXPECT_TRUE(walk.find(row.shown));
    }
}

TEST_F(Threads, NeverShowTheLastThreadsId) {
    Walk walk;
    ASSERT_TRUE(walk.next());
    ASSERT_NE(walk.thread.tid, 0);
    const jfieldID known = idField;
    idField = nullptr;
    QorGetJVMThread(&walk.handle, 0);
    EXPECT_EQ(QorGetThreadInfo(&walk.handle, &walk.thread), 0);
    EXPECT_EQ(walk.thread.tid, 0);
    idField = known;
}

TEST_F(Threads, ThatAreGoneAreAnswered) {
    EXPECT_EQ(QorGetJVMThread(nullptr, 0), nullptr);
    QorThreadHandle unopened;
    QorThreadRecord record = {};
    QorFrameHandle frames;
    QorInitThreadHandle(&unopened);
    EXPECT_EQ(QorGetThreadInfo(&unopened, &record), -1);
    EXPECT_EQ(QorGetFrames(&unopened, &frames), -1);
    EXPECT_EQ(QorGetFrames(&unopened, nullptr), -1);
    QorCloseThreadHandle(&unopened);

    Walk walk;
    {
        ZooVisit zoo("park");
        ASSERT_TRUE(walk.find("zoo-park"));
    }
    // The thread has ended since the snapshot; its frames are those of the snapshot.
    EXPECT_GT(QorGetFrames(&walk.handle, &walk.frames), 3);
    // So is its state where asking for a thread that ends at the moment breaks the JVM.
    const bool keepsThreads = gbQorJvmKeepsThreads;
    const std::string version =
        CallText("java/lang/System", "getProperty", "(Ljava/lang/String;)Ljava/lang/String;",
                 Text("java.specification.version"));
    EXPECT_EQ(keepsThreads, version != "1.8" && version != "9");
    for (bool asks : {true, false}) {
        gbQorJvmKeepsThreads = asks;
        EXPECT_EQ(QorGetThreadInfo(&walk.handle, &record), 0);
        EXPECT_EQ(record.state, asks ? STATE_TERMINATED : STATE_OBJECT_WAIT);
    }
    gbQorJvmKeepsThreads = keepsThreads;
}
