// Asks a JVM's agent from a thread of its own, so that a screen isn't held up by a JVM that is slow.
#pragma once

#include "base/process.h"
#include "base/settings.h"
#include "jvm/endpoint.h"
#include "tables.h"

#include <condition_variable>
#include <mutex>
#include <optional>
#include <string>

namespace qorctl {

// What the next look is to bring.
struct TopQuestion {
    double seconds = 2;   // between two looks
    bool all = false;     // idle threads too
    bool details = false; // who waits for what, and statements
    std::string stack;    // the key of the thread whose stack is wanted; empty: none
};

struct TopAnswer {
    TopClock::time_point time;
    ThreadSample sample;
    Summary summary;
    std::vector<CollectorBean> collectors;
    ThreadSample stack;   // of the thread asked for, if it is alive
    std::string stack_of; // the key it was asked by
    std::string failure;  // why there is nothing else; else empty
};

class Asker {
public:
    // Loads the agent if it isn't there; throws a Failure when it can't be.
    Asker(const Settings &settings, pid_t pid);
    // The thread isn't waited for: it may be in a request that takes as long as its limit. The process is to
    // end after this.
    void Start(const TopQuestion &question);

    // Replaces the question; the next look comes at once.
    void Change(const TopQuestion &question);

    // The latest answer, once.
    std::optional<TopAnswer> Take();

    // For how long an answer has been due; 0 when none is.
    std::chrono::seconds Silence();

    // Readable when there is an answer to take.
    int Descriptor() const { return ready_.get(); }

private:
    void Run();
    TopAnswer Look(const TopQuestion &question);
    void Connect();

    Settings settings_;
    pid_t pid_;
    std::optional<Connection> connection_; // of the thread alone, once it runs
    FileDescriptor ready_;
    std::mutex mutex_;
    std::condition_variable changed_;
    TopQuestion question_; // under the lock, as what follows
    bool is_new_ = false;  // the question
    std::optional<TopAnswer> answer_;
    std::optional<TopClock::time_point> asked_; // and not answered, or by a failure
};

} // namespace qorctl
