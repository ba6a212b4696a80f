#include "recording.h"

#include "base/failure.h"
#include "record/record_lines.h"

#include <algorithm>
#include <fmt/format.h>

namespace qorctl {

namespace {

constexpr int MOST_NESTED = 64;              // of a line; qorctl writes five
constexpr int64_t LATEST = 8640000000000000; // milliseconds since 1970 that a browser has a date for

// Whether copying or writing the JSON text as a value, which recurses, may need too much stack.
bool IsTooDeep(std::string_view json) {
    int depth = 0;
    bool quoted = false;
    for (size_t at = 0; at < json.size() && depth <= MOST_NESTED; ++at) {
        const char c = json[at];
        if (quoted && c == '\\')
            ++at;
        else if (c == '"')
            quoted = !quoted;
        else if (!quoted && (c == '[' || c == '{'))
            ++depth;
        else if (!quoted && (c == ']' || c == '}'))
            --depth;
    }
    return depth > MOST_NESTED;
}

// What a frame of a stack line is called, without its place in the source; empty for what isn't a call.
std::string FrameName(const Json &frame) {
    if (frame.is_number_integer())
        return fmt::format("[{} frames skipped]", frame.get<int64_t>());
    std::string text = frame.is_string() ? frame.get<std::string>() : "";
    return text.substr(0, text.rfind('('));
}

// Reads lines in their order.
class Reader {
public:
    Recording Read(const Source &source);

private:
    // A thread's row of the sample before, and what goes on since.
    struct Last {
        int32_t thread = 0, sample = NONE;
        Place place;
        std::optional<int64_t> cpu;
        int32_t run = NONE;
        Stretch statement, request;
    };

    void Line(const Json &line);
    void ReadStack(const Json &line);
    void ReadSampleLine(const Json &line);
    void ReadFigures(const Json &line, RecordedSample *sample);
    void ReadRow(const Json &row);
    Last &LastOf(int64_t id, const std::string &name);
    void GoOn(Last *last, const Place &place, std::optional<int64_t> cpu);
    void Extend(Stretch *stretch, bool goes_on, int32_t text, std::vector<Stretch> *found);
    void CloseAll();
    int32_t TextOrNone(const std::string &text) { return text.empty() ? NONE : out_.texts.Number(text); }
    int32_t Now() const { return static_cast<int32_t>(out_.samples.size()) - 1; }

