// One sample of a recording, back in the form in which it was taken.
#include "base/failure.h"
#include "recording.h"

#include <algorithm>
#include <charconv>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr int MOST_SKIPPED = 1000000;

// "class.method(File.java:12)"; what has no such form is a class without a method.
Frame FrameOf(std::string_view text, int index) {
    Frame frame;
    frame.index = index;
    size_t open = text.rfind('('), close = text.rfind(')');
    bool whole = open != text.npos && close == text.size() - 1;
    std::string_view call = whole ? text.substr(0, open) : text;
    std::string_view place = whole ? text.substr(open + 1, close - open - 1) : "";
    size_t point = call.rfind('.'), colon = place.rfind(':');
    frame.class_name = call.substr(0, point);
    frame.method = point == call.npos ? "" : call.substr(point + 1);
    if (colon != place.npos)
        std::from_chars(place.data() + colon + 1, place.data() + place.size(), frame.line);
    if (place != "Native Method")
        frame.file = place.substr(0, colon);
    return frame;
}

std::vector<Frame> StackOf(const Json &frames) {
    std::vector<Frame> stack;
    int index = 0;
    for (const Json &row : frames) {
        Frame frame;
        if (row.is_number_integer()) {
            frame.index = index;
            frame.skipped = std::clamp<int64_t>(row.get<int64_t>(), 1, std::max(MOST_SKIPPED - index, 1));
            index += static_cast<int>(frame.skipped);
        } else if (row.is_string()) {
            frame = FrameOf(row.get_ref<const std::string &>(), index++);
        } else {
            frame = FrameOf(TextAt(row, "framework"), index);
            frame.framework = true;
        }
        stack.push_back(std::move(frame));
    }
    return stack;
}

OwnedLock LockOf(const Json &lock) {
    return {NumberAt(lock, "lock").value_or(0), TextAt(lock, "class"),
            static_cast<int>(NumberAt(lock, "depth").value_or(NONE))};
}

Thread ThreadOf(const Json &row, const std::map<int64_t, Json> &stacks) {
    Thread thread;
    thread.name = TextAt(row, "name");
    thread.key.thread = NumberAt(row, "id").value_or(0);
    thread.state = TextAt(row, "state");
    thread.end_to_end.cpu_nanoseconds = NumberAt(row, "cpu_nanoseconds");
    if (auto stack = stacks.find(NumberAt(row, "stack").value_or(NONE)); stack != stacks.end()) {
        thread.stack = StackOf(PartAt(stack->second, "frames"));
        thread.stack_cut = PartAt(stack->second, "cut") == true;
    }
    if (const Json &wait = PartAt(row, "waits_for"); wait.is_object()) {
        OwnedLock lock = LockOf(wait);
        thread.waits_for = LockWait{lock.lock, {0, NumberAt(wait, "owner").value_or(0)}, lock.class_name};
    }
    if (const Json &parked = PartAt(row, "parked_on"); parked.is_object())
        thread.parked_on = LockOf(parked);
    for (const Json &owned : PartAt(row, "owns"))
        thread.owns.push_back(LockOf(owned));
    return thread;
}

// Follows the lines as far as the sample that is wanted.
class Finder {
public:
    explicit Finder(int64_t number) : number_(number) {}
    void Line(const Json &line);
    std::optional<OneSample> found;

private:
    void Sample(const Json &line);

    int64_t number_;
    Json meta_;
    std::map<int64_t, Json> stacks_, rows_; // of this part; the last row of each thread
};

void Finder::Line(const Json &line) {
    if (found)
        return;
    std::string type = TextAt(line, "type");
    if (meta_.is_null())
        RequireMeta(line);
    if (type == "meta") {
        meta_ = line;
        stacks_.clear();
    } else if (type == "stack") {
        stacks_[NumberAt(line, "n").value_or(NONE)] = line;
    } else if (type == "sample") {
        Sample(line);
    }
}

void Finder::Sample(const Json &line) {
    for (const Json &row : PartAt(line, "threads"))
        rows_[NumberAt(row, "id").value_or(0)] = row;
    if (NumberAt(line, "n") != number_)
        return;
    found.emplace();
    found->time = TimeOf(line);
    found->java_version = TextAt(meta_, "java_version");
    found->threads.cut = NumberAt(line, "missing").value_or(0) > 0;
    for (const Json &row : PartAt(line, "threads"))
        found->threads.threads.push_back(ThreadOf(row, stacks_));
    for (const Json &id : PartAt(line, "same"))
        if (auto row = id.is_number_integer() ? rows_.find(id.get<int64_t>()) : rows_.end();
            row != rows_.end())
            found->threads.threads.push_back(ThreadOf(row->second, stacks_));
}

} // namespace

OneSample ReadSample(const Source &source, int64_t number) {
    Finder finder(number);
    EachLine(source, [&](const Json &line) { finder.Line(line); });
    if (!finder.found)
        throw Failure(fmt::format("the recording has no sample {}", number),
                      "samples are counted from 1, over all parts", EXIT_USAGE);
    return std::move(*finder.found);
}

} // namespace qorctl
