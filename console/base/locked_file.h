// Files of /proc that are read under a lock of the process's memory: its command line, environment and memory
// map. A process that hangs in the kernel may never let go of that lock, so another process of ours reads
// them.
#pragma once

#include <optional>
#include <string>

namespace qorctl {

// At most `limit` bytes of a file, empty when it can't be read; nothing when that takes longer than 500 ms.
// Not for several threads at once.
std::optional<std::string> ReadLocked(const std::string &path, size_t limit);

// Closes all descriptors but `kept`, for a child that may hang in the kernel and outlive its parent: it must
// keep neither the parent's output nor a connection open. Returns what `kept` is by then.
int KeepOnly(int kept);

} // namespace qorctl
