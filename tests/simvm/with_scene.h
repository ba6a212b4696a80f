// How a test gets its VM, its scene and its agent: one VM a process.
#pragma once

#include "agent.h"

#include "qoragent/worker.h"
#include "qorutil/vm_offsets.h"

#include <algorithm>
#include <filesystem>
#include <gtest/gtest.h>
#include <sys/prctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace simvm {

// The agent's row for a VM whose members have changed places.
inline void TellAgentPlaces() {
    static uint32_t row[OFFSET_COUNT];
    QorSelectOffsets(LAST_DIRECT_BUILD);
    std::copy(offsets, offsets + OFFSET_COUNT, row);
    TellPlaces(row);
    offsetsForTests = row;
}

// Boots a VM, stages the scene, and calls the body on its main thread with the agent started. Then both end.
inline void WithScene(const std::string &name, const Options &options,
                      const std::function<void(Scene &)> &body) {
    Boot(options);
    if (options.shuffle)
        TellAgentPlaces();
    Scene scene;
    StageScene(name, &scene);
    Script main = MainScript();
    EmitScript(&main);
    natives = {Java_qoragent_Agent_initvar, Java_qoragent_Agent_dataFromNative};
    RunHere("main", &main, [&] {
        ASSERT_EQ(StartAgent(), 0);
        body(scene);
        Ask("SHUTDOWN");
        while (QorWorkerLives()) // a hang is the test's time-out
            usleep(1000);
    });
    EndScene(&scene);
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

// Runs a test's body in a separate process, for tests of several VMs. The body's failures are this test's.
inline void InOwnProcess(const std::function<void()> &body) {
    const pid_t child = fork();
    if (child == 0) {
        prctl(PR_SET_PDEATHSIG, SIGKILL); // one that hangs ends with the test
        body();
        fflush(nullptr);
        _exit(testing::Test::HasFailure() ? 1 : 0);
    }
    int status = -1;
    waitpid(child, &status, 0);
    EXPECT_EQ(status, 0) << "the process failed, or died";
}

// Three builds and collectors, one of them a client.
inline Options BuildOf(int number) {
    const char *const VERSIONS[] = {"1.5.0_07", "1.5.0_22", "1.5.0_10"};
    Options options;
    options.version = VERSIONS[number];
    options.isClient = number == 2;
    options.collector = Collector(number);
    options.wide = number == 1;
    return options;
}

} // namespace simvm
