// How often a recording samples: as asked, less often where its own requests would take too much of the time.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <deque>

namespace qorctl {

class Pace {
public:
    // `share` of wall-clock time, 0.02 or so, is what the agent may spend.
    Pace(std::chrono::milliseconds asked, double share) : asked_(asked), interval_(asked), share_(share) {}

    // Takes what the agent spent on a sample's requests; returns whether the interval is another one now. One
    // odd sample changes nothing: the median of the last ones counts.
    bool Add(std::chrono::microseconds spent);

    std::chrono::milliseconds interval() const { return interval_; }

    // What the requests of one sample may take: the share of the interval asked for.
    std::chrono::microseconds Budget() const;

private:
    std::chrono::milliseconds asked_, interval_;
    double share_;
    std::deque<int64_t> spent_; // microseconds, newest last
};

} // namespace qorctl
