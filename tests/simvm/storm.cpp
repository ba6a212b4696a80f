#include "scenes.h"

#include <array>
#include <csignal>
#include <fstream>
#include <random>
#include <sys/syscall.h>
#include <thread>
#include <time.h>
#include <unistd.h>

namespace simvm {

namespace {

constexpr int VM_SIGNAL = 31;

struct Slot {
    Script script;
    Runner *runner = nullptr;
    size_t lived = 0; // its row
};

StormOptions storm;
std::deque<Slot> slots;
std::vector<Lived> lived;
std::mutex slotsLock; // who ends and starts threads, or sends them signals
std::vector<std::thread> helpers;
std::atomic<bool> stopping, collecting;
std::atomic<int64_t> collections, ended, foreignSent, foreignArrived, foreignMerged, longestStop;

int64_t Now() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * 1'000'000'000ll + now.tv_nsec;
}

void Ignored(int) {}

MethodInfo *MethodOf(int number) {
    return DefineMethod("storm/C" + std::to_string(number / 40), "m" + std::to_string(number), "()V",
                        {{0, 100 + number}, {20, 300 + number}, {90, 2000 + number}}, METHOD_STATIC, 120);
}

Script MakeScript(std::mt19937 *random, int slot) {
    const Rest LOOPS[] = {Rest::SPIN, Rest::CALLS},
               STILL[] = {Rest::PIPE, Rest::SLEEP, Rest::MONITOR, Rest::WAIT, Rest::ACCEPT};
    Script script;
    bool loops = slot < storm.looping;
    script.rest = loops ? LOOPS[slot % 2] : STILL[slot % 5];
    int depth = 0;
    auto scope = [&] {
        Scope made = {MethodOf(slot * 100 + depth++), int((*random)() % 100), nullptr, {}};
        if ((*random)() % storm.locked == 0)
            made.monitors.push_back(NewObject("storm/Lock"));
        return made;
    };
    while (depth < storm.frames) {
        bool last = depth + 2 >= storm.frames;
        FrameKind kind = FrameKind((*random)() % 4);
        if (last)
            kind = loops ? FrameKind::COMPILED : FrameKind::INTERPRETED;
        Frame frame = {kind, {scope()}};
        bool inlines = kind == FrameKind::COMPILED || kind == FrameKind::OSR;
        while (inlines && depth < storm.frames && (last || (*random)() % 2))
            frame.scopes.push_back(scope());
        if (kind == FrameKind::NATIVE) {
            frame.scopes[0].method->flags |= METHOD_NATIVE;
            At(frame.scopes[0].method->oop, &Method::accessFlags) = METHOD_STATIC | METHOD_NATIVE;
            frame.scopes[0].monitors.clear();
        }
        script.frames.push_back(frame);
    }
    return script;
}

void StartSlot(Slot *slot) {
    size_t number = lived.size();
    std::string name = "storm-" + std::to_string(number);
    slot->lived = number;
    lived.push_back({name, 0, &slot->script, Now(), 0});
    slot->runner = Start(name, &slot->script);
    lived[number].kernelId = slot->runner->info->kernelId;
}

void EndSlot(Slot *slot) {
    Leave(slot->runner);
    slot->runner = nullptr;
    lived[slot->lived].end = Now();
}

// Does it with the threads' lock until the storm ends, after pauses of up to so many microseconds.
template <class BODY>
void Repeat(uint32_t pause, BODY body) {
    std::mt19937 random(storm.seed + pause);
    for (; !stopping; usleep(random() % pause)) {
        const std::lock_guard<std::mutex> held(slotsLock);
        body(random());
    }
}

void Churn() {
    Repeat(3000, [](uint32_t random) {
        EndSlot(&slots[random % slots.size()]);
        StartSlot(&slots[random % slots.size()]);
        ended++;
    });
}

void CollectOften() {
    std::mt19937 random(storm.seed + 2);
    for (; !stopping; usleep(random() % 20000)) {
        collecting = true;
        Collect([&] { usleep(random() % 2000); });
        collecting = false;
        collections++;
    }
}

void SendProfile() {
    Repeat(2000, [](uint32_t) {
        for (Slot &slot : slots)
            syscall(SYS_tgkill, getpid(), slot.runner->info->kernelId, SIGPROF);
    });
}

// One at a time, as a second one would merge with one that is still pending.
void SendForeign() {
    Repeat(5000, [](uint32_t random) {
        const Slot &slot = slots[random % slots.size()];
        foreignSent++;
        syscall(SYS_tgkill, getpid(), slot.runner->info->kernelId, VM_SIGNAL);
        auto owed = [] { return foreignArrived + foreignMerged < foreignSent; };
        for (int wait = 0; wait < (Loops(slot.script.rest) ? 500 : 10000) && owed(); wait++)
            usleep(1000);
        foreignMerged += Loops(slot.script.rest) && owed();
    });
}

std::string LineOfTask(int32_t id, const char *name) {
    std::ifstream file("/proc/self/task/" + std::to_string(id) + "/" + name);
    std::string line;
    std::getline(file, line);
    return line;
}

// How long a looping thread sleeps instead of going on, but for the time in which it merely lacked a
// processor.
void Watch() {
    struct Seen {
        int64_t laps = -1, since = 0, collections = 0;
        Runner *runner = nullptr;
    };
    std::vector<Seen> seen(slots.size());
    Repeat(4000, [&](uint32_t) {
        for (size_t i = 0; i < slots.size(); i++) {
            Runner *runner = slots[i].runner;
            if (!Loops(slots[i].script.rest))
                continue;
            const int32_t id = runner->info->kernelId;
            const int64_t laps = __atomic_load_n(&runner->control.laps, __ATOMIC_RELAXED);
            const std::string state = LineOfTask(id, "stat"), schedule = LineOfTask(id, "schedstat");
            const size_t ran = schedule.find(' ');
            const int64_t now = Now() - (ran == schedule.npos ? 0 : stoll(schedule.substr(ran)));
            if (runner != seen[i].runner || laps != seen[i].laps || collections != seen[i].collections ||
                collecting)
                seen[i] = {laps, now, collections, runner};
            else if (state.find(") S") != state.npos && now - seen[i].since > longestStop)
                longestStop = now - seen[i].since;
        }
    });
}

} // namespace

