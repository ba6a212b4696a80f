#include "scenes.h"

#include <csignal>
#include <sys/syscall.h>
#include <thread>

namespace simvm {

namespace {

struct Slot {
    Script script;
    Runner *runner = nullptr;
};

StormOptions storm;
std::deque<Slot> slots;
std::map<std::string, Lived> lived;
std::mutex slotsLock; // who ends and starts threads, or sends them signals
std::vector<std::thread> helpers;
std::atomic<bool> stopping;

Script MakeScript(std::mt19937 &random, int slot) {
    const bool loops = slot < storm.looping;
    const Rest rests[] = {Rest::SPIN, Rest::CALLS, Rest::SLEEP, Rest::MONITOR};
    Script script = {{}, rests[slot % 2 + (loops ? 0 : 2)]};
    std::string text;
    for (int depth = 0; depth < storm.frames;) {
        const bool last = depth + 2 >= storm.frames;
        const char kind = !last ? "icon"[random() % 4] : loops ? 'c' : 'i';
        std::string scope = (text.empty() ? "" : "; ") + std::string(1, kind);
        do {
            const int number = slot * 100 + depth++;
            text += scope + " storm/C" + std::to_string(number / 40) + ".m" + std::to_string(number);
            text += kind == 'n' ? " " : ":" + std::to_string(100 + number) + " ";
            text += kind != 'n' && random() % storm.locked == 0 ? "^storm/Lock " : "";
            scope = ">";
        } while (strchr("co", kind) && depth < storm.frames && (last || random() % 2));
    }
    script.frames = FramesOf(text);
    return script;
}

void StartSlot(Slot &slot) {
    const std::string name = "storm-" + std::to_string(lived.size());
    slot.runner = Start(name, &slot.script);
    lived[name] = {slot.runner->info->kernelId, &slot.script};
}

// Does it with the threads' lock until the storm ends, after pauses of up to so many microseconds.
void Repeat(uint32_t pause, const std::function<void(uint32_t random)> &body) {
    helpers.emplace_back([=] {
        for (std::mt19937 random(pause); !stopping; usleep(random() % pause)) {
            const std::lock_guard<std::mutex> held(slotsLock);
            body(random());
        }
    });
}

} // namespace

void VmSignalHandler(int) {}

void StartStorm(const StormOptions &options) {
    storm = options;
    stopping = false;
    struct sigaction action = {};
    action.sa_handler = VmSignalHandler;
    action.sa_flags = SA_RESTART;
    sigaction(31, &action, nullptr);
    sigaction(SIGPROF, &action, nullptr);
    std::mt19937 random;
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
            syscall(SYS_tgkill, getpid(), slot.runner->info->kernelId, SIGPROF);
    });
    helpers.emplace_back([] {
        for (std::mt19937 random; !stopping; usleep(random() % 20000))
            Collect([&] { usleep(random() % 2000); });
    });
}

std::map<std::string, Lived> LivedSoFar() {
    const std::lock_guard<std::mutex> held(slotsLock);
    return lived;
}

std::vector<Runner *> StormRunners() {
    std::vector<Runner *> all;
    for (const Slot &slot : slots)
        all.push_back(slot.runner);
    return all;
}

void StopStorm() {
    stopping = true;
    for (std::thread &helper : helpers)
        helper.join();
    helpers.clear();
    for (const Slot &slot : slots)
        Leave(slot.runner);
}

} // namespace simvm
