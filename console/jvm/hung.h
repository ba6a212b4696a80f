// A look at a JVM that may not answer, with an end: what `qorctl hung` shows, and what the other commands say
// when they get no answer.
//
// The look is made by a child, which is ended at its limit: reading another process's memory or map can wait
// for a lock of that process for ever, and then that is the finding. What needs no such lock is read before,
// by the caller.
#pragma once

#include <chrono>
#include <string>
#include <sys/types.h>

namespace qorctl {

struct HungOptions {
    bool json = false;
    bool all = false;         // every thread, not only those concerned
    bool stop_thread = false; // stop a thread in Java for a moment when it can't be sampled
    bool unanswered = false;  // somebody waits for an answer of it
    std::chrono::milliseconds limit = std::chrono::seconds(10);
};

struct HungReport {
    std::string sentence; // one, without an end
    std::string text;     // the sentence, and what it rests on
    bool is_hung = false;
    bool is_read = true; // else the sentence says why nothing is known
};

// Looks at a process. Always returns within the limit and a moment. Any thread.
HungReport LookAtHung(pid_t pid, const HungOptions &options);

// Stopped, traced, frozen, "no safepoint since 12 s", or empty: a JVM's note in a list. Takes at most
// `limit`.
std::string HungNote(pid_t pid, bool may_read, std::chrono::milliseconds limit);

} // namespace qorctl