void VmSignalHandler(int, siginfo_t *, void *) {
    foreignArrived++;
}

void StartStorm(const StormOptions &options) {
    storm = options;
    stopping = false;
    for (auto *figure : {&collections, &ended, &foreignSent, &foreignArrived, &foreignMerged, &longestStop})
        *figure = 0;
    struct sigaction action = {};
    action.sa_sigaction = VmSignalHandler;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(VM_SIGNAL, &action, nullptr);
    action.sa_flags = SA_RESTART;
    action.sa_handler = Ignored;
    sigaction(SIGPROF, &action, nullptr);
    std::mt19937 random(storm.seed);
    for (int i = 0; i < storm.threads; i++) {
        slots.push_back({MakeScript(&random, i)});
        EmitScript(&slots.back().script);
        std::lock_guard<std::mutex> held(slotsLock);
        StartSlot(&slots.back());
    }
    helpers.emplace_back(Watch);
    if (storm.disturbs)
        for (auto *helper : {Churn, CollectOften, SendProfile, SendForeign})
            helpers.emplace_back(helper);
}

std::vector<Lived> LivedSoFar() {
    std::lock_guard<std::mutex> held(slotsLock);
    return lived;
}

std::vector<Runner *> StormRunners() {
    std::vector<Runner *> all;
    for (Slot &slot : slots)
        all.push_back(slot.runner);
    return all;
}

StormFigures StopStorm() {
    stopping = true;
    for (std::thread &helper : helpers)
        helper.join();
    helpers.clear();
    int64_t laps = 0;
    for (Slot &slot : slots) {
        laps += __atomic_load_n(&slot.runner->control.laps, __ATOMIC_RELAXED);
        EndSlot(&slot);
    }
    return {collections, ended, foreignSent, foreignArrived, foreignMerged, longestStop, laps};
}

// ---- spoiling
// ----------------------------------------------------------------------------------------------

namespace {

using Region = std::pair<Word, Word>;

void AddBlobs(const Runner *runner, std::vector<Region> *out) {
    Word low = At(runner->info->address, &JavaThread::anchorSp) & ~Word(3);
    for (Word at = low; low && at + 8 <= runner->stackHigh; at += 8)
        if (Word blob = BlobOf(As<Word>(at))) { // all but its code, which runs
            out->push_back({blob, blob + sizeof(Blob)});
            if (At(blob, &Blob::pcDescCache) > blob)
                out->push_back(
                    {blob + As<Blob>(blob).oopsOffset, At(blob, &Blob::pcDescCache) + sizeof(PcDesc)});
        }
}

std::vector<Region> Spoilable(const std::vector<Runner *> &runners, Word sparedThread) {
    std::vector<Region> all = {{vm.heap + offsetof(CollectedHeap, perm), vm.heap + sizeof(CollectedHeap)}};
    for (HeapSpace *space : {&vm.perm, &vm.old, &vm.eden, &vm.from}) {
        all.push_back({space->structure, space->structure + sizeof(Space)});
        if (space->top > space->bottom)
            all.push_back({space->bottom, space->top});
    }
    Word map = At(*vm.statics.codeHeap, &CodeHeap::mapLow);
    all.push_back({*vm.statics.codeHeap, *vm.statics.codeHeap + sizeof(CodeHeap)});
    all.push_back({map, map + 65536});
    for (const Runner *runner : runners) {
        const ThreadInfo &info = *runner->info;
        if (info.address != sparedThread)
            all.push_back({info.address, info.address + sizeof(JavaThread)});
        all.push_back({info.osThread, info.osThread + sizeof(OSThread)});
        if (Word sp = At(info.address, &JavaThread::anchorSp) & ~Word(3))
            all.push_back({sp, runner->stackHigh});
        AddBlobs(runner, &all);
    }
    return all;
}

} // namespace

Spoilt Spoil(uint64_t seed, const std::vector<Runner *> &runners, Word sparedThread) {
    std::mt19937_64 random(seed);
    std::vector<Region> regions = Spoilable(runners, sparedThread);
    auto word = [&] {
        const auto [low, high] = regions[random() % regions.size()];
        return low + random() % ((high - low) / 8) * 8;
    };
    Word address = word();
    Spoilt spoilt = {address, As<Word>(address)};
    const std::vector<Word> near = {spoilt.old + 4, spoilt.old + 1, spoilt.old ^ 1ul << random() % 64},
                            other = {address, As<Word>(word()), word(), random() % (1ul << 47)},
                            odd = {0, 1, ~Word(0), random(), random() % 65536};
    const std::vector<Word> &values = *std::array{&near, &other, &odd}[random() % 3];
    As<Word>(address) = values[random() % values.size()];
    return spoilt;
}

void Mend(const Spoilt &spoilt) {
    As<Word>(spoilt.address) = spoilt.old;
}

} // namespace simvm
