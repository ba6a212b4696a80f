// The lines of a recording; docs/record.md is their description.
//
// Pure functions and values: what the recorder took comes in, one line of JSON without its line feed goes
// out.
#pragma once

#include "show/json.h"
#include "wire/cost.h"
#include "wire/decode.h"
#include "wire/memory.h"

#include <map>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

namespace qorctl {

constexpr int RECORD_VERSION = 1;
constexpr char RECORD_SCHEMA[] = "qoragent-record";

// What each line has, so that lines of several JVMs can be kept in one table.
struct LineHead {
    std::string host;
    pid_t pid = 0;
    std::string jvm;  // names one life of a JVM on its host
    int64_t time = 0; // milliseconds since 1970
};

struct PartFacts {
    int part = 1;
    int64_t every_ms = 0;
    std::string java_version, main_class, console_version;
};

// All that one sample has.
struct TakenSample {
    int64_t number = 0;      // from 1, over all parts
    int64_t interval_ms = 0; // in force after it
    ThreadSample threads;    // those whose stack is unknown have none
    int64_t missing = 0;     // threads without a stack, or without a row
    int64_t took_us = 0, agent_us = 0, requests = 0;
    std::optional<int64_t> walk_ms; // what the agent's walk for local variables took
    bool left_out = false;          // no walk, for want of quota
    std::optional<int64_t> quota;   // percent of the time that walks may take; nothing when it isn't reported
    std::optional<Cost> stops;      // nothing when the agent doesn't report them
    std::optional<int64_t> process_cpu_ms;
    std::optional<MemoryView> heap;
    std::vector<CollectorBean> collectors;
};

enum class EndReason { FINISHED, INTERRUPTED, ROTATED, JVM_ENDED, JVM_RESTARTED, AGENT_ENDED, FAILED };

// As the file has it.
const char *EndText(EndReason reason);

std::string MetaLine(const LineHead &head, const PartFacts &facts);
std::string UnansweredLine(const LineHead &head, int64_t number, int64_t waited_ms, const std::string &why);
std::string EndLine(const LineHead &head, EndReason reason, const std::string &note, int64_t samples);

// The lines of one part: numbers its stacks, and knows what each thread's row was in the sample before.
class PartLines {
public:
    // The lines of the stacks that are new in this part, and the sample's own, last.
    std::vector<std::string> Sample(const LineHead &head, const TakenSample &sample);

    size_t memory() const { return stack_bytes_; } // roughly, of the stacks
    size_t stacks() const { return numbers_.size(); }

private:
    size_t NumberOf(const Thread &thread, const LineHead &head, std::vector<std::string> *lines);
    Json Row(const Thread &thread, const LineHead &head, std::vector<std::string> *lines);

    std::unordered_map<std::string, size_t> numbers_; // by the text of the frames
    size_t stack_bytes_ = 0;
    std::map<int64_t, std::string> rows_; // of the sample before, by thread
};

} // namespace qorctl
