// How a test gets its VM, its scene and its agent: one VM a process.
#pragma once

#include "qoragent/worker.h"
#include "qorutil/vm_offsets.h"
#include "scenes.h"

#include <filesystem>
#include <gtest/gtest.h>

namespace simvm {

inline void StopAgent() {
    Ask("SHUTDOWN");
    while (QorWorkerLives()) // a hang is the test's time-out
        usleep(1000);
}

// Boots a VM, stages the scene, and calls the body on its main thread with the agent started. Then both end.
inline void WithScene(const std::string &name, const Options &options,
                      const std::function<void(Scene &)> &body) {
    Boot(options);
    Scene scene;
    StageScene(name, &scene);
    RunAsMain([&] {
        ASSERT_EQ(StartAgent(), 0);
        body(scene);
        StopAgent();
    });
    EndScene(&scene);
}

// A reply without what each has another of.
inline std::string Untimed(const std::string &reply) {
    return reply.substr(0, reply.find("Time spent in JVM"));
}

inline auto Handler31() {
    struct sigaction action;
    sigaction(31, nullptr, &action);
    return action.sa_handler;
}

inline size_t OpenDescriptors() {
    const std::filesystem::directory_iterator all("/proc/self/fd");
    return size_t(std::count_if(begin(all), end(all), [](const auto &entry) { return entry.exists(); }));
}

// Where dumps go, for as long as it is there.
struct DumpFolder {
    const std::filesystem::path path =
        std::filesystem::temp_directory_path() / ("dump" + std::to_string(getpid()));
    DumpFolder() {
        std::filesystem::create_directory(path);
        Ask("512|NoProcessing|qorheapdir|" + path.string());
    }
    ~DumpFolder() { std::filesystem::remove_all(path); }
    std::string operator()(const char *name) const { return path / name; }
};

const char *const BUILDS[] = {"07", "22 parallel", "10 client cms"};

inline std::string Key(const ThreadInfo &thread) {
    return std::to_string(getpid()) + "-" + std::to_string(thread.kernelId);
}

inline bool Loops(const Runner &runner) {
    return Loops(runner.script->rest);
}

// What `qorctl locals` sends for a row of a stack: kind, fp, pc, sp and method, which begin at that field.
inline std::string AskLocals(const std::vector<std::string> &row, size_t from) {
    std::string request = "521|showstack|4096|ARG=x";
    for (size_t i = 0; i < 5; i++)
        request += "," + std::to_string(i) + "=" + row[from + i];
    return Ask(request);
}

// A poll with stacks, by key.
inline std::map<std::string, Shown> ReadPoll(const std::string &reply) {
    std::map<std::string, Shown> threads;
    Shown *last = nullptr;
    std::string title;
    for (const std::vector<std::string> &field : Records(reply))
        if (field.size() == 1)
            title = field[0];
        else if (title == "Thread Info Details" && field.size() == 10)
            *(last = &threads[field[5]]) = {field[1], field[9], {}, "", {}};
        else if (title == "Call Stack")
            last->frames.push_back(field[0] + " " + field[1] + " " + field[2]);
        else if (title == "Lock On")
            last->waits = field[0] + " " + field[2];
        else if (title == "JVM Locks")
            last->locks.insert(field[0] + " " + field[2] + " " + field[3]);
    return threads;
}

// One that calls is compared by its two outermost frames: it is between two of its calls.
inline void ExpectRow(const Runner &runner, Shown shown) {
    Shown truth = Truth(runner);
    if (runner.script->rest == Rest::CALLS && shown.frames.size() >= 2) {
        for (Shown *of : {&shown, &truth})
            of->frames.erase(of->frames.begin(), of->frames.end() - 2);
        shown.waits = truth.waits;
        shown.locks = truth.locks;
    }
    EXPECT_EQ(shown.Lines(), truth.Lines());
}

// Asks until each thread that runs has stopped in time, for the rows of all; on a busy machine some don't.
// Those at rest have to be right at once.
inline void ExpectPoll(std::vector<Runner *> runners) {
    const size_t rows = runners.size() + 1; // and the caller's
    for (int polls = 0; polls < 50 && !runners.empty() && !testing::Test::HasFailure(); polls++) {
        std::map<std::string, Shown> threads = ReadPoll(Ask("793|showstack|32768"));
        std::vector<Runner *> missing;
        for (Runner *runner : runners)
            if (Loops(*runner) && threads[Key(*runner->info)].frames.empty())
                missing.push_back(runner);
            else
                ExpectRow(*runner, threads[Key(*runner->info)]);
        runners = missing;
        if (runners.empty()) {
            EXPECT_EQ(threads.size(), rows);
        }
    }
    EXPECT_TRUE(runners.empty()) << Truth(*runners[0]).name << " was never shown with frames";
}

} // namespace simvm
