// A recording as values: its lines, read one by one, become samples, threads and runs.
//
// A run is a thread's consecutive samples in which its state, stack, URL, SQL and the lock that it waits for
// are the same. A line that can't be read is left out: the last one of a file that was cut.
#pragma once

#include "show/json.h"

#include <cstdint>
#include <functional>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace qorctl {

constexpr int32_t NONE = -1;

// A member of a JSON object of a recording: empty, nothing or null when it isn't there or of another type. No
// number of a recording is negative: such a one is nothing too, so that differences fit.
std::string TextAt(const Json &object, const char *key);
std::optional<int64_t> NumberAt(const Json &object, const char *key);
int64_t TimeOf(const Json &line); // milliseconds since 1970; 0 when there is none, or no date is as late
const Json &PartAt(const Json &object, const char *key);

// Where a recording comes from: calls what it is given with the bytes, piece by piece.
using Source = std::function<void(const std::function<void(std::string_view)> &use)>;

// Calls `each` with each line that is a JSON object, nested as deep as can be worked on; returns how many
// aren't.
int64_t EachLine(const Source &source, const std::function<void(const Json &)> &each);

// Throws a Failure unless `meta` begins a recording that this qorctl can read.
void RequireMeta(const Json &meta);

// Texts, each once.
class Texts {
public:
    int32_t Number(const std::string &text);
    const std::vector<std::string> &all() const { return texts_; }

private:
    std::vector<std::string> texts_;
    std::unordered_map<std::string, int32_t> numbers_;
};

struct RecordedSample {
    int64_t number = 0, time = 0; // milliseconds since 1970; where there is no answer, of the question
    int64_t missing = 0;
    std::optional<int64_t> heap_kib, heap_max_kib, cpu_ms;
    std::vector<std::optional<int64_t>> collections, collecting_ms; // by collector
    std::string unanswered;                                         // why there is nothing else
};

struct RecordedThread {
    int64_t id = 0;
    std::string name;
    std::optional<int64_t> first_cpu, last_cpu, first_alloc, last_alloc;
    int32_t samples = 0;
};

// What a thread's row says, as numbers of texts and stacks; NONE where it says nothing.
struct Place {
    int32_t state = NONE, stack = NONE, url = NONE, sql = NONE, lock = NONE, lock_class = NONE;
    int64_t owner = 0; // id of the thread that has the lock, 0 unknown
    bool operator==(const Place &o) const {
        return state == o.state && stack == o.stack && url == o.url && sql == o.sql && lock == o.lock &&
               lock_class == o.lock_class && owner == o.owner;
    }
};

struct Run {
    int32_t thread = 0, first = 0, count = 0; // index of the thread and of the first sample
    Place place;
};

// A thread's consecutive samples with one SQL or URL, and nothing that says it went on meanwhile: the same
// processor time and stack.
struct Stretch {
    int32_t thread = 0, first = 0, count = 0, text = NONE;
};

struct Recording {
    std::string meta, end; // the first line, the last `end`; empty when the file was cut before it
    int64_t unread = 0;    // lines left out
    Texts texts;
    std::vector<std::vector<int32_t>> stacks; // texts of frames from the top; line numbers left out
    std::vector<RecordedSample> samples;
    std::vector<std::string> collectors;
    std::vector<RecordedThread> threads;
    std::vector<Run> runs;
    std::vector<Stretch> statements, requests;
    int64_t thread_samples = 0;
};

// Reads a whole recording. Throws a Failure when it isn't one, or is of a later version.
Recording ReadRecording(const Source &source);

// The threads of one sample, by its number in the file, as they were taken. Throws a Failure when there is no
// such sample.
struct OneSample {
    int64_t time = 0; // milliseconds since 1970
    std::string java_version;
    ThreadSample threads; // cut when a stack is missing
};
OneSample ReadSample(const Source &source, int64_t number);

} // namespace qorctl
