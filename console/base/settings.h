#pragma once

#include "transfer.h"

#include <algorithm>
#include <string>

namespace qorctl {

// What most commands share.
struct Settings {
    bool json = false;
    bool wide = false;
    bool strict = false; // only an agent that is proven to be the JVM's own is asked
    std::string jar;     // empty: the usual places
    std::string options; // for the agent, when it is loaded
    bool cost = false;   // say last for how long the JVM was stopped
    std::string budget;  // milliseconds that a request may stop the JVM; empty: as many as it takes
    int timeout = 75;    // seconds that all questions of a command take at most; the agent's own limit is 60

    // Of the command, or of the current round of a series: the time counts from here.
    Clock::time_point start = Clock::now();
    void BeginRound() { start = Clock::now(); }

    // When the last answer is due.
    Deadline Due() const { return {start + Seconds(timeout), Seconds(timeout)}; }
    // The same for a step that takes no longer than `limit`.
    Clock::time_point DueWithin(Seconds limit) const { return std::min(Due().at, Clock::now() + limit); }
};

} // namespace qorctl
