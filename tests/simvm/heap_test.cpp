// What the agent finds in the simulated VM's heap, compared with the heap's description.
#include "with_scene.h"

using namespace simvm;

// Copies of the process that the agent made. The one after 0 is made in a collection.
static std::atomic<int> copies{1};
extern "C" int __clone(int (*)(void *), void *, int, void *, ...) noexcept;
extern "C" int clone(int (*body)(void *), void *stack, int flags, void *argument, ...) noexcept {
    const bool collects = copies++ == 0;
    auto &collecting = vm.heap->collecting;
    if (collects)
        collecting = 1;
    const int pid = __clone(body, stack, flags, argument);
    if (collects)
        collecting = 0;
    return pid;
}

namespace {

const std::string FD = "\x1d", RC = "\x1e", SC = "\x1f"; // ends of fields, records and sections

std::string UsageText() {
    std::string text = "JVM Memory Usage" + RC;
    for (const SpaceUse &use : UseOfSpaces()) {
        const int64_t capacity = use.capacity / 1024, used = use.used / 1024;
        text += use.name + FD + std::to_string(capacity) + FD + std::to_string(used) + FD +
                std::to_string(use.percent) + FD + std::to_string(capacity - used) + RC;
    }
    return text + SC;
}

std::string CollectionsText() {
    return "JVM Garbage Collections" + RC + "Minor" + FD + std::to_string(vm.collections.minor) + RC +
           "Major" + FD + std::to_string(vm.collections.major) + SC;
}

std::string TableText() {
    std::string sizes = "JVM Heap Memory Usage" + RC, counts = "JVM Heap Number of Objects" + RC;
    for (const SpaceUse &use : UseOfSpaces()) {
        Census census = CensusOf(*use.space);
        sizes += use.name;
        counts += use.name;
        for (const std::string letters : {"AB", "2F", "8", "[", "34", "1", "*"}) {
            Count sum;
            for (const char letter : letters)
                sum += census.types[letter];
            sizes += FD + std::to_string(sum.bytes / 1024);
            counts += FD + std::to_string(sum.objects);
        }
        sizes += FD + std::to_string(use.used / 1024) + FD + std::to_string(use.capacity / 1024) + RC;
        counts += FD + "0" + FD + std::to_string(census.all.objects) + RC;
    }
    return sizes + SC + counts + SC;
}

// Rows in any order.
std::set<std::string> ClassRows() {
    std::map<std::string, Count> classes;
    for (const SpaceUse &use : UseOfSpaces())
        for (auto &[name, count] : CensusOf(*use.space).classes)
            classes[name] += count;
    std::set<std::string> rows;
    for (auto &[name, count] : classes)
        rows.insert((name[0] == '[' ? name : "L" + name + ";") + FD + std::to_string(count.objects) + FD +
                    std::to_string(count.bytes / 1024) + FD);
    return rows;
}

// No divisor is taken for granted; a young generation of 4 GB and more wraps.
const std::pair<const char *, HeapFlags> HEAP_CASES[] = {
    {"22", {}},
    {"07", {128 << 20, 64 << 20, 32 << 20, -1, 6}},
    {"08 parallel", {8l << 30, 64 << 20, 16l << 30, 2, 8}},
    {"22 parallel", {128 << 20, 0, 32 << 20, 2, -2}},
    {"10 cms", {0, 0, 0, 0, 0}}};

} // namespace

class Heap : public testing::TestWithParam<std::pair<const char *, HeapFlags>> {};

TEST_P(Heap, IsCountedAsDescribed) {
    Options options = On(GetParam().first);
    options.flags = GetParam().second;
    WithScene("nothing", options, [&](Scene &) {
        FillHeap(TRICKY_HEAP, 7);
        SetCollections({12, 3, 4567000, 89000});
        EXPECT_EQ(Untimed(Ask("1|showmem|128|")), UsageText() + CollectionsText());
        EXPECT_EQ(Untimed(Ask("1|showmem|512|")), TableText() + CollectionsText());
        const std::string classes = Untimed(Ask("1|showmem|512|ClassHistogramOnly"));
        const std::vector<std::string> rows = Split(classes.substr(0, classes.size() - 1), RC[0]);
        EXPECT_EQ(rows[0], "JVM Class Details");
        EXPECT_EQ(std::set<std::string>(rows.begin() + 1, rows.end()), ClassRows());
        const std::vector<std::string> system = Split(Ask("129|showqor|8192|"), FD[0]);
        EXPECT_EQ(system[2] + " " + system[3] + " " + system[5] + " " + system[6], "12 3 4567 89");
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, Heap, testing::ValuesIn(HEAP_CASES));

// A from space that has changed place is found without another start.
TEST(HeapUse, FollowsTheFromSpaceAndIsToldWithEachRefusal) {
    WithScene("nothing", {}, [](Scene &) {
        New("java/lang/Object", {}, 'F');
        Collect();
        EXPECT_EQ(Untimed(Ask("1|showmem|512|")), TableText() + CollectionsText());
        auto &collecting = vm.heap->collecting;
        collecting = 1;
        const std::string refused = Ask("2|showqor|128|");
        collecting = 0;
        EXPECT_EQ(
            refused.rfind(UsageText() + CollectionsText() + "Unable to complete Request. Please Try", 0), 0u)
            << refused;
        // A copy that sees a collection says so, and is made again when that is over.
        copies = 0;
        EXPECT_EQ(Untimed(Ask("4|showmem|512|")), TableText() + CollectionsText());
        EXPECT_EQ(copies, 2);
    });
}
