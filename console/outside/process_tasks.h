// Threads of a process as the kernel knows them, and whether the process runs at all. All of it is text of
// /proc that needs no memory of the process, so none of it waits for a lock of the process.
#pragma once

#include "process_memory.h"

#include <chrono>
#include <map>
#include <optional>
#include <string>
#include <utility>
#include <vector>

namespace qorctl::outside {

struct TaskTimes {
    char state = 0; // the kernel's letter; 0 when the task is gone
    uint64_t ran_ns = 0;
    uint64_t slices = 0; // times that it was put on a processor
    uint64_t major_faults = 0;
    std::chrono::steady_clock::time_point at = {}; // when they were read
};
TaskTimes ReadTask(pid_t pid, pid_t tid);

// Whether a task had no instruction run between two readings: it wasn't running at either, and wasn't put on
// a processor meanwhile.
bool StayedStill(const TaskTimes &before, const TaskTimes &after);

// The text of a file of a task ("wchan", "comm"), without its end of line.
std::string TaskText(pid_t pid, pid_t tid, const char *file);

// The user's stack and program counter of a task that is in the kernel.
struct UserPlace {
    Address sp = 0, pc = 0;
};
std::optional<UserPlace> ReadUserPlace(pid_t pid, pid_t tid);
std::optional<UserPlace> ParseSyscall(const std::string &text); // exposed for tests

// Tasks by the id that the process itself knows them by, which differs in a pid namespace.
std::map<pid_t, pid_t> TasksByInnerId(pid_t pid);

enum class Stop {
    NONE,
    STOPPED, // by a signal
    TRACED,  // by a debugger, at least one task
    FROZEN,  // with its cgroup
    GONE,    // it has ended
    BLOCKED, // every task waits in the kernel, uninterruptibly
};

struct StopState {
    Stop stop = Stop::NONE;
    pid_t tracer = 0;
    std::string tracer_name;
    size_t traced = 0, tasks = 0;                      // stopped by the debugger, and all of them
    bool freezer_read = false;                         // whether its cgroup could say that it is frozen
    std::vector<std::pair<std::string, int>> channels; // where its tasks wait, with BLOCKED
};
StopState ReadStopState(pid_t pid);

// Whether the process's cgroup is frozen, by version 1's or 2's hierarchy; nothing when neither can be read.
std::optional<bool> ReadFrozen(pid_t pid);

} // namespace qorctl::outside
