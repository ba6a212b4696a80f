// Dumps and histograms that a copy of the process makes, against what the worker makes of the same heap.
#include "AgentNatives.h"
#include "DumpReaders.h"
#include "qorsettings.h"

#include <filesystem>

namespace fs = std::filesystem;

namespace {

constexpr char COMPLETED[] = "JVM Heap dump started.\x1fJVM Heap:Heap dump completed sucessfully";

struct ForkedDump : AgentTest {
    void SetUp() override {
        AgentTest::SetUp();
        StartArguments start;
        start.timeout = 60;
        start.logLevel = 3;
        ASSERT_EQ(StartAgent(start), 0);
        ASSERT_EQ(Ask("516|NoProcessing|forkdump|1"), "Changed forkdump to 1");
    }
};

TEST_F(ForkedDump, EqualsTheWorkersDumpOfAQuietHeap) {
    EXPECT_EQ(Ask("516|showmem|256|forked|7"), COMPLETED);
    const TextDump forked = TextDump::Read("/tmp/forked");
    EXPECT_EQ(forked.error, "");
    fprintf(stderr, "%zu\n", forked.body.size());
}

} // namespace
