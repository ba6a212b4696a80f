#include "thread_formats.h"

#include "base/terminal.h"
#include "show/render.h"

#include <algorithm>
#include <ctime>
#include <fmt/format.h>
#include <map>

namespace qorctl {

namespace {

struct JavaState {
    const char *state, *how; // Thread.State, and the words after the ids
};

bool TopIs(const Thread &thread, std::string_view method) {
    return !thread.stack.empty() && thread.stack[0].method == method;
}

bool IsTimed(const Thread &thread) {
    return thread.stack.size() > 1 &&
           (thread.stack[1].method == "parkNanos" || thread.stack[1].method == "parkUntil");
}

JavaState StateOf(const Thread &thread) {
    if (thread.state == "Lock" && !TopIs(thread, "park"))
        return {"BLOCKED (on object monitor)", "waiting for monitor entry"};
    if (thread.state == "Sleeping")
        return {"TIMED_WAITING (sleeping)", "sleeping"};
    if (TopIs(thread, "park"))
        return {IsTimed(thread) ? "TIMED_WAITING (parking)" : "WAITING (parking)", "waiting on condition"};
    if (thread.state == "Object Wait" && (TopIs(thread, "wait") || TopIs(thread, "wait0")))
        return {"WAITING (on object monitor)", "in Object.wait()"};
    return {"RUNNABLE", "runnable"};
}

std::string LockLine(const char *how, int64_t lock, const std::string &class_name) {
    return fmt::format("\t- {} <0x{:016x}> (a {})\n", how, lock, Printable(class_name));
}

std::string WaitLine(const Thread &thread) {
    const char *how = TopIs(thread, "park")    ? "parking to wait for "
                      : thread.state == "Lock" ? "waiting to lock"
                                               : "waiting on";
    if (thread.waits_for)
        return LockLine(how, thread.waits_for->lock, thread.waits_for->class_name);
    if (thread.parked_on)
        return LockLine(how, thread.parked_on->lock, thread.parked_on->class_name);
    return "";
}

std::string StackText(const Thread &thread) {
    std::string text;
    bool first = true;
    for (const Frame &frame : thread.stack) {
        if (frame.framework)
            continue;
        text += frame.skipped > 0 ? fmt::format("\t... {} frames skipped\n", frame.skipped)
                                  : fmt::format("\tat {}\n", Printable(CallText(frame)));
        if (first)
            text += WaitLine(thread);
        first = false;
        int64_t last = frame.index + std::max<int64_t>(frame.skipped, 1);
        for (const OwnedLock &lock : thread.owns)
            if (lock.depth >= frame.index && lock.depth < last)
                text += LockLine("locked", lock.lock, lock.class_name);
    }
    return text;
}

// Lines of folded stacks. Semicolons and blanks of a frame would cut its line elsewhere: they are replaced.
class FoldedStacks {
public:
    void Add(const std::vector<std::string> &frames, int64_t count) {
        std::string line;
        for (std::string frame : frames) {
            std::replace(frame.begin(), frame.end(), ';', ':');
            std::replace(frame.begin(), frame.end(), ' ', '_');
            line += (line.empty() ? "" : ";") + Printable(frame);
        }
        if (!line.empty() && count > 0)
            counts_[line] += count;
    }
    std::string Text() const {
        std::string text;
        for (auto &[line, count] : counts_)
            text += fmt::format("{} {}\n", line, count);
        return text;
    }

private:
    std::map<std::string, int64_t> counts_;
};

std::string Escaped(std::string text) {
    std::replace(text.begin(), text.end(), '"', '\'');
    return Printable(text);
}

} // namespace

std::string JstackText(const ThreadSample &sample, int64_t time, const std::string &java_version) {
    char clock[32] = "";
    time_t seconds = time / 1000;
    tm local;
    strftime(clock, sizeof clock, "%Y-%m-%d %H:%M:%S", localtime_r(&seconds, &local));
    std::string text = fmt::format("{}\nFull thread dump of Java {}:\n\n", clock, Printable(java_version));
    for (const Thread &thread : sample.threads) {
        JavaState state = StateOf(thread);
        text += fmt::format("\"{}\" #{} prio=5 os_prio=0", Escaped(thread.name), thread.key.thread);
        if (thread.end_to_end.cpu_nanoseconds)
            text +=
                fmt::format(" cpu={:.2f}ms", static_cast<double>(*thread.end_to_end.cpu_nanoseconds) / 1e6);
        text += fmt::format(" tid=0x{:016x} nid=0x0 {}\n   java.lang.Thread.State: {}\n", thread.key.thread,
                            state.how, state.state);
        text += StackText(thread) + "\n";
    }
    return text;
}

std::string FoldedText(const ThreadSample &sample) {
    FoldedStacks folded;
    for (const Thread &thread : sample.threads) {
        std::vector<std::string> frames;
        if (thread.stack_cut)
            frames.push_back("[bottom missing]");
        for (auto frame = thread.stack.rbegin(); frame != thread.stack.rend(); ++frame)
            if (!frame->framework)
                frames.push_back(frame->skipped > 0 ? fmt::format("[{} frames skipped]", frame->skipped)
                                                    : frame->class_name + "." + frame->method);
        folded.Add(frames, 1);
    }
    return folded.Text();
}

std::string FoldedText(const Recording &recording) {
    FoldedStacks folded;
    std::vector<int64_t> counts(recording.stacks.size());
    for (const Run &run : recording.runs)
        if (run.place.stack != NONE)
            counts[static_cast<size_t>(run.place.stack)] += run.count;
    for (size_t i = 0; i < counts.size(); ++i) {
        std::vector<std::string> frames;
        for (auto frame = recording.stacks[i].rbegin(); frame != recording.stacks[i].rend(); ++frame)
            frames.push_back(recording.texts.all()[static_cast<size_t>(*frame)]);
        folded.Add(frames, counts[i]);
    }
    return folded.Text();
}

} // namespace qorctl
