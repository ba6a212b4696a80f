// What an observation means: rules over plain data. Nothing is concluded from what is missing.
#pragma once

#include "observation.h"

namespace qorctl::outside {

enum class Verdict {
    GONE,
    STOPPED,
    TRACED,
    FROZEN,
    BLOCKED_IN_KERNEL,
    UNREAD,         // its memory couldn't be read
    NO_SAFEPOINT,   // a safepoint has begun and some threads don't reach it
    IN_SAFEPOINT,   // the JVM has stopped its threads itself, for an operation
    UNKNOWN,        // no symbols, so nothing is known of safepoints
    NOBODY_LISTENS, // it runs, but those who would answer are held up
    RUNS,
};

struct Finding {
    Verdict verdict = Verdict::RUNS;
    // Indices of the observation's threads: those that keep the JVM from its safepoint, or with UNKNOWN those
    // that may; with NOBODY_LISTENS those who would answer.
    std::vector<size_t> threads;
};

Finding Judge(const Observation &seen);

// Whether a thread's time went to work, or to waiting for memory or a disk.
enum class Work { IDLE, WORKS, WAITS_FOR_DISK };
Work WorkOf(const SeenTask &task);

// Whether a task is the JVM's own that runs operations or collects.
bool IsVmWorker(const SeenTask &task);

} // namespace qorctl::outside