    Recording out_;
    bool begun_ = false; // the first line was one
    std::map<int64_t, int32_t> stacks_;
    std::map<int64_t, Last> last_; // by thread id
};

Recording Reader::Read(const Source &source) {
    out_.unread = EachLine(source, [this](const Json &line) { Line(line); });
    if (!begun_)
        RequireMeta(Json());
    CloseAll();
    return std::move(out_);
}

void Reader::Line(const Json &line) {
    std::string type = TextAt(line, "type");
    if (!begun_) {
        RequireMeta(line);
        out_.meta = line.dump();
        begun_ = true;
    }
    if (type == "meta") {
        stacks_.clear(); // numbers count from 0 in each part
    } else if (type == "stack") {
        ReadStack(line);
    } else if (type == "sample") {
        ReadSampleLine(line);
    } else if (type == "end") {
        out_.end = line.dump();
    }
}

void Reader::ReadStack(const Json &line) {
    std::vector<int32_t> frames;
    for (const Json &frame : PartAt(line, "frames"))
        if (std::string name = FrameName(frame); !name.empty())
            frames.push_back(out_.texts.Number(name));
    if (PartAt(line, "cut") == true)
        frames.push_back(out_.texts.Number("[bottom missing]"));
    stacks_[NumberAt(line, "n").value_or(NONE)] = static_cast<int32_t>(out_.stacks.size());
    out_.stacks.push_back(std::move(frames));
}

void Reader::ReadFigures(const Json &line, RecordedSample *sample) {
    sample->missing = NumberAt(line, "missing").value_or(0);
    sample->cpu_ms = NumberAt(line, "process_cpu_ms");
    sample->heap_kib = NumberAt(PartAt(line, "heap"), "used_kib");
    sample->heap_max_kib = NumberAt(PartAt(line, "heap"), "max_kib");
    for (const Json &collector : PartAt(line, "collectors")) {
        std::string name = TextAt(collector, "name");
        size_t at = 0;
        while (at < out_.collectors.size() && out_.collectors[at] != name)
            ++at;
        if (at == out_.collectors.size())
            out_.collectors.push_back(name);
        sample->collections.resize(std::max(sample->collections.size(), at + 1));
        sample->collecting_ms.resize(sample->collections.size());
        sample->collections[at] = NumberAt(collector, "count");
        sample->collecting_ms[at] = NumberAt(collector, "ms");
    }
}

void Reader::ReadSampleLine(const Json &line) {
    const int64_t before = out_.samples.empty() ? 0 : out_.samples.back().time;
    RecordedSample &sample = out_.samples.emplace_back();
    sample.number = NumberAt(line, "n").value_or(0);
    sample.time = TimeOf(line);
    sample.unanswered = TextAt(line, "unanswered");
    if (!sample.unanswered.empty()) // such a line is written after the wait
        sample.time = std::max(before, sample.time - NumberAt(line, "waited_ms").value_or(0));
    ReadFigures(line, &sample);
    for (const Json &row : PartAt(line, "threads"))
        if (row.is_object())
            ReadRow(row);
    for (const Json &id : PartAt(line, "same"))
        if (auto last = id.is_number_integer() ? last_.find(id.get<int64_t>()) : last_.end();
            last != last_.end())
            GoOn(&last->second, Place(last->second.place), last->second.cpu);
}

Reader::Last &Reader::LastOf(int64_t id, const std::string &name) {
    auto [at, is_new] = last_.try_emplace(id);
    // A thread's id isn't used again, but the one of another name is another thread all the same.
    if (is_new || out_.threads[static_cast<size_t>(at->second.thread)].name != name) {
        at->second = Last();
        at->second.thread = static_cast<int32_t>(out_.threads.size());
        RecordedThread &thread = out_.threads.emplace_back();
        thread.id = id;
        thread.name = name;
    }
    return at->second;
}

void Reader::ReadRow(const Json &row) {
    Last &last = LastOf(NumberAt(row, "id").value_or(0), TextAt(row, "name"));
    Place place;
    place.state = out_.texts.Number(TextAt(row, "state"));
    if (auto stack = stacks_.find(NumberAt(row, "stack").value_or(NONE)); stack != stacks_.end())
        place.stack = stack->second;
    place.url = TextOrNone(TextAt(PartAt(row, "request"), "url"));
    place.sql = TextOrNone(TextAt(PartAt(row, "db"), "sql"));
    if (const Json &wait = PartAt(row, "waits_for"); wait.is_object()) {
        place.lock_class = out_.texts.Number(TextAt(wait, "class"));
        place.lock = out_.texts.Number(std::to_string(NumberAt(wait, "lock").value_or(0)));
        place.owner = NumberAt(wait, "owner").value_or(0);
    }
    RecordedThread &thread = out_.threads[static_cast<size_t>(last.thread)];
    std::optional<int64_t> cpu = NumberAt(row, "cpu_nanoseconds"), alloc = NumberAt(row, "allocated_bytes");
    thread.first_cpu = thread.samples == 0 ? cpu : thread.first_cpu;
    thread.first_alloc = thread.samples == 0 ? alloc : thread.first_alloc;
    thread.last_cpu = cpu;
    thread.last_alloc = alloc;
    GoOn(&last, place, cpu);
}

void Reader::Extend(Stretch *stretch, bool goes_on, int32_t text, std::vector<Stretch> *found) {
    if (goes_on && stretch->count > 0) {
        ++stretch->count;
        return;
    }
    if (stretch->count > 0)
        found->push_back(*stretch);
    stretch->first = Now();
    stretch->count = text == NONE ? 0 : 1;
    stretch->text = text;
}

void Reader::GoOn(Last *last, const Place &place, std::optional<int64_t> cpu) {
    bool follows = last->sample == Now() - 1, same = follows && last->run != NONE && last->place == place;
    bool stands = same && last->cpu == cpu;
    last->statement.thread = last->request.thread = last->thread;
    Extend(&last->statement, stands, place.sql, &out_.statements);
    Extend(&last->request, stands, place.url, &out_.requests);
    if (same) {
        ++out_.runs[static_cast<size_t>(last->run)].count;
    } else {
        last->run = static_cast<int32_t>(out_.runs.size());
        out_.runs.push_back({last->thread, Now(), 1, place});
    }
    last->place = place;
    last->cpu = cpu;
    last->sample = Now();
    ++out_.threads[static_cast<size_t>(last->thread)].samples;
    ++out_.thread_samples;
}

void Reader::CloseAll() {
    for (auto &[id, last] : last_) {
        Extend(&last.statement, false, NONE, &out_.statements);
        Extend(&last.request, false, NONE, &out_.requests);
    }
}

} // namespace

int32_t Texts::Number(const std::string &text) {
    auto [at, is_new] = numbers_.try_emplace(text, static_cast<int32_t>(texts_.size()));
    if (is_new)
        texts_.push_back(text);
    return at->second;
}

std::string TextAt(const Json &object, const char *key) {
    auto at = object.find(key);
    return at != object.end() && at->is_string() ? at->get<std::string>() : "";
}

std::optional<int64_t> NumberAt(const Json &object, const char *key) {
    auto at = object.find(key);
    if (at == object.end() || !at->is_number_integer() || at->get<int64_t>() < 0)
        return std::nullopt;
    return at->get<int64_t>();
}

int64_t TimeOf(const Json &line) {
    const int64_t time = NumberAt(line, "time").value_or(0);
    return time <= LATEST ? time : 0;
}

const Json &PartAt(const Json &object, const char *key) {
    static const Json nothing;
    auto at = object.find(key);
    return at == object.end() ? nothing : *at;
}

int64_t EachLine(const Source &source, const std::function<void(const Json &)> &each) {
    int64_t unread = 0;
    std::string begun; // a line whose end is in a later piece
    auto add = [&] {
        Json line = IsTooDeep(begun) ? Json() : Json::parse(begun, nullptr, false);
        line.is_object() ? each(line) : void(++unread);
        begun.clear();
    };
    source([&](std::string_view piece) {
        for (size_t end; (end = piece.find('\n')) != piece.npos; piece.remove_prefix(end + 1)) {
            begun.append(piece.substr(0, end));
            add();
        }
        begun.append(piece);
    });
    if (!begun.empty())
        add();
    return unread;
}

void RequireMeta(const Json &meta) {
    if (TextAt(meta, "type") != "meta" || TextAt(meta, "schema") != RECORD_SCHEMA ||
        NumberAt(meta, "version") != RECORD_VERSION)
        throw Failure("the file isn't a recording that this qorctl can read",
                      "'qorctl record' makes one; docs/record.md has its versions", EXIT_USAGE);
}

Recording ReadRecording(const Source &source) {
    return Reader().Read(source);
}

} // namespace qorctl
