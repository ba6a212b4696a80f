#include "verdict.h"

#include "base/starts_with.h"

#include <algorithm>
#include <string_view>

namespace qorctl::outside {

namespace {

// Beginnings of names, as the kernel cuts them at 15 characters.
constexpr std::string_view VM_WORKERS[] = {
    "VM Thread",   "GC Thread", "GC task thread",  "G1 ",         "GC ",
    "Gang worker", "ParGC",     "Shenandoah",      "ZWorker",     "ZDriver",
    "XWorker",     "XDriver",   "Concurrent Mark", "VM Periodic", "ZGC"};
constexpr std::string_view ANSWERERS[] = {"Attach Listener", "Signal Dispatcher", "qoragent-", "QORD Agent"};

constexpr double WORKING = 0.5, BUSY = 0.05;

template <size_t N>
bool StartsWithOne(std::string_view name, const std::string_view (&starts)[N]) {
    return std::any_of(std::begin(starts), std::end(starts),
                       [&](std::string_view start) { return StartsWith(name, start); });
}

bool IsOneOf(int state, std::initializer_list<int> states) {
    return std::find(states.begin(), states.end(), state) != states.end();
}

// A thread in native code or blocked doesn't hold up a safepoint, and one that isn't started doesn't yet.
bool HoldsUp(int state) {
    return !IsOneOf(state, {0, JAVA_NEW, JAVA_NEW + 1, JAVA_IN_NATIVE, JAVA_BLOCKED});
}

// One that waits for its next caller: in native code or blocked, without Java frames or a lock it wants. The
// agent's own threads wait in Java's socket calls.
bool IsHeldUp(const SeenThread &thread) {
    const bool ours = thread.name.compare(0, 9, "qoragent-") == 0;
    return thread.pending_monitor != 0 || (!ours && !thread.walk.frames.empty());
}

// The same safepoint at both ends of the look: a JVM that collects all the time has another one by then.
bool SameSafepoint(const Observation &seen) {
    return seen.last.counter && seen.first.phase == seen.last.phase &&
           seen.first.counter == seen.last.counter;
}

void FindCulprits(const Observation &seen, Finding *finding) {
    for (size_t i = 0; i < seen.threads.size(); ++i)
        if (HoldsUp(seen.threads[i].state) && HoldsUp(seen.threads[i].later_state))
            finding->threads.push_back(i);
}

// Without symbols: in Java at all times and on a processor, while it is unknown whether anybody waits for
// them.
void FindCandidates(const Observation &seen, Finding *finding) {
    for (size_t i = 0; i < seen.threads.size(); ++i) {
        const SeenThread &thread = seen.threads[i];
        if (thread.state == JAVA_IN_JAVA && thread.later_state == JAVA_IN_JAVA && thread.share >= BUSY)
            finding->threads.push_back(i);
    }
}

void FindAnswerers(const Observation &seen, Finding *finding) {
    for (size_t i = 0; i < seen.threads.size(); ++i)
        if (StartsWithOne(seen.threads[i].name, ANSWERERS) && (seen.unanswered || IsHeldUp(seen.threads[i])))
            finding->threads.push_back(i);
}

Verdict OfStop(Stop stop) {
    switch (stop) {
    case Stop::STOPPED:
        return Verdict::STOPPED;
    case Stop::TRACED:
        return Verdict::TRACED;
    case Stop::FROZEN:
        return Verdict::FROZEN;
    case Stop::GONE:
        return Verdict::GONE;
    case Stop::BLOCKED:
        return Verdict::BLOCKED_IN_KERNEL;
    case Stop::NONE:
        break;
    }
    return Verdict::RUNS;
}

} // namespace

bool IsVmWorker(const SeenTask &task) {
    return StartsWithOne(task.name, VM_WORKERS);
}

Work WorkOf(const SeenTask &task) {
    if (task.share >= WORKING)
        return Work::WORKS;
    return task.state == 'D' || task.major_faults > 0 ? Work::WAITS_FOR_DISK : Work::IDLE;
}

Finding Judge(const Observation &seen) {
    Finding finding;
    finding.verdict = OfStop(seen.stop.stop);
    if (finding.verdict != Verdict::RUNS)
        return finding;
    if (!seen.unread.empty() || seen.threads.empty()) {
        finding.verdict = Verdict::UNREAD;
        return finding;
    }
    if (!seen.last.phase) {
        finding.verdict = Verdict::UNKNOWN;
        FindCandidates(seen, &finding);
        return finding;
    }
    if (*seen.last.phase == SAFEPOINT_BEGUN && SameSafepoint(seen)) {
        finding.verdict = Verdict::NO_SAFEPOINT;
        FindCulprits(seen, &finding);
        return finding;
    }
    if (*seen.last.phase == SAFEPOINT_REACHED && SameSafepoint(seen)) {
        finding.verdict = Verdict::IN_SAFEPOINT;
        return finding;
    }
    FindAnswerers(seen, &finding);
    finding.verdict = seen.unanswered || !finding.threads.empty() ? Verdict::NOBODY_LISTENS : Verdict::RUNS;
    return finding;
}

} // namespace qorctl::outside
