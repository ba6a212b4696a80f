// Heap, collectors, histogram and dumps, against what the JVM itself says of the same heap.
#include "AgentNatives.h"
#include "Descriptors.h"
#include "DumpReaders.h"
#include "Folder.h"
#include "Replies.h"
#include "jvmti/heap/ClassHistogram.h"
#include "jvmti/heap/GCSystem.h"
#include "jvmti/heap/HeapDump.h"
#include "jvmti/heap/MemorySystem.h"
#include "platforms/dump_file.h"
#include "wire/memory.h"
#include "wire/records.h"

#include <algorithm>
#include <fmt/format.h>
#include <fstream>
#include <regex>
#include <sys/resource.h>

namespace {

#define SHOP "qoragent.testing.HeapShop"
constexpr char NODE[] = SHOP "$Node", LEAF[] = SHOP "$Leaf";
constexpr int64_t NODES = 1234, LEAVES = 77, ELEMENTS = 27, LONG_INTS = 12345, LONG_BYTES = 54321;

// The filled shop in an open session.
struct Heap : SessionTest {
    void SetUp() override {
        SessionTest::SetUp();
        Java("HeapShop", "fill");
        Java("java/lang/System", "gc");
    }

    TextDump Dump() {
        EXPECT_EQ(QorHeapDump(in.In("dump").c_str()), 0);
        return TextDump::Read(in.In("dump"));
    }
    Folder in;
};

} // namespace

TEST_F(Heap, TextDumpHoldsWhatIsThere) {
    Java("HeapShop", "holdByClass", 500); // the JVM's walk doesn't report the own fields of Class instances
    const TextDump text = Dump();
    const std::pair<const char *, int64_t> COUNTS[] = {
        {NODE, NODES}, {LEAF, LEAVES}, {SHOP "$Unused", 0}, {SHOP "$ByClass", 500}};
    for (const auto &[klass, count] : COUNTS)
        EXPECT_EQ(text.Class(klass).objects, count) << klass;
    EXPECT_EQ(text.Arrays(NODE + std::string("[]"), ELEMENTS), 1);
    EXPECT_EQ(text.Arrays("int[]", LONG_INTS), 2);
    EXPECT_EQ(text.Arrays("byte[]", LONG_BYTES), 1);
    EXPECT_LT(text.Class("int[]").number, 100);
    EXPECT_GT(text.summary.roots[qorctl::ROOT_STACK], 0);

    const int64_t node = text.Class(NODE).number, leaf = text.Class(LEAF).number;
    const std::pair<int64_t, const char *> FIELDS[] = {
        {node, "a0|4|next"}, {node, "a1|4|self"}, {node, "a2|6|number"}, {leaf, "a3|4|name"}};
    for (const auto &[klass, field] : FIELDS)
        EXPECT_NE(text.body.find("\nB1" + std::to_string(klass) + field + "\n"), std::string::npos) << field;
    // Each node refers to the one before and to itself; the first one has none before it.
    int64_t chained = 0, leaves = 0;
    for (const auto &[object, references] : text.references) {
        const int64_t klass = text.classOf.at(object);
        leaves += klass == leaf;
        if (klass != node)
            continue;
        EXPECT_EQ(std::count(references.begin(), references.end(), object), 1);
        for (int64_t other : references)
            chained += other != object && text.classOf.at(other) == node;
    }
    EXPECT_EQ(chained, NODES - 1);
    EXPECT_EQ(leaves, LEAVES);
}

TEST_F(Heap, LocalsHaveTheirThreadAndMethod) {
    Java("Zoo", "startDeep", 1100); // more frames than the dump asks for at a time
    jobject held = Text("a reference of this thread, which has no Java frame");
    const TextDump text = Dump();
    for (const char *method : {"descend", "lambda.deep"}) // at the top and at the bottom
        EXPECT_TRUE(std::regex_search(text.body,
                                      std::regex("\nSa[0-9]+\\|Thread-[0-9]+_Lqoragent\\.testing\\.ZooRun::" +
                                                 std::string(method) + "[^|\n]*\\|\n")))
            << method;
    EXPECT_TRUE(std::regex_search(text.body, std::regex("\nSc[0-9]+\\|Thread-[0-9]+_\\|\n")));
    Env()->DeleteLocalRef(held);
}

