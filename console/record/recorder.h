// `qorctl record`: samples a JVM for a while and writes what it saw to a file, in parts of a bounded size.
#pragma once

#include "base/settings.h"

#include <cstdint>
#include <string>
#include <sys/types.h>

namespace qorctl {

struct RecordOptions {
    double every = 1;  // seconds
    double lasts = 60; // seconds; 0: until it is interrupted
    std::string out;   // empty: a name made of the process id and the time; "-": standard output
    double share = 2;  // percent of the time that the agent may spend on it
    uint64_t part_size = 64 << 20;
    int parts = 8; // kept; when more are needed the oldest are removed
    std::string console_version;
};

struct RecordSummary {
    std::string file; // the last part
    std::string end;  // why it ended, as in the file
    int64_t samples = 0, unanswered = 0, missing = 0;
    int parts = 0;
    uint64_t bytes = 0; // of all parts
};

// Records until the time is over, the JVM or its agent ends, or SIGINT, SIGTERM or SIGHUP comes, which the
// calling thread blocks meanwhile. The file is whole by then. Throws a Failure when nothing could be
// recorded, or a write failed.
RecordSummary Record(const Settings &settings, pid_t pid, const RecordOptions &options);

} // namespace qorctl
