// Samples of the simulated VM's threads, compared with what the threads know of themselves.
#include "with_scene.h"

#include "qorutil/vm_threads.h"

#include <ctime>
#include <malloc.h>

using namespace simvm;

namespace {

// Asks for the locals of a poll's first frames: each is the one that its row names, or gone by now.
void ExpectLocalsOfRows(const std::string &reply, size_t most) {
    for (const std::vector<std::string> &field : Records(reply)) {
        if (field.size() != 8 || most-- == 0)
            continue;
        const std::string locals = AskLocals(field, 3);
        if (locals.find("Frame\x1e") == 0)
            EXPECT_EQ(locals.find(field[0] + "\x1f"), 6u) << locals;
        else
            EXPECT_NE(locals.find("\x1f"), std::string::npos) << locals;
    }
}

// A lock's holder is named to its waiter, and one is found for who waits for nothing.
void ExpectHolders(const Scene &scene) {
    const auto holderOf = [](const std::string &lock, const std::string &waiter) {
        return Ask("521|showstack|2048|ARG=x,0=" + lock.substr(0, lock.find(' ')) + waiter);
    };
    for (const Runner *runner : scene.runners) {
        const Shown truth = Truth(*runner);
        for (const std::string &lock : truth.locks)
            EXPECT_EQ(holderOf(lock, "").find("not found."), std::string::npos) << lock;
        if (!truth.waits.empty()) {
            EXPECT_NE(holderOf(truth.waits, ",1=" + Key(*runner->info)).find("till-1"), std::string::npos);
        }
    }
    EXPECT_EQ(Ask("521|showstack|512|ARG=x,1=1-1").find("This Thread does not exist on the JVM\x1f"), 0u);
}

class DirectThreads : public testing::TestWithParam<const char *> {};

} // namespace

