// What a request cost the JVM, as the agent reports it.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace qorctl {

// Calls for which the JVM stops threads, and the time inside them, which holds the wait for the stop: the JVM
// was stopped for that long at most.
struct Cost {
    int calls = 0;
    double largest_ms = 0, sum_ms = 0;
    bool walk_left_out = false; // the walk for local variables

    void Add(const Cost &other);
};

// The request with the flag that asks for it; an older agent ignores the flag.
std::string WithCost(std::string_view request);

// Takes the section off the end of a reply; nothing when it has none.
std::optional<Cost> TakeCost(std::string *reply);

// Milliseconds of the longest such call in the last request of the agent that made one, by what it was for;
// nothing when there was none yet. The heap in the JVM itself, or until a copy was made.
struct LastCost {
    std::optional<double> stacks, locks, locals, heap, copy;
};
std::string LastCostRequest();

// Nothing when the agent doesn't know the question.
std::optional<LastCost> ReadLastCost(std::string_view reply);

} // namespace qorctl
