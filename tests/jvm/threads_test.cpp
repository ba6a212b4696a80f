#include "JvmFixture.h"
#include "Walk.h"
#include "jvmti/threads/Monitors.h"
#include "qorsettings.h"

namespace {

struct Threads : SessionTest {};

} // namespace

// More methods than the walk can keep, in one walk: those that collide and those that find no room read like
// the first one.
TEST_F(Threads, MayShowMoreMethodsThanAreKept) {
    constexpr int32_t MORE_THAN_KEPT = 16500;
    auto classes = static_cast<jobjectArray>(Java<jobject>("Specimens", "manyMethods", 300));
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
        for (jmethodID method : methods) {
            frames.frames[0] = {method, 0};
            frames.count = 1;
            ASSERT_EQ(QorReadFrame(&frames, FRAME_WITH_FILE_AND_LINE, &record), 0);
            ASSERT_EQ(QorGetMethodInfo(&frames, text), 0);
            ASSERT_STREQ(record.method, text);
            ASSERT_EQ(QorGetClassInfo(&frames, text), 0);
            ASSERT_STREQ(record.className, text);
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
    }
    maxStackDepthQueried = -1;
    Walk refused;
    EXPECT_EQ(refused.next(), false);
    EXPECT_EQ(refused.handle.count, 0);
}

TEST_F(Threads, CarryNoCharacterOfTheRecordFormatInTheirNames) {
    const std::string many(NAME_SIZE - 9, 'n'); // the last character would be torn
    Java("Stage", "enter", "alone", "a\x1d\x1fz" + many + "\xc3\xa9", jobject{}, jobject{}, jobject{});
    Walk walk;
    EXPECT_TRUE(walk.find("zoo-a  z" + many));
}
