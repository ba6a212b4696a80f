#include "render_hung.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl::outside {

namespace {

constexpr size_t FRAMES_OF_CULPRIT = 40, FRAMES_OF_OTHER = 20, FRAMES_IN_JSON = 2000;
constexpr size_t MOST_NAMED = 3, MOST_GROUPS = 5, MOST_WORKERS = 8;
constexpr double MENTIONED_SHARE = 0.02;

std::string Quoted(const std::string &name) {
    return '"' + Printable(name) + '"';
}

std::string Percent(double share) {
    return fmt::format("{:.0f} %", share * 100);
}

std::string Since(const std::optional<double> &seconds) {
    return seconds ? fmt::format(" since {:.1f} s", *seconds) : " since an unknown time";
}

// "A", "B" and 5 more
std::string Names(const std::vector<std::string> &names) {
    std::string text;
    for (size_t i = 0; i < std::min(names.size(), MOST_NAMED); ++i)
        text += (i == 0 ? "" : ", ") + Quoted(names[i]);
    return names.size() > MOST_NAMED ? fmt::format("{} and {} more", text, names.size() - MOST_NAMED) : text;
}

std::string Names(const Observation &seen, const Finding &finding) {
    std::vector<std::string> names;
    for (const size_t i : finding.threads)
        names.push_back(seen.threads[i].name);
    return Names(names);
}

const char *ProofText(StackProof proof) {
    switch (proof) {
    case StackProof::STILL:
        return "did not run while it was read";
    case StackProof::MOMENT:
        return "one moment";
    case StackProof::TORN:
        return "may be torn";
    case StackProof::NONE:
        break;
    }
    return "no stack";
}

std::string Channels(const StopState &stop) {
    std::string text;
    for (const auto &[channel, count] : stop.channels)
        text += fmt::format("{}{} in {}", text.empty() ? "" : ", ", count,
                            channel.empty() ? "?" : Printable(channel));
    return text;
}

std::string StopSentence(const Observation &seen, Verdict verdict) {
    switch (verdict) {
    case Verdict::STOPPED:
        return fmt::format("is stopped by a signal; let it run again: kill -CONT {}", seen.pid);
    case Verdict::TRACED:
        return "is stopped by a debugger" +
               (seen.stop.tracer > 0
                    ? fmt::format(", process {} ({})", seen.stop.tracer, Printable(seen.stop.tracer_name))
                    : "") +
               (seen.stop.traced < seen.stop.tasks
                    ? fmt::format(": {} of its {} tasks", seen.stop.traced, seen.stop.tasks)
                    : "");
    case Verdict::FROZEN:
        return "is frozen with its cgroup";
    case Verdict::BLOCKED_IN_KERNEL:
        return fmt::format("waits in the kernel with all its tasks: {}{}", Channels(seen.stop),
                           seen.stop.freezer_read ? "" : "; whether frozen is unknown");
    default:
        return "";
    }
}

// Safepoints that begin or end during the look are no finding, but "in no safepoint" would be wrong.
const char *SafepointText(const Observation &seen) {
    const bool none = seen.first.phase == NO_SAFEPOINT && seen.last.phase == NO_SAFEPOINT &&
                      seen.first.counter == seen.last.counter;
    return none ? "is in no safepoint" : "comes to its safepoints";
}

// Without the cgroup, only a thread that runs proves that the process isn't frozen.
const char *FrozenText(const Observation &seen) {
    const auto ran = [](const auto &one) { return one.share > 0; };
    const bool known = seen.stop.freezer_read || std::any_of(seen.threads.begin(), seen.threads.end(), ran) ||
                       std::any_of(seen.tasks.begin(), seen.tasks.end(), ran);
    return known ? "" : "; whether frozen is unknown";
}

std::string MemorySentence(const Observation &seen, const Finding &finding) {
    switch (finding.verdict) {
    case Verdict::NO_SAFEPOINT:
        return fmt::format("waits for a safepoint{}{}", Since(seen.last.seconds),
                           finding.threads.empty()
                               ? "; no thread was seen that keeps it from it"
                               : fmt::format(": {} doesn't reach it", Names(seen, finding)));
    case Verdict::IN_SAFEPOINT:
        return fmt::format("is in a safepoint{}, for {}{}", Since(seen.last.seconds),
                           seen.last.operation.empty() ? "an unknown operation"
                                                       : Printable(seen.last.operation),
                           seen.last.collects.value_or(false) ? ", and collects" : "");
    case Verdict::UNKNOWN:
        return finding.threads.empty()
                   ? "runs; safepoint state unknown (no symbols)"
                   : fmt::format("runs; safepoint state unknown (no symbols); in Java all the time: {}",
                                 Names(seen, finding));
    case Verdict::NOBODY_LISTENS:
        return finding.threads.empty()
                   ? fmt::format("{}, but doesn't answer", SafepointText(seen))
                   : fmt::format("{}, but nobody listens: see {}", SafepointText(seen), Names(seen, finding));
    default:
        return fmt::format("is not hung: it {}, and its threads can run", SafepointText(seen));
    }
}

// "in Java, on CPU 84 %, 19 of 19 samples in Load.warm2 [C2]"
std::string ThreadText(const SeenThread &thread) {
    std::string text = fmt::format("{}  {}", Quoted(thread.name), JavaStateText(thread.state));
    if (thread.share >= MENTIONED_SHARE || thread.state == JAVA_IN_JAVA)
        text += ", on CPU " + Percent(thread.share);
    else if (!thread.channel.empty() && thread.channel != "0")
        text += ", waits in " + Printable(thread.channel);
    for (const auto &[method, count] : thread.tops)
        text += fmt::format(", {} of {} samples in {}", count, thread.samples, Printable(method));
    return text + "\n";
}

std::string StackText(const SeenThread &thread, size_t most) {
    if (thread.proof == StackProof::NONE)
        return thread.no_stack.empty()
                   ? ""
                   : fmt::format("   stack unavailable: {}\n", Printable(thread.no_stack));
    const std::string &reason = thread.walk.reason;
    const std::string part =
        reason.empty() ? "" : (thread.walk.whole ? ", without " : ", in part: ") + reason;
    std::string text = fmt::format("   stack ({}{}):\n", ProofText(thread.proof), Printable(part));
    for (size_t i = 0; i < std::min(thread.walk.frames.size(), most); ++i)
        text += "\tat " + Printable(FrameText(thread.walk.frames[i])) + "\n";
    if (thread.walk.frames.size() > most)
        text += fmt::format("\t... {} more\n", thread.walk.frames.size() - most);
    return text;
}

const char *WorkText(Work work) {
    switch (work) {
    case Work::WORKS:
        return ": it works";
    case Work::WAITS_FOR_DISK:
        return ": it waits for swap or a disk";
    case Work::IDLE:
        break;
    }
    return "";
}

std::vector<SeenTask> Workers(const Observation &seen) {
    std::vector<SeenTask> workers;
    for (const SeenTask &task : seen.tasks)
        if (IsVmWorker(task) &&
            (task.name == "VM Thread" || WorkOf(task) != Work::IDLE || task.share >= MENTIONED_SHARE))
            workers.push_back(task);
    std::stable_sort(workers.begin(), workers.end(),
                     [](const SeenTask &a, const SeenTask &b) { return a.share > b.share; });
    workers.resize(std::min(workers.size(), MOST_WORKERS));
    return workers;
}

std::string AskedBy(const Observation &seen) {
    for (const SeenThread &thread : seen.threads)
        if (seen.last.asked_by != 0 && thread.self == seen.last.asked_by)
            return thread.name;
    return "";
}

std::string OperationText(const Observation &seen) {
    std::string text;
    const std::string asked_by = AskedBy(seen);
    if (!seen.last.operation.empty())
        text = "operation " + Printable(seen.last.operation);
    if (!asked_by.empty())
        text += ", asked for by " + Quoted(asked_by);
    if (seen.last.waiting_for.value_or(0) > 0)
        text += fmt::format("{}threads waited for: {}", text.empty() ? "" : "; ", *seen.last.waiting_for);
    return text.empty() ? "" : text + "\n";
}

std::string BlockedText(const Observation &seen) {
    size_t count = 0;
    for (const BlockedGroup &group : seen.blocked)
        count += group.threads.size();
    std::string text = count == 0 ? "" : fmt::format("{} threads are blocked by monitors:\n", count);
    for (size_t i = 0; i < std::min(seen.blocked.size(), MOST_GROUPS); ++i) {
        const BlockedGroup &group = seen.blocked[i];
        text += fmt::format("   {} by one of {}: {}\n", group.threads.size(),
                            group.class_name.empty() ? "an unknown class" : Printable(group.class_name),
                            Names(group.threads));
    }
    return text;
}

std::string DetailText(const Observation &seen, const Finding &finding) {
    std::string text;
    if (finding.verdict == Verdict::NO_SAFEPOINT || finding.verdict == Verdict::IN_SAFEPOINT)
        text += OperationText(seen);
    if (finding.verdict == Verdict::IN_SAFEPOINT)
        for (const SeenTask &task : Workers(seen))
            text += fmt::format("{}  on CPU {}{}\n", Quoted(task.name), Percent(task.share),
                                WorkText(WorkOf(task)));
    if (finding.verdict == Verdict::NOBODY_LISTENS || finding.verdict == Verdict::RUNS)
        text += BlockedText(seen);
    return text;
}

const char *VerdictName(Verdict verdict) {
    static constexpr const char *NAMES[] = {"gone",
                                            "stopped",
                                            "traced",
                                            "frozen",
                                            "blocked in the kernel",
                                            "unread",
                                            "safepoint not reached",
                                            "in a safepoint",
                                            "safepoint unknown",
                                            "nobody listens",
                                            "runs"};
    return NAMES[static_cast<size_t>(verdict)];
}

template <class Value>
Json OrNull(const std::optional<Value> &value) {
    return value ? Json(*value) : Json();
}

Json ThreadJson(const SeenThread &thread) {
    Json frames = Json::array(), tops = Json::array();
    for (size_t i = 0; i < std::min(thread.walk.frames.size(), FRAMES_IN_JSON); ++i)
        frames.push_back(FrameText(thread.walk.frames[i]));
    for (const auto &[method, count] : thread.tops)
        tops.push_back({{"method", method}, {"samples", count}});
    Json json = {{"name", thread.name},
                 {"tid", thread.tid},
                 {"state", JavaStateText(thread.state)},
                 {"cpu", thread.share},
                 {"wchan", thread.channel},
                 {"samples", thread.samples},
                 {"top", tops},
                 {"proof", ProofText(thread.proof)},
                 {"whole", thread.walk.whole},
                 {"reason", thread.walk.reason},
                 {"frames", frames}};
    json["depth"] = thread.walk.frames.size();
    if (thread.proof == StackProof::NONE && !thread.no_stack.empty())
        json["unavailable"] = thread.no_stack;
    return json;
}

} // namespace

