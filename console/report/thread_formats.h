// Threads in the forms that other tools read.
#pragma once

#include "recording.h"
#include "wire/decode.h"

#include <cstdint>
#include <string>

namespace qorctl {

// A thread dump as jstack writes one, of the threads of `sample`, taken at `time` (milliseconds since 1970).
// What the agent doesn't know (native ids, priorities) is 0.
std::string JstackText(const ThreadSample &sample, int64_t time, const std::string &java_version);

// Stacks folded to a line each, from the bottom to the top, with how many threads have it, or over a
// recording how many samples of threads. Threads without a stack aren't counted.
std::string FoldedText(const ThreadSample &sample);
std::string FoldedText(const Recording &recording);

} // namespace qorctl
