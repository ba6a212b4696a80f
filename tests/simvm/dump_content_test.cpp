// A dump holds exactly what the description has, at the moment in which its threads were held: each object
// with its class, size and references, each root.
#include "heap.h"
#include "truth.h"
#include "with_scene.h"

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

// A thread that stores references all the time, from the first word of an array to its last and again.
struct Writer {
    static constexpr int32_t WORDS = 1 << 16;
    Object *array = NewArray("[Ljava/lang/Object;", WORDS, 'O');
    std::vector<Word> targets;
    Script script;
    Runner *runner;

    Writer() {
        array->type = nullptr; // nobody can say what is in it
        for (int i = 0; i < 8; i++)
            targets.push_back(NewObject("java/lang/Object", 'O')->address);
        const Scope run = {DefineMethod("shop/Writer", "run", "()V", {{0, 1}}, METHOD_STATIC), 8},
                    write = {DefineMethod("shop/Writer", "write", "()V", {{0, 9}}, METHOD_STATIC), 8};
        const Word code = EmitWriter(array->address + sizeof(JavaArray), WORDS, targets);
        script = {{{FrameKind::INTERPRETED, {run}}, {FrameKind::COMPILED, {write}, false, code}}, Rest::SPIN};
        EmitScript(&script);
        runner = Start("writer", &script);
        while (__atomic_load_n(&runner->control.laps, __ATOMIC_RELAXED) < WORDS)
            usleep(1000);
    }

    // A dump's array is of one moment: the first so many words have a target, all others the one before it.
    void ExpectMoment(const HeapDump &dump) const {
        const std::vector<std::string> &elements = dump.objects.at(array->address).references;
        ASSERT_EQ(elements.size(), size_t{WORDS});
        auto number = [&](const std::string &element) {
            return std::find(targets.begin(), targets.end(), strtoull(element.c_str() + 2, nullptr, 16)) -
                   targets.begin();
        };
        const auto split = std::find_if(elements.begin(), elements.end(), [&](const std::string &element) {
            return element != elements.front();
        });
        EXPECT_EQ(std::count(split, elements.end(), elements.back()), elements.end() - split);
        EXPECT_TRUE(split == elements.end() || number(elements.front()) == (number(*split) + 1) % 8);
    }
};

} // namespace

TEST_P(DumpContent, EqualsTheDescription) {
    Options options;
    options.collector = GetParam().collector;
    WithScene("shop", options, [](Scene &scene) {
        const DumpFolder folder;
        StageRoots(scene.runners.front()->info, GetParam().end);
        const Writer writer;
        FillHeap(TRICKY_HEAP, 1);
        std::vector<Runner *> runners = scene.runners;
        runners.push_back(writer.runner);
        writer.ExpectMoment(ExpectTruth(folder, runners));
        Leave(writer.runner);
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DumpContent,
                         testing::Values(Case{Collector::SERIAL, ChainEnd::NONE},
                                         Case{Collector::PARALLEL, ChainEnd::CYCLE},
                                         Case{Collector::CONCURRENT, ChainEnd::WILD}));