std::string VerdictSentence(const Observation &seen, const Finding &finding) {
    std::string what = StopSentence(seen, finding.verdict);
    if (finding.verdict == Verdict::GONE)
        what = "has gone";
    else if (finding.verdict == Verdict::UNREAD)
        what = fmt::format("isn't stopped{}, and can't be read: {}",
                           seen.stop.freezer_read ? " or frozen" : " (whether frozen is unknown)",
                           seen.unread.empty() ? "its threads can't be read" : Printable(seen.unread));
    else if (what.empty())
        what = MemorySentence(seen, finding) + FrozenText(seen);
    return fmt::format("JVM {} {}", seen.pid, what);
}

std::string VerdictText(const Observation &seen, const Finding &finding, bool all) {
    std::string text = VerdictSentence(seen, finding) + "\n" + DetailText(seen, finding);
    for (const size_t i : finding.threads)
        text += "\n" + ThreadText(seen.threads[i]) + StackText(seen.threads[i], FRAMES_OF_CULPRIT);
    if (!all)
        return text;
    for (size_t i = 0; i < seen.threads.size(); ++i)
        if (std::find(finding.threads.begin(), finding.threads.end(), i) == finding.threads.end())
            text += "\n" + ThreadText(seen.threads[i]) + StackText(seen.threads[i], FRAMES_OF_OTHER);
    return text;
}

