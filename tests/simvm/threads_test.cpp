// Samples of the simulated VM's threads, compared with what the threads know of themselves.
#include "scenes.h"
#include "with_scene.h"

#include "qorthreads/running_queue.h"
#include "qorutil/vm_threads.h"
#include "sunprint/scopes.h"

#include <ctime>
#include <malloc.h>

using namespace simvm;

namespace {

// Asks for the locals of a poll's first frames: each is the one that its row names, or gone by now.
void ExpectLocalsOfRows(const std::string &reply, size_t most) {
    for (const std::string &record : Split(reply, 30)) {
        const std::vector<std::string> field = Split(Split(record, 31)[0], 29);
        if (field.size() != 8 || most-- == 0)
            continue;
        const std::string locals = Ask("521|showstack|4096|ARG=x,0=" + field[3] + ",1=" + field[4] +
                                       ",2=" + field[5] + ",3=" + field[6] + ",4=" + field[7]);
        if (locals.find("Frame\x1e") == 0)
            EXPECT_EQ(locals.find(field[0] + "\x1f"), 6u) << record << locals;
        else
            EXPECT_NE(locals.find("\x1f"), std::string::npos) << locals;
    }
}

// The waiter of a lock is told who holds it; so is who waits for nothing.
void ExpectHolders(const Scene &scene) {
    for (const Runner *runner : scene.runners) {
        std::vector<std::string> asked = Truth(*runner).locks;
        const std::string waits = Truth(*runner).waits;
        for (std::string &lock : asked)
            lock = lock.substr(0, lock.find(' '));
        if (!waits.empty())
            asked.push_back(waits.substr(0, waits.find(' ')) + ",1=" + Key(*runner->info));
        for (const std::string &lock : asked) {
            const std::string holder = Ask("521|showstack|2048|ARG=x,0=" + lock);
            EXPECT_EQ(holder.find("Thread holding this lock not found."), std::string::npos) << lock;
            EXPECT_TRUE(waits.empty() || lock != asked.back() || holder.find("till-1") != holder.npos)
                << holder;
        }
    }
    EXPECT_EQ(Ask("521|showstack|512|ARG=x,1=1-1").find("This Thread does not exist on the JVM\x1f"), 0u);
}

// A frame whose block of monitors has its top above its base, or no object in its slots, is taking them down.
void ExpectNoMonitorsFromTornFrames(const Scene &scene) {
    for (const Runner *runner : scene.runners) {
        if (runner->script->rest != Rest::MONITOR)
            continue;
        const std::string request = "521|showstack|512|ARG=x,1=" + Key(*runner->info);
        const std::string view = Ask(request);
        const std::vector<std::string> top = Split(Split(view.substr(view.find("Call Stack")), 30)[1], 29);
        const Word block = std::stoul(top[2], nullptr, 16) - offsets[FRAME_MONITORS_TOP],
                   sp = std::stoul(top[4], nullptr, 16);
        const Scope scope = ShadowStack(*runner->script)[0];
        std::map<Word, Word> kept;
        if (top[1] == "2")
            kept[block] = block + 16;
        for (Word at = sp; top[1] == "1" && at < sp + 256; at += 8)
            for (const Object *object : scope.monitors)
                if (As<Word>(at) == object->address)
                    kept[at] = 8;
        EXPECT_FALSE(kept.empty());
        for (auto &[at, word] : kept)
            std::swap(As<Word>(at), word);
        const std::string torn = Ask(request), locks = torn.substr(torn.find("JVM Locks"));
        for (auto &[at, word] : kept)
            std::swap(As<Word>(at), word);
        EXPECT_EQ(torn.find("Lock On"), std::string::npos) << torn;
        EXPECT_EQ(Split(Split(locks, 31)[0], 30).size(), Truth(*runner).locks.size()) << torn;
    }
}

// A thread keeps its place in the counts when nobody knows where its code has saved the frame pointer.
void ExpectCountsWithoutLinks(const Scene &scene) {
    Word none, &base = vm.statics.stackRegisters ? *vm.statics.stackRegisters : none; // another compiler's
    const Word kept = std::exchange(base, 1 << 20);
    const std::vector<std::string> figures = Split(Ask("521|showstack|64"), 29);
    base = kept;
    size_t threads = 0;
    for (size_t i = 0; i < 8 && i < figures.size(); i++)
        threads += stoul(figures[i]);
    EXPECT_EQ(threads, scene.runners.size() + 1);
}

// While a collection runs nothing of a frame is shown, and the rows stay.
void ExpectNoFramesInCollections() {
    std::string reply;
    Collect([&] { reply = Ask("780|showstack|8192"); });
    const std::vector<std::string> rows = Split(Split(reply, 31)[0], 30);
    EXPECT_EQ(rows.size(), vm.threads.size() + 1) << reply;
    for (size_t i = 1; i < rows.size(); i++)
        EXPECT_EQ(Split(rows[i], 29)[6], "^") << rows[i];
}

class DirectThreads : public testing::TestWithParam<const char *> {};

} // namespace