TEST_F(Heap, ADumpThatFillsTheDiskIsEmptied) {
    const int before = OpenDescriptors();
    rlimit earlier;
    getrlimit(RLIMIT_FSIZE, &earlier);
    const rlimit small = {300000, earlier.rlim_max};
    setrlimit(RLIMIT_FSIZE, &small);
    gbiDumpBufferSize = 4096;
    EXPECT_EQ(QorHeapDump(in.In("dump").c_str()), -1);
    setrlimit(RLIMIT_FSIZE, &earlier);
    EXPECT_EQ(in.Content("dump"), "") << "no half of a dump is left";
    EXPECT_EQ(OpenDescriptors(), before);
    EXPECT_EQ(Dump().Class(NODE).objects, NODES);
}

TEST_F(Heap, WalksLeaveNothing) {
    jobject shown = Text("tagged by the view of locals");
    ASSERT_EQ(jvmti->SetTag(shown, 5001), JVMTI_ERROR_NONE);
    Java("HeapShop", "loadOwn");
    const auto walk = [this] {
        EXPECT_EQ(QorHeapDump(in.In("dump").c_str()), 0);
        int64_t count = 0;
        QorClassCountEntry *entries = nullptr;
        EXPECT_EQ(QorClassInstanceCounts(&count, &entries), 0);
        QorFreeClassCounts(entries, count);
        Java("java/lang/System", "gc"); // newer JVMs free a part of the tags at a collection only
    };
    KeepsNothing(5, walk);
    walk(); // not in a local frame of the test
    jlong tag = -1;
    EXPECT_EQ(jvmti->GetTag(shown, &tag), JVMTI_ERROR_NONE);
    EXPECT_EQ(tag, 5001);
    EXPECT_EQ(jvmti->GetTag(Env()->FindClass("qoragent/testing/HeapShop"), &tag), JVMTI_ERROR_NONE);
    EXPECT_EQ(tag, 0);
    EXPECT_EQ(Java<int64_t>("HeapShop", "dropOwn"), 1) << "a class loader is still held";
}

namespace {

struct Collections : WithCollector<AgentTest> {};
INSTANTIATE_TEST_SUITE_P(, Collections,
                         testing::Values("Serial", "Parallel", "G1", "Shenandoah", "Z", "ConcMarkSweep"),
                         COLLECTOR_NAME);

} // namespace

TEST_P(Collections, AreAddedUpByKindAndToldOneByOne) {
    const std::set<std::string> minor = {"Copy", "PS Scavenge", "G1 Young Generation", "Shenandoah Pauses",
                                         "ZGC",  "ZGC Pauses",  "ZGC Minor Pauses",    "ParNew"};
    const std::set<std::string> major = {"MarkSweepCompact", "PS MarkSweep", "G1 Old Generation",
                                         "ZGC Major Pauses", "ConcurrentMarkSweep"};
    ASSERT_EQ(StartAgent({}), 0);
    Java("HeapShop", "litter");
    Java("java/lang/System", "gc");
    const auto truth = [] { return Java<std::string>("HeapShop", "collectors"); };
    std::string before, rows, each;
    do { // until no collection came between
        before = truth();
        rows = Ask("516|showstack|128");
        each = Ask("516|NoProcessing|collectors");
    } while (truth() != before);
    uint64_t majors = 0, minors = 0;
    std::string shown, sums;
    for (const qorctl::CollectorBean &bean : qorctl::DecodeCollectors(each)) {
        majors += major.count(bean.name) * *bean.count;
        minors += minor.count(bean.name) * *bean.count;
        shown += fmt::format("{} {} {}\n", *bean.count, *bean.milliseconds, bean.name);
    }
    EXPECT_EQ(shown, before);
    EXPECT_GT(majors + minors, 0u);
    for (const qorctl::Collector &kind : qorctl::DecodeHeap(qorctl::OpenReply(rows)).collectors)
        sums += fmt::format("{} {} ", kind.name, *kind.count);
    EXPECT_EQ(sums, fmt::format("Major {} Minor {} ", majors, minors));
}
