// What the agent finds in the simulated VM's heap, compared with the heap's description.
#include "heap.h"
#include "with_scene.h"

#include "heaptraverse/heap_census.h"
#include "qorrequest.h"

#include <set>

using namespace simvm;

// Copies of the process that the agent made. The one after 0 is made in a collection.
static std::atomic<int> copies{1};
extern "C" int __clone(int (*)(void *), void *, int, void *, ...) noexcept;
extern "C" int clone(int (*body)(void *), void *stack, int flags, void *argument, ...) noexcept {
    const bool collects = copies++ == 0;
    auto &collecting = At(vm.heap, &CollectedHeap::collecting);
    if (collects)
        collecting = 1;
    const int pid = __clone(body, stack, flags, argument);
    if (collects)
        collecting = 0;
    return pid;
}

namespace {

const std::string F = "\x1d", R = "\x1e", S = "\x1f";

std::string Untimed(const std::string &reply) {
    return reply.substr(0, reply.find("Time spent in JVM"));
}

std::string UsageText() {
    std::string text = "JVM Memory Usage" + R;
    for (const SpaceUse &use : UseOfSpaces()) {
        const int64_t capacity = use.capacity / 1024, used = use.used / 1024;
        text += use.name + F + std::to_string(capacity) + F + std::to_string(used) + F +
                std::to_string(use.percent) + F + std::to_string(capacity - used) + R;
    }
    return text + S;
}

std::string CollectionsText() {
    return "JVM Garbage Collections" + R + "Minor" + F + std::to_string(vm.collections.minor) + R + "Major" +
           F + std::to_string(vm.collections.major) + S;
}

std::string TableText() {
    std::string sizes = "JVM Heap Memory Usage" + R, counts = "JVM Heap Number of Objects" + R;
    for (const SpaceUse &use : UseOfSpaces()) {
        Census census = CensusOf(*use.space);
        sizes += use.name;
        counts += use.name;
        for (const char *letters : {"AB", "2F", "8", "[", "34", "1", "*"}) {
            Count sum;
            for (const char *letter = letters; *letter; letter++) {
                sum.objects += census.types[*letter].objects;
                sum.bytes += census.types[*letter].bytes;
            }
            sizes += F + std::to_string(sum.bytes / 1024);
            counts += F + std::to_string(sum.objects);
        }
        sizes += F + std::to_string(use.used / 1024) + F + std::to_string(use.capacity / 1024) + R;
        counts += F + "0" + F + std::to_string(census.all.objects) + R;
    }
    return sizes + S + counts + S;
}

// Every gap, to the byte: in the process, which reads by windows.
void CompareCensus() {
    QorMeasureHeap();
    int32_t i = 0;
    for (const SpaceUse &use : UseOfSpaces()) {
        const Census census = CensusOf(*use.space);
        QorSpaceCensus space;
        EXPECT_EQ(QorScanSpace(i++, &space, nullptr, nullptr), census.all.objects) << use.name;
        EXPECT_EQ(int64_t(space.bytes), census.all.bytes) << use.name;
        EXPECT_EQ(int64_t(space.skippedBytes), census.skippedBytes) << use.name;
        EXPECT_EQ(int64_t(space.skippedRuns), census.skippedRuns) << use.name;
    }
}

// Rows in any order.
std::set<std::string> ClassRows() {
    std::map<std::string, Count> classes;
    for (const SpaceUse &use : UseOfSpaces())
        for (auto &[name, count] : CensusOf(*use.space).classes) {
            classes[name].objects += count.objects;
            classes[name].bytes += count.bytes;
        }
    std::set<std::string> rows;
    for (auto &[name, count] : classes)
        rows.insert((name[0] == '[' ? name : "L" + name + ";") + F + std::to_string(count.objects) + F +
                    std::to_string(count.bytes / 1024) + F);
    return rows;
}

struct HeapCase {
    Collector collector;
    const char *version;
    HeapFlags flags;
    bool full;
};
// No divisor is taken for granted; a young generation of 4 GB and more wraps.
const HeapCase HEAP_CASES[] = {
    {Collector::SERIAL, "1.5.0_22", {}, false},
    {Collector::SERIAL, "1.5.0_07", {128 << 20, 64 << 20, 32 << 20, -1, 6}, true},
    {Collector::PARALLEL, "1.5.0_08", {8l << 30, 64 << 20, 16l << 30, 2, 8}, false},
    {Collector::PARALLEL, "1.5.0_22", {128 << 20, 0, 32 << 20, 2, -2}, true},
    {Collector::CONCURRENT, "1.5.0_10", {0, 0, 0, 0, 0}, false},
    {Collector::CONCURRENT, "1.5.0_22", {}, true},
};

} // namespace

class Heap : public testing::TestWithParam<HeapCase> {};

TEST_P(Heap, IsCountedAsDescribed) {
    const HeapCase &c = GetParam();
    Options options;
    options.collector = c.collector;
    options.version = c.version;
    options.flags = c.flags;
    WithScene("nothing", options, [&](Scene &) {
        FillHeap(c.full ? FULL_HEAP : TRICKY_HEAP, 7);
        SetCollections({12, 3, 4567000, 89000});
        EXPECT_EQ(Untimed(Ask("1|showmem|128|")), UsageText() + CollectionsText());
        EXPECT_EQ(Untimed(Ask("1|showmem|512|")), TableText() + CollectionsText());
        const std::string classes = Untimed(Ask("1|showmem|512|ClassHistogramOnly"));
        const std::vector<std::string> rows = Split(classes.substr(0, classes.size() - 1), R[0]);
        EXPECT_EQ(rows[0], "JVM Class Details");
        EXPECT_EQ(std::set<std::string>(rows.begin() + 1, rows.end()), ClassRows());
        const std::vector<std::string> system = Split(Ask("129|showqor|8192|"), F[0]);
        EXPECT_EQ(system[2] + " " + system[3] + " " + system[5] + " " + system[6], "12 3 4567 89");
        CompareCensus();
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, Heap, testing::ValuesIn(HEAP_CASES));

// A from space that has changed place is found without another start.
TEST(HeapUse, FollowsTheFromSpaceAndIsToldWithEachRefusal) {
    WithScene("nothing", {}, [](Scene &) {
        NewObject("java/lang/Object", 'F');
        Collect();
        EXPECT_EQ(Untimed(Ask("1|showmem|512|")), TableText() + CollectionsText());
        auto &collecting = At(vm.heap, &CollectedHeap::collecting);
        collecting = 1;
        const std::string refused = Ask("2|showqor|128|");
        collecting = 0;
        EXPECT_EQ(
            refused.rfind(UsageText() + CollectionsText() + "Unable to complete Request. Please Try", 0), 0u)
            << refused;
        gbiForkHeapShares[FORK_FOR_READING] = 1 << 30;
        EXPECT_EQ(Untimed(Ask("1|showmem|512|")),
                  UsageText() + CollectionsText() +
                      "System low on Virtual Memory, Unable to start Heap Dump." + S);
        gbiForkHeapShares[FORK_FOR_READING] = 1;
        // A copy that sees a collection says so, and is made again when that is over.
        copies = 0;
        EXPECT_EQ(Untimed(Ask("4|showmem|512|")), TableText() + CollectionsText());
        EXPECT_EQ(copies, 2);
    });
}
