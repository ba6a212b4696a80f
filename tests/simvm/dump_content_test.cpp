// A dump holds exactly what the description has, at the moment in which its threads were held: each object
// with its class, size and references, each root.
#include "simvm.h"
#include "truth.h"
#include "with_scene.h"

using namespace simvm;

namespace {

class DumpContent : public testing::TestWithParam<std::pair<const char *, ChainEnd>> {};

// On a busy machine a thread that runs doesn't always stop in time; a dump then lacks its frames.
bool LacksFrames(const std::vector<std::string> &differences) {
    return std::any_of(differences.begin(), differences.end(),
                       [](const std::string &line) { return line.rfind("no root of a frame", 0) == 0; });
}

HeapDump ExpectTruth(const DumpFolder &folder, const std::vector<Runner *> &runners) {
    const HeapDump truth = TakeTruth(runners);
    std::vector<std::string> differences;
    HeapDump dump;
    for (int dumps = 0; dumps == 0 || (dumps < 50 && LacksFrames(differences)); dumps++) {
        const std::string reply = Ask("513|showmem|256|dump|7");
        EXPECT_NE(reply.find("completed"), std::string::npos) << reply;
        dump = ReadDump(folder("dump"));
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
    dump.header.resize(header.size());
    dump.header[1] = dump.header[2] = ""; // the time, the host's name
    EXPECT_EQ(dump.header, header);
    return dump;
}

// Stores references all the time, as Java code, from the first word of an array to its last and again.
constexpr int32_t WORDS = 1 << 16;
std::atomic<int64_t> laps;
std::atomic<bool> over;
void Write(Word *words, const std::vector<Word> &targets) {
    for (; !over; laps++)
        for (int32_t i = 0; i < WORDS; i++)
            __atomic_store_n(&words[i], targets[laps % targets.size()], __ATOMIC_RELAXED);
}

// A dump's array is of one moment: the first so many words have a target, all others the one before it.
void ExpectMoment(const std::vector<std::string> &elements, const std::vector<Word> &targets) {
    ASSERT_EQ(elements.size(), size_t{WORDS});
    const auto number = [&](const std::string &element) {
        const auto at = std::find(targets.begin(), targets.end(), strtoull(element.c_str() + 2, nullptr, 16));
        return size_t(at - targets.begin());
    };
    const auto split = std::find_if(elements.begin(), elements.end(),
                                    [&](const std::string &element) { return element != elements[0]; });
    EXPECT_EQ(std::count(split, elements.end(), elements.back()), elements.end() - split);
    EXPECT_TRUE(split == elements.end() || number(elements[0]) == (number(*split) + 1) % targets.size());
}

} // namespace

TEST_P(DumpContent, EqualsTheDescription) {
    WithScene("shop", On(GetParam().first), [](Scene &scene) {
        const DumpFolder folder;
        StageRoots(scene.runners.front()->info, GetParam().second);
        Object *array = NewArray("[Ljava/lang/Object;", WORDS, 'O');
        array->type = nullptr; // nobody can say what is in it
        std::vector<Word> targets;
        while (targets.size() < 8)
            targets.push_back(NewObject("java/lang/Object", 'O')->address);
        Script script = MainScript();
        EmitScript(&script);
        Runner *writer = Start("writer", &script, [&] {
            AsJava([&] { Write(&As<Word>(array->address + sizeof(JavaArray)), targets); });
        });
        while (laps == 0)
            usleep(1000);
        FillHeap(TRICKY_HEAP, 1);
        ExpectMoment(ExpectTruth(folder, scene.runners).objects.at(array->address).references, targets);
        over = true;
        Leave(writer);
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DumpContent,
                         testing::Values(std::pair("22", ChainEnd::NONE),
                                         std::pair("22 parallel", ChainEnd::CYCLE),
                                         std::pair("22 cms", ChainEnd::WILD)));
