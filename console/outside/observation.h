// One look at a JVM from outside: everything that a verdict rests on, as plain data.
#pragma once

#include "process_tasks.h"
#include "stack_walk.h"
#include "vm_state.h"

namespace qorctl::outside {

// How far a stack can be trusted.
enum class StackProof {
    NONE,   // there is no stack
    STILL,  // the thread didn't run while it was read
    MOMENT, // a sample
    TORN,   // the thread may have run meanwhile
};

struct SeenThread {
    std::string name; // of the kernel's task when Java's can't be read
    pid_t tid = 0;
    int state = 0, later_state = 0; // at both ends of the look; 0 when it is gone
    TaskTimes first, last;
    double share = 0; // of a processor, during the look
    std::string channel;
    Walk walk;
    StackProof proof = StackProof::NONE;
    std::string no_stack; // why there is none
    size_t samples = 0;
    std::vector<std::pair<std::string, size_t>> tops; // methods that samples were in, most first
    Address self = 0, pending_monitor = 0;
};

// A task that isn't a Java thread: the JVM's own.
struct SeenTask {
    std::string name, channel;
    pid_t tid = 0;
    char state = 0;
    double share = 0;
    uint64_t major_faults = 0; // during the look
};

struct BlockedGroup {
    std::string class_name; // of the monitor's object, empty when it can't be read
    std::vector<std::string> threads;
};

struct Observation {
    pid_t pid = 0;
    StopState stop;
    std::string unread;  // why nothing was read of its memory; empty when something was
    std::string release; // of HotSpot, "17.0.15+6"
    bool has_symbols = false;
    SafepointState first, last;
    std::vector<SeenThread> threads;
    std::vector<SeenTask> tasks;
    std::vector<BlockedGroup> blocked;
    std::string no_samples;  // why running threads couldn't be sampled
    bool unanswered = false; // somebody waits for an answer of it
};

struct LookOptions {
    bool stop_thread = false; // stop a thread in Java for a moment when it can't be sampled
    int stacks_ms = 5000;     // for the stacks of threads that aren't in Java
    int window_ms = 40;       // between the two ends of the look
    int safepoint_ms = 500;   // how long a safepoint may take to be reached
    int patience_ms = 300;    // more for a thread that had no processor meanwhile
};

// Looks at a process. Whatever can't be read is left out, with the reason.
Observation Look(pid_t pid, const LookOptions &options);

// What `list` shows: for how long the JVM has been waiting for a safepoint; nothing when it isn't, hasn't
// for a second, or that can't be read.
std::optional<double> SecondsWithoutSafepoint(pid_t pid);

} // namespace qorctl::outside