Json VerdictJson(const Observation &seen, const Finding &finding, bool all) {
    Json threads = Json::array(), workers = Json::array(), blocked = Json::array();
    for (size_t i = 0; i < seen.threads.size(); ++i) {
        const bool concerned =
            std::find(finding.threads.begin(), finding.threads.end(), i) != finding.threads.end();
        if (!all && !concerned)
            continue;
        threads.push_back(ThreadJson(seen.threads[i]));
        threads.back()["concerned"] = concerned;
    }
    for (const SeenTask &task : Workers(seen))
        workers.push_back({{"name", task.name},
                           {"cpu", task.share},
                           {"state", std::string(1, task.state)},
                           {"major_faults", task.major_faults}});
    for (const BlockedGroup &group : seen.blocked)
        blocked.push_back({{"class", group.class_name}, {"threads", group.threads}});
    const bool at_safepoint = seen.last.phase.value_or(NO_SAFEPOINT) != NO_SAFEPOINT;
    Json json = {{"pid", seen.pid},
                 {"verdict", VerdictName(finding.verdict)},
                 {"sentence", VerdictSentence(seen, finding)},
                 {"release", seen.release}};
    json["safepoint"] = {{"phase", OrNull(seen.last.phase)},
                         {"seconds", OrNull(at_safepoint ? seen.last.seconds : std::nullopt)},
                         {"waiting_for", OrNull(seen.last.waiting_for)},
                         {"operation", seen.last.operation},
                         {"asked_by", AskedBy(seen)},
                         {"collects", OrNull(seen.last.collects)}};
    json["workers"] = workers;
    json["blocked"] = blocked;
    json["threads"] = threads;
    json["no_samples"] = seen.no_samples;
    return json;
}

} // namespace qorctl::outside
