// A dump holds exactly what the description has, at the moment in which its threads were held: each object
// with its class, size and references, each root.
#include "with_scene.h"

using namespace simvm;

namespace {

class DumpContent : public testing::TestWithParam<std::pair<const char *, ChainEnd>> {};

// On a busy machine a thread that runs doesn't always stop in time; a dump then lacks its frames.
bool LacksFrames(const std::vector<std::string> &differences) {
    return std::any_of(differences.begin(), differences.end(),
                       [](const std::string &line) { return line.rfind("no " + FRAME, 0) == 0; });
}

void ExpectTruth(const DumpFolder &folder, const std::vector<Runner *> &runners) {
    const HeapDump truth = TakeTruth(runners);
    std::vector<std::string> differences = {"no " + FRAME};
    HeapDump dump;
    for (int dumps = 0; dumps < 50 && LacksFrames(differences); dumps++) {
        EXPECT_NE(Ask("513|showmem|256|dump|7").find("completed"), std::string::npos);
        dump = ReadDump(folder("dump"));
        differences = Differences(dump, truth);
    }
    EXPECT_EQ(differences, std::vector<std::string>());
    std::vector<std::string> header = {"heap_id=7",        "", "", "test", "Sun Microsystems Inc.",
                                       vm.options.version, "4"};
    for (const SpaceUse &use : UseOfSpaces())
        for (const std::string &text :
             {use.name, std::to_string(use.capacity / 1024), std::to_string(use.used / 1024)})
            header.push_back(text);
    header.emplace_back();
    dump.header.resize(header.size());
    dump.header[1] = dump.header[2] = ""; // the time, the host's name
    EXPECT_EQ(dump.header, header);
}

} // namespace

TEST_P(DumpContent, EqualsTheDescription) {
    WithScene("shop", On(GetParam().first), [](Scene &scene) {
        const DumpFolder folder;
        StageRoots(scene.runners.front()->info, GetParam().second);
        FillHeap(TRICKY_HEAP, 1);
        ExpectTruth(folder, scene.runners);
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DumpContent,
                         testing::Values(std::pair("22", ChainEnd::NONE),
                                         std::pair("22 parallel", ChainEnd::CYCLE),
                                         std::pair("22 cms", ChainEnd::WILD)));
