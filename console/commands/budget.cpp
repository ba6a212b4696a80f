#include "budget.h"

#include "base/failure.h"
#include "command_tools.h"
#include "wire/cost.h"
#include "wire/memory.h"

#include <cstdlib>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr double LONGEST_WALK_MS = 200; // the agent's own limit of a walk for local variables
constexpr double MS_PER_MIB = 1.7;      // of a count in the JVM: 80 ms for a million objects of 50 bytes
constexpr double MS_PER_GIB_COPIED = 30;
constexpr double KIB_PER_MIB = 1024, KIB_PER_GIB = 1024 * 1024;

LastCost AskForLastCost(const Settings &settings, pid_t pid) {
    const std::string reply = AskOnce(settings, pid, LastCostRequest());
    const std::optional<LastCost> cost = ReadLastCost(reply);
    if (!cost)
        throw Failure("the agent doesn't report what requests cost the JVM",
                      "it is older than this console; leave --budget out");
    return *cost;
}

// A figure, and where it is from.
struct Figure {
    double ms;
    std::string text;
};

Figure Known(double ms, const char *what) {
    return {ms, fmt::format("{} stopped the JVM for up to {:.1f} ms", what, ms)};
}

Figure OfHeap(const std::optional<double> &last, const char *what, double reckoned_ms, double used_kib) {
    if (last)
        return Known(*last, what);
    return {reckoned_ms, fmt::format("{:.0f} ms are reckoned for {:.0f} MiB of heap in use", reckoned_ms,
                                     used_kib / KIB_PER_MIB)};
}

Failure OverBudget(const Figure &figure, double budget) {
    return Failure(fmt::format("the budget of {:g} ms is too small: {}", budget, figure.text),
                   "raise --budget, or leave it out");
}

} // namespace

double BudgetOf(const std::string &text) {
    char *end = nullptr;
    const double ms = strtod(text.c_str(), &end);
    const std::string_view unit(end);
    if (end == text.c_str() || !(ms > 0) || !(unit.empty() || unit == "ms"))
        throw Failure(fmt::format("\"{}\" isn't a budget", text), "give milliseconds, as in --budget 50ms",
                      EXIT_USAGE);
    return ms;
}

void FitThreads(const Settings &settings, pid_t pid, ThreadQuestion *question) {
    if (settings.budget.empty())
        return;
    const double budget = BudgetOf(settings.budget);
    const LastCost last = AskForLastCost(settings, pid);
    if (last.stacks && *last.stacks > budget)
        throw OverBudget(Known(*last.stacks, "the last look at the stacks"), budget);
    if (last.locks && *last.locks > budget && question->details) {
        question->details = false;
        fmt::print(stderr, "qorctl: current calls only, to keep to the budget: {}\n",
                   Known(*last.locks, "the last look at locks").text);
    }
    if (last.locals.value_or(LONGEST_WALK_MS) > budget) {
        question->locals = false;
        fmt::print(stderr, "qorctl: without data of other tiers, to keep to the budget: {}\n",
                   last.locals ? Known(*last.locals, "the last walk for local variables").text
                               : "such a walk may take 200 ms, and none was made yet");
    }
}

std::string WhyByCopy(const Settings &settings, pid_t pid) {
    if (settings.budget.empty())
        return "";
    const double budget = BudgetOf(settings.budget);
    const LastCost last = AskForLastCost(settings, pid);
    const auto used =
        static_cast<double>(DecodeMemory(OpenReply(AskOnce(settings, pid, MemoryRequest(false)))).used_kib);
    const Figure inside = OfHeap(last.heap, "the last count", used / KIB_PER_MIB * MS_PER_MIB, used);
    if (inside.ms <= budget)
        return "";
    const Figure copied = OfHeap(last.copy, "the last copy", used / KIB_PER_GIB * MS_PER_GIB_COPIED, used);
    if (copied.ms > budget)
        throw OverBudget(copied, budget);
    return inside.text;
}

} // namespace qorctl