TEST_P(DirectThreads, EqualTheirShadowStacks) {
    WithScene("shop", On(GetParam()), [](Scene &scene) {
        for (int i = 0; i < MAX_VM_THREADS; i++) // as a request leaves the queue that is broken off
            add_queue_elem(1);
        ExpectPoll(scene.runners);
        Collect();
        ExpectPoll(scene.runners);
        ExpectHolders(scene);
        ExpectNoMonitorsFromTornFrames(scene);
        ExpectCountsWithoutLinks(scene);
        ExpectNoFramesInCollections();
        Word &last = At(vm.threads.back()->address, &JavaThread::next);
        last = vm.threads.front()->address; // a ring
        ExpectPoll(scene.runners);
        last = 0;
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, DirectThreads, testing::ValuesIn(BUILDS));

// On VMs whose members have changed places: what walks and reports has no place but its row's.
TEST(DirectThreads, AreFoundByTheRowAlone) {
    for (uint32_t number = 1; number <= 20; number++)
        InOwnProcess([=] {
            SCOPED_TRACE(number);
            Options options;
            options.shuffle = number;
            WithScene("shop", options, [](Scene &scene) { ExpectPoll(scene.runners); });
        });
}

namespace {

// The thread of that id and name that had these frames, or had them as its outer part; null: none.
const Lived *WhoWasSo(const Shown &shown, int32_t id, const std::vector<Lived> &lived) {
    const auto found = std::find_if(lived.begin(), lived.end(), [&](const Lived &life) {
        std::vector<std::string> frames;
        for (const Scope &scope : life.kernelId == id && life.name == shown.name ? ShadowStack(*life.script)
                                                                                 : std::vector<Scope>())
            frames.push_back(FrameText(scope));
        if (life.script->rest == Rest::CALLS && !frames.empty()) // it calls the same method again and again
            frames.insert(frames.begin(), 2, std::string(frames[0]));
        return frames.size() >= shown.frames.size() &&
               std::equal(shown.frames.rbegin(), shown.frames.rend(), frames.rbegin());
    });
    return found == lived.end() ? nullptr : &*found;
}

struct StormSamples {
    size_t samples = 0, stacks = 0, looping = 0, wrong = 0;
};

// Back to back for so long, and until enough has been seen.
StormSamples SampleStorm(time_t seconds) {
    StormSamples seen;
    for (const time_t end = time(nullptr) + seconds;
         (time(nullptr) < end || seen.stacks < 500 || seen.looping < 20) && seen.wrong == 0; seen.samples++) {
        const std::string reply = Ask("793|showstack|32768");
        const std::map<std::string, Shown> threads = ReadPoll(reply);
        ExpectLocalsOfRows(reply, 20);
        const std::vector<Lived> lived = LivedSoFar();
        for (const auto &[key, shown] : threads) {
            const int32_t id = atoi(key.substr(key.find('-') + 1).c_str());
            if (shown.frames.empty() || id == getpid())
                continue;
            seen.stacks++;
            if (const Lived *life = WhoWasSo(shown, id, lived)) {
                const Rest rest = life->script->rest;
                seen.looping += rest == Rest::SPIN || rest == Rest::CALLS;
                continue;
            }
            seen.wrong++;
            for (const std::string &frame : shown.frames)
                ADD_FAILURE() << shown.name << " " << frame;
        }
    }
    return seen;
}

struct Footprint {
    size_t descriptors = OpenDescriptors(), bytes = mallinfo2().uordblks;
};

} // namespace

// Among threads that come and go, collections and foreign signals every frame shown was one, nobody stands
// still, and nothing is left. QOR_STORM=SECONDS asks for a longer one.
TEST(DirectStorm, ShowsOnlyWhatWasTrueAndLeavesNothing) {
    const char *longer = getenv("QOR_STORM");
    WithScene("nothing", {}, [&](Scene &) {
        Ask("793|showstack|32768");
        struct sigaction action;
        sigaction(31, nullptr, &action);
        EXPECT_EQ(action.sa_handler, SIG_DFL); // as before the start
        const Footprint still;
        StartStorm({});
        Ask("793|showstack|32768");
        const Footprint first;
        const StormSamples seen = SampleStorm(longer ? atoi(longer) : 10);
        const size_t lives = LivedSoFar().size();
        const StormFigures figures = StopStorm();
        const Footprint last;
        Ask("SHUTDOWN");
        while (QorWorkerLives())
            usleep(1000);
        printf("%zu samples, %zu stacks, %zu of looping threads; %zu lives, %ld collections, longest stop "
               "%.3f ms\n",
               seen.samples, seen.stacks, seen.looping, lives, figures.collections,
               figures.longestStop / 1e6);
#ifndef __SANITIZE_ADDRESS__ // whose own locks take their time
        EXPECT_LT(figures.longestStop, 100'000'000);
#endif
        EXPECT_EQ(figures.foreignSent, figures.foreignArrived + figures.foreignMerged);
        EXPECT_EQ(last.descriptors, still.descriptors);
        EXPECT_LT(last.bytes, first.bytes + 16384 + lives * 128); // a life is kept as its description
        sigaction(31, nullptr, &action);
        EXPECT_EQ(action.sa_sigaction, VmSignalHandler);
    });
}

namespace {

struct SpoiltCase {
    const char *scene, *vm;
    uint64_t share; // of the rounds
    std::vector<std::string> requests;
};
const SpoiltCase SPOILT_CASES[] = {
    {"shop", "22", 1, {"785|showstack|32768"}}, // nobody is held
    {"drivers", "17 parallel", 1, {"777|showstack|128", "777|showstack|8192"}},
    {"heap", "22 cms", 10, {"5|showmem|128|", "5|showmem|512|"}},
    {"readers", "22", 1, {"525|showstack|1024|ARG=x,1=0,0=", "785|showstack|32768"}}};
class SpoiltMemory : public testing::TestWithParam<SpoiltCase> {};

} // namespace

// Whatever stands in the VM's memory, the process lives, nothing is kept, and a clean sample afterwards is
// right. A failure names its seed; QOR_SPOILT=COUNT asks for more of them, QOR_SEED for others.
TEST_P(SpoiltMemory, HarmsNobody) {
    const char *more = getenv("QOR_SPOILT"), *other = getenv("QOR_SEED");
    const uint64_t count = (more ? strtoul(more, nullptr, 10) : 500) / GetParam().share,
                   first = other ? strtoul(other, nullptr, 10) : 1;
    WithScene(GetParam().scene, On(GetParam().vm), [=](Scene &scene) {
        const std::vector<std::string> &requests = GetParam().requests;
        std::vector<Runner *> still; // a thread that runs would read what is spoilt
        std::vector<Object *> named;
        size_t bytes = 0;
        const auto clean = [&] {
            const std::string reply = Ask(requests[0]);
            return reply.substr(0, reply.find("Time spent"));
        };
        const std::string before = clean();
        std::copy_if(scene.runners.begin(), scene.runners.end(), std::back_inserter(still),
                     [](const Runner *runner) { return !Loops(*runner); });
        for (auto &[name, object] : scene.named)
            if (name != "many")
                named.push_back(object);
        for (uint64_t seed = first; seed < first + count; seed++) {
            std::string request = requests[seed % requests.size()];
            if (request.back() == '=')
                request += Hex(named[seed % named.size()]->address);
            const Spoilt spoilt = Spoil(seed, still, Self()->address);
            const std::string reply = Ask(request);
            EXPECT_TRUE(reply.empty() || reply.find("\x1f") != std::string::npos) << "seed " << seed;
            ExpectLocalsOfRows(reply, 1 + seed % 40);
            Mend(spoilt);
            bytes = seed == first + count / 2 ? mallinfo2().uordblks : bytes;
        }
        EXPECT_LT(mallinfo2().uordblks, bytes + 65536);
        EXPECT_EQ(clean(), before);
    });
}

INSTANTIATE_TEST_SUITE_P(Simvm, SpoiltMemory, testing::ValuesIn(SPOILT_CASES),
                         [](const auto &info) { return std::string(info.param.scene); });

TEST(CompressedStream, ReadsTheTextsThatTheCompilerWrites) {
    int32_t position = 0, value;
    const uint8_t texts[] = {192, 193, 255, 191, 128, 0, 193}, endless[] = {127, 127, 127, 127, 127, 193};
    for (int32_t number : {0, 1, 63, -1, -64, 128}) {
        ASSERT_TRUE(get_int_from_compressed_stream(reinterpret_cast<uint64_t>(texts), &position, &value));
        EXPECT_EQ(value, number);
    }
    EXPECT_EQ(position, 7);
    EXPECT_FALSE(
        get_int_from_compressed_stream(reinterpret_cast<uint64_t>(endless), &(position = 0), &value));
}
