#include "JvmFixture.h"
#include "Walk.h"
#include "jvmti/threads/Monitors.h"
#include "qorsettings.h"

namespace {

struct Threads : SessionTest {
    ~Threads() override { maxStackDepthQueried = 1000; }
};

} // namespace

// More methods than the walk can keep, in one walk: those that collide and those that find no room read like
// the first one.
TEST_F(Threads, MayShowMoreMethodsThanAreKept) {
    constexpr int32_t MORE_THAN_KEPT = 16500;
    auto classes = static_cast<jobjectArray>(Java<jobject>("Specimens", "manyMethods", 17));
    std::vector<jmethodID> methods;
    for (jsize i = 0; i < Env()->GetArrayLength(classes); i++) {
        jint count = 0;
        jmethodID *found = nullptr;
        jobject klass = Env()->GetObjectArrayElement(classes, i);
        ASSERT_EQ(jvmti->GetClassMethods(static_cast<jclass>(klass), &count, &found), JVMTI_ERROR_NONE);
        methods.insert(methods.end(), found, found + count);
        jvmti->Deallocate(reinterpret_cast<unsigned char *>(found));
    }
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

TEST_F(Threads, AreCutAtTheDepthAskedFor) {
    Java("Zoo", "startDeep", 1100);
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
        Java("java/lang/System", "gc");
    EXPECT_TRUE(Env()->IsSameObject(seen, nullptr));
    Env()->DeleteWeakGlobalRef(seen);
}

TEST_F(Threads, CarryNoCharacterOfTheRecordFormatInTheirNames) {
    ZooVisit zoo("park");
    jobject thread = Java<jobject>("Zoo", "thread", "park");
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
        Java<std::string>("java/lang/System", "getProperty", "java.specification.version");
    EXPECT_EQ(keepsThreads, version != "1.8" && version != "9");
    for (bool asks : {true, false}) {
        gbQorJvmKeepsThreads = asks;
        EXPECT_EQ(QorGetThreadInfo(&walk.handle, &record), 0);
        EXPECT_EQ(record.state, asks ? STATE_TERMINATED : STATE_OBJECT_WAIT);
    }
    gbQorJvmKeepsThreads = keepsThreads;
}
