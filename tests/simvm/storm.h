// A VM that never rests: threads end and start, collections move what they refer to, and signals that aren't
// the agent's arrive all the time.
#pragma once

#include "runner.h"

#include <csignal>

namespace simvm {

struct StormOptions {
    int threads = 30, frames = 20, looping = 10;
    uint32_t locked = 4; // one frame of so many has a monitor
    uint32_t seed = 1;
    bool churn = true, collect = true, profile = true, foreign = true;
};

// A thread of the storm, for as long as it was in its rest; times in nanoseconds of CLOCK_MONOTONIC, `end` 0
// while it lasts. What it showed then is its script's shadow stack; one that has just come or is about to go
// shows the outer part.
struct Lived {
    std::string name;
    int32_t kernelId;
    const Script *script;
    int64_t start, end;
};

struct StormFigures {
    int64_t collections = 0, threadsEnded = 0, profileSignals = 0;
    // Signals 31 of the VM's own. The kernel keeps one of two pending ones, so that one to a looping thread
    // may be lost when the agent's own is on its way; no other may.
    int64_t foreignSent = 0, foreignArrived = 0, foreignMerged = 0;
    int64_t longestStop = 0; // of a looping thread, nanoseconds, asleep outside collections
    int64_t laps = 0;        // of those at the end
};

void StartStorm(const StormOptions &options);
std::vector<Lived> LivedSoFar();
std::vector<Runner *> StormRunners(); // where none comes or goes
// Ends all of it. The VM's own handler of signal 31 stays installed: VmSignalHandler.
StormFigures StopStorm();
void VmSignalHandler(int signal, siginfo_t *info, void *context);

// ---- spoiling
// ----------------------------------------------------------------------------------------------

struct Spoilt {
    Word address, old;
};
// Overwrites a word that a walk may read: of threads, of the stacks of those that rest, of blobs, of the
// segment map, of the spaces, or of anything in perm. `sparedThread`'s own JavaThread stays whole. For a VM
// on which nothing else goes on.
Spoilt Spoil(uint64_t random, const std::vector<Runner *> &runners, Word sparedThread);
void Mend(const Spoilt &spoilt);

} // namespace simvm
