// A dump holds exactly what the description has: each object with its class, size and references, each root.
#include "agent.h"
#include "dump.h"
#include "heap.h"

#include "qoragent/worker.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>

using namespace simvm;

namespace {

struct Case {
    Collector collector;
    ChainEnd end;
};
class DumpContent : public testing::TestWithParam<Case> {};

// On a busy machine a thread that runs doesn't always stop in time; a dump then lacks its frames.
bool LacksFrames(const std::vector<std::string> &differences) {
    return std::any_of(differences.begin(), differences.end(),
                       [](const std::string &line) { return line.rfind("no root of a frame", 0) == 0; });
}

void ExpectTruth(const std::string &folder, const std::vector<Runner *> &runners) {
    const DumpTruth truth = TakeTruth(runners);
    std::vector<std::string> differences;
    HeapDump dump;
    for (int dumps = 0; dumps == 0 || (dumps < 50 && LacksFrames(differences)); dumps++) {
        const std::string reply = Ask("513|showmem|256|dump|7");
        ASSERT_NE(reply.find("completed"), std::string::npos) << reply;
        dump = ReadDump(folder + "/dump");
        differences = Differences(dump, truth);
    }
    for (const std::string &line : differences)
        ADD_FAILURE() << line;
    std::vector<std::string> header = {"heap_id=7",        "", "", "test", "Sun Microsystems Inc.",
                                       vm.options.version, "4"};
    for (const SpaceUse &use : UseOfSpaces())
        for (const std::string &text :
             {use.name, std::to_string(use.capacity / 1024), std::to_string(use.used / 1024)})
            header.push_back(text);
    header.emplace_back();
    ASSERT_EQ(dump.header.size(), header.size());
    dump.header[1] = dump.header[2] = ""; // the time, the host's name
    EXPECT_EQ(dump.header, header);
}

} // namespace

TEST_P(DumpContent, EqualsTheDescription) {
    const std::string folder =
        std::filesystem::temp_directory_path() / ("content" + std::to_string(getpid()));
    std::filesystem::create_directory(folder);
    Options options;
    options.library = SIMVM_FOLDER "/server/libjvm.so";
    options.collector = GetParam().collector;
    Boot(options);
    Scene scene;
    StageScene("shop", &scene);
    Script main = MainScript();
    EmitScript(&main);
    RunHere("main", &main, [&] {
        ASSERT_EQ(StartAgent(), 0);
        Ask("512|NoProcessing|qorheapdir|" + folder);
        StageRoots(scene.runners.front()->info, GetParam().end);
        FillHeap(TrickyHeap(), 1);
        ExpectTruth(folder, scene.runners);
        Ask("SHUTDOWN");
    });
    EndScene(&scene);
    std::filesystem::remove_all(folder);
}

INSTANTIATE_TEST_SUITE_P(Simvm, DumpContent,
                         testing::Values(Case{Collector::SERIAL, ChainEnd::NONE},
                                         Case{Collector::PARALLEL, ChainEnd::CYCLE},
                                         Case{Collector::CONCURRENT, ChainEnd::WILD}));
