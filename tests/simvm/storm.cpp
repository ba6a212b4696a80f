#include "scenes.h"

#include <csignal>
#include <sys/syscall.h>
#include <thread>

namespace simvm {

namespace {

constexpr int VM_SIGNAL = 31;

struct Slot {
    Script script;
    Runner *runner = nullptr;
};

StormOptions storm;
std::deque<Slot> slots;
std::vector<Lived> lived;
std::mutex slotsLock; // who ends and starts threads, or sends them signals
std::vector<std::thread> helpers;
std::atomic<bool> stopping;
std::atomic<int64_t> foreignSent, foreignArrived, foreignMerged;

Script MakeScript(std::mt19937 &random, int slot) {
    const Rest LOOPS[] = {Rest::SPIN, Rest::CALLS},
               STILL[] = {Rest::PIPE, Rest::SLEEP, Rest::MONITOR, Rest::WAIT, Rest::ACCEPT};
    const bool loops = slot < storm.looping;
    Script script = {{}, loops ? LOOPS[slot % 2] : STILL[slot % 5]};
    int depth = 0;
    const auto scope = [&](FrameKind kind) {
        const int number = slot * 100 + depth++;
        Scope made = {DefineMethod("storm/C" + std::to_string(number / 40), "m" + std::to_string(number),
                                   "()V", {{0, 100 + number}, {20, 300 + number}, {90, 2000 + number}},
                                   METHOD_STATIC | (kind == F::NATIVE ? METHOD_NATIVE : 0), 120),
                      int(random() % 100)};
        if (random() % storm.locked == 0 && kind != F::NATIVE)
            made.monitors.push_back(New("storm/Lock"));
        return made;
    };
    while (depth < storm.frames) {
        const bool last = depth + 2 >= storm.frames;
        const FrameKind kind = !last ? FrameKind(random() % 4) : loops ? F::COMPILED : F::INTERPRETED;
        Frame frame = {kind, {scope(kind)}};
        while (IsCompiled(kind) && depth < storm.frames && (last || random() % 2))
            frame.scopes.push_back(scope(kind));
        script.frames.push_back(frame);
    }
    return script;
}

void StartSlot(Slot &slot) {
    const std::string name = "storm-" + std::to_string(lived.size());
    slot.runner = Start(name, &slot.script);
    lived.push_back({name, slot.runner->info->kernelId, &slot.script});
}

// Does it with the threads' lock until the storm ends, after pauses of up to so many microseconds.
void Repeat(uint32_t pause, const std::function<void(uint32_t random)> &body) {
    helpers.emplace_back([=] {
        for (std::mt19937 random(storm.seed + pause); !stopping; usleep(random() % pause)) {
            const std::lock_guard<std::mutex> held(slotsLock);
            body(random());
        }
    });
}

void Signal(const Slot &slot, int signal) {
    syscall(SYS_tgkill, getpid(), slot.runner->info->kernelId, signal);
}

// One at a time, as a second one would merge with one that is still pending.
void SendForeign(uint32_t random) {
    const Slot &slot = slots[random % slots.size()];
    foreignSent++;
    Signal(slot, VM_SIGNAL);
    const auto owed = [] { return foreignArrived + foreignMerged < foreignSent; };
    for (int wait = 0; wait < (Loops(slot.script.rest) ? 500 : 10000) && owed(); wait++)
        usleep(1000);
    foreignMerged += Loops(slot.script.rest) && owed();
}

} // namespace

void VmSignalHandler(int, siginfo_t *, void *) {
    foreignArrived++;
}

void StartStorm(const StormOptions &options) {
    storm = options;
    stopping = false;
    struct sigaction action = {};
    action.sa_sigaction = VmSignalHandler;
    action.sa_flags = SA_SIGINFO | SA_RESTART;
    sigaction(VM_SIGNAL, &action, nullptr);
    action.sa_flags = SA_RESTART;
    action.sa_handler = [](int) {};
    sigaction(SIGPROF, &action, nullptr);
    std::mt19937 random(storm.seed);
    for (int i = 0; i < storm.threads; i++) {
        slots.push_back({MakeScript(random, i)});
        EmitScript(&slots.back().script);
        StartSlot(slots.back());
    }
    if (!storm.disturbs)
        return;
    Repeat(3000, [](uint32_t random) {
        Slot &slot = slots[random % slots.size()];
        Leave(slot.runner);
        StartSlot(slot);
    });
    Repeat(2000, [](uint32_t) {
        for (const Slot &slot : slots)
            Signal(slot, SIGPROF);
    });
    Repeat(5000, SendForeign);
    helpers.emplace_back([] {
        for (std::mt19937 random(storm.seed); !stopping; usleep(random() % 20000))
            Collect([&] { usleep(random() % 2000); });
    });
}

std::vector<Lived> LivedSoFar() {
    const std::lock_guard<std::mutex> held(slotsLock);
    return lived;
}

std::vector<Runner *> StormRunners() {
    std::vector<Runner *> all;
    for (const Slot &slot : slots)
        all.push_back(slot.runner);
    return all;
}

bool StopStorm() {
    stopping = true;
    for (std::thread &helper : helpers)
        helper.join();
    helpers.clear();
    for (const Slot &slot : slots)
        Leave(slot.runner);
    return foreignSent == foreignArrived + foreignMerged;
}

} // namespace simvm
