// Which life of which JVM a process id means: a number is used again, and a process may become another JVM by
// exec.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <sys/types.h>

namespace qorctl {

struct JvmLife {
    uint64_t start_ticks = 0; // of the process, since the machine's start
    uint64_t code = 0;        // where its program's code begins: another place after an exec
    int64_t cpu_ms = 0;       // processor time so far

    bool IsSame(const JvmLife &other) const { return start_ticks == other.start_ticks && code == other.code; }
};

// Of a process as it is now; nothing when there is none, or only its zombie.
std::optional<JvmLife> ReadLife(pid_t pid);

// The same from the text of /proc/PID/stat.
std::optional<JvmLife> ParseLife(const std::string &stat, int64_t ticks_per_second);

// A name for it that no other JVM of this machine has had.
std::string LifeName(pid_t pid, const JvmLife &life);

} // namespace qorctl
