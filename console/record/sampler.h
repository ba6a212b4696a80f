// One sample of a recording: the requests for it, over one connection.
#pragma once

#include "jvm/endpoint.h"
#include "record_lines.h"

#include <chrono>
#include <functional>
#include <string>

namespace qorctl {

// Sends a request and returns its reply; throws what ends the sample.
using AskFunction = std::function<std::string(const std::string &request)>;

class Sampler {
public:
    explicit Sampler(int64_t inner_pid) : inner_pid_(inner_pid) {}

    // Takes a sample by polls. Threads that the reply had no room for are listed without a stack, and their
    // stacks asked for one by one while the agent has spent less than `budget` on the sample: at each sample
    // others, so that all are seen in time.
    TakenSample Take(const AskFunction &ask, std::chrono::microseconds budget);

private:
    std::string AskTimed(const AskFunction &ask, const std::string &request, TakenSample *sample);
    ThreadSample AskThreads(const AskFunction &ask, bool details, TakenSample *sample);
    void Complete(const AskFunction &ask, std::chrono::microseconds budget, TakenSample *sample);
    void AskStack(const AskFunction &ask, Thread *thread, TakenSample *sample);
    void AddFigures(const AskFunction &ask, TakenSample *sample);

    int64_t inner_pid_;
    int64_t next_asked_ = 0; // the thread at which the next completion begins
};

} // namespace qorctl