TEST_P(DirectThreads, EqualTheirShadowStacks) {
    WithScene("shop", On(GetParam()), [](Scene &scene) {
        ExpectPoll(scene.runners);
        Collect();
        ExpectPoll(scene.runners);
        ExpectHolders(scene);
        const ThreadInfo &thread = *scene.runners.front()->info;
        EXPECT_TRUE(QorIsListed(thread.address, thread.kernelId));
        EXPECT_FALSE(QorIsListed(thread.address, gettid())); // a record in the place of one that has ended
        Word &last = vm.threads.back()->Java().next;
        last = vm.threads.front()->address; // a ring
        ExpectPoll(scene.runners);
        last = 0;
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DirectThreads, testing::ValuesIn(BUILDS));

namespace {

// Whether the thread had these frames, or had them as its outer part.
bool WasSo(const Lived &life, const Shown &shown) {
    std::vector<std::string> frames;
    for (const Scope &scope : ShadowStack(*life.script))
        frames.push_back(FrameText(scope));
    if (life.script->rest == Rest::CALLS) // it calls the same method again and again
        frames.insert(frames.begin(), 2, std::string(frames[0]));
    return frames.size() >= shown.frames.size() &&
           std::equal(shown.frames.rbegin(), shown.frames.rend(), frames.rbegin());
}

// Back to back for ten seconds, and until enough has been seen.
void SampleStorm() {
    size_t stacks = 0, looping = 0;
    for (const time_t end = time(nullptr) + 10;
         (time(nullptr) < end || stacks < 500 || looping < 20) && !testing::Test::HasFailure();) {
        const std::string reply = Ask("793|showstack|32768");
        ExpectLocalsOfRows(reply, 20);
        const std::map<std::string, Lived> lived = LivedSoFar();
        for (const auto &[key, shown] : ReadPoll(reply)) {
            const int32_t id = stoi(key.substr(key.find('-') + 1));
            if (shown.frames.empty() || id == getpid())
                continue;
            const Lived &life = lived.at(shown.name);
            EXPECT_TRUE(life.kernelId == id && WasSo(life, shown))
                << shown.name << testing::PrintToString(shown.frames);
            stacks++;
            looping += Loops(life.script->rest);
        }
    }
}

struct Footprint {
    size_t descriptors = OpenDescriptors(), bytes = mallinfo2().uordblks;
};

} // namespace

// Among threads that come and go, collections and foreign signals every frame shown was one, nobody stands
// still for ever, and nothing is left.
TEST(DirectStorm, ShowsOnlyWhatWasTrueAndLeavesNothing) {
    WithScene("nothing", {}, [](Scene &) {
        Ask("793|showstack|32768");
        EXPECT_EQ(Handler31(), SIG_DFL); // as before the start
        const Footprint still;
        StartStorm({});
        Ask("793|showstack|32768");
        const Footprint first;
        SampleStorm();
        const size_t lives = LivedSoFar().size();
        StopStorm();
        const Footprint last;
        StopAgent();
        EXPECT_EQ(last.descriptors, still.descriptors);
        EXPECT_LT(last.bytes, first.bytes + 16384 + lives * 192); // a life is kept as its description
        EXPECT_EQ(Handler31(), VmSignalHandler);
    });
}

namespace {

using Region = std::pair<Word, Word>; // from, to

std::vector<Region> Spoilable(const std::vector<Runner *> &runners) {
    const Word heap = *vm.statics.codeHeap, map = At(heap, &CodeHeap::mapLow);
    std::vector<Region> all = {
        {Word(&vm.heap->perm), Word(vm.heap + 1)}, {heap, heap + sizeof(CodeHeap)}, {map, map + 65536}};
    for (const HeapSpace *space : {&vm.perm, &vm.old, &vm.eden, &vm.from}) {
        all.push_back({space->structure, space->structure + sizeof(Space)});
        all.push_back({space->bottom, space->top});
    }
    for (const Runner *runner : runners) {
        const ThreadInfo &info = *runner->info;
        all.push_back({info.address, info.address + sizeof(JavaThread)});
        all.push_back({info.osThread, info.osThread + sizeof(OSThread)});
        const Word sp = info.Java().anchorSp & ~Word(3);
        for (Word at = sp; sp && at + 8 <= runner->stackHigh; at += 8)
            if (const Word blob = BlobOf(As<Word>(at))) { // all but its code, which runs
                const Word oops = blob + As<Blob>(blob).oopsOffset, end = blob + As<Blob>(blob).size;
                all.insert(all.end(), {{blob, blob + sizeof(Blob)}, {std::min(oops, end), end}});
            }
        all.push_back({sp, sp ? runner->stackHigh : 0});
    }
    return all;
}

// Overwrites a word that a walk may read: of threads, of the stacks of those that rest, of blobs, of the
// segment map, of the spaces. The main thread's own JavaThread stays whole. Whoever calls what is returned
// mends it.
std::function<void()> Spoil(uint64_t seed, const std::vector<Runner *> &runners) {
    std::mt19937_64 random(seed);
    const std::vector<Region> regions = Spoilable(runners);
    const auto place = [&] {
        for (;;)
            if (const auto [low, high] = regions[random() % regions.size()]; low + 8 <= high)
                return low + random() % ((high - low) / 8) * 8;
    };
    const Word address = place(), old = As<Word>(address);
    const Word values[] = {
        old + 4,  old + 1,  old ^ 1ul << random() % 64, address, As<Word>(place()), place(), 0,
        ~Word(0), random(), random() % 65536,
    };
    As<Word>(address) = values[random() % std::size(values)];
    return [=] { As<Word>(address) = old; };
}

struct SpoiltCase {
    const char *scene, *vm;
    uint64_t rounds;
    std::vector<std::string> requests;
};
const SpoiltCase SPOILT_CASES[] = {
    {"shop", "22", 500, {"785|showstack|32768"}}, // nobody is held
    {"drivers", "17 parallel", 500, {"777|showstack|128", "777|showstack|8192"}},
    {"heap", "22 cms", 50, {"5|showmem|128|", "5|showmem|512|"}},
    {"readers", "22", 500, {"525|showstack|1024|ARG=x,1=0,0=", "785|showstack|32768"}}};
class SpoiltMemory : public testing::TestWithParam<SpoiltCase> {};

} // namespace

// Whatever is in the VM's memory, the process lives, nothing is kept, and a clean sample afterwards is right.
// A failure names its seed.
TEST_P(SpoiltMemory, HarmsNobody) {
    const SpoiltCase &c = GetParam();
    WithScene(c.scene, On(c.vm), [&](Scene &scene) {
        std::vector<Runner *> still; // a thread that runs would read what is spoilt
        std::vector<Object *> named;
        size_t bytes = 0;
        const auto clean = [&] { return Untimed(Ask(c.requests[0])); };
        const std::string before = clean();
        for (Runner *runner : scene.runners)
            if (!Loops(*runner))
                still.push_back(runner);
        for (auto &[name, object] : scene.named)
            named.push_back(object);
        for (uint64_t seed = 1; seed <= c.rounds; seed++) {
            std::string request = c.requests[seed % c.requests.size()];
            if (request.back() == '=')
                request += Hex(named[seed % named.size()]->address);
            const std::function<void()> mend = Spoil(seed, still);
            const std::string reply = Ask(request);
            EXPECT_TRUE(reply.empty() || reply.find("\x1f") != std::string::npos) << "seed " << seed;
            ExpectLocalsOfRows(reply, 1 + seed % 40);
            mend();
            bytes = seed == 1 + c.rounds / 2 ? mallinfo2().uordblks : bytes;
        }
        EXPECT_LT(mallinfo2().uordblks, bytes + 65536);
        EXPECT_EQ(clean(), before);
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, SpoiltMemory, testing::ValuesIn(SPOILT_CASES),
                         [](const auto &info) { return std::string(info.param.scene); });
