// A heap dump being written by the JVM: where it goes, how far it is, whether it is whole.
//
// The agent's reply doesn't say whether a text dump succeeded, and a long dump outlasts the agent's
// time-out. So the file itself is the witness: a text dump begins with the number of its request and ends
// with its trailer; the JVM's own form begins with its magic and ends with its end record.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>

namespace qorctl {

struct DumpTarget {
    std::string dir; // absolute, as the JVM sees it, ending in a slash
    std::string name;
    bool hprof = false;
    std::string Path() const { return dir + name; }
};

// Where a dump called `name` goes: an absolute path stays, a bare name is put into /tmp, and a dump in Hprof
// form gets its ending. Throws a usage Failure for a name that the agent can't take.
DumpTarget ChooseDumpTarget(std::string_view name, bool hprof);

enum class DumpFileKind { ABSENT, PLAIN, OTHER }; // OTHER: a link, a directory, a pipe, ...

struct DumpProgress {
    DumpFileKind kind = DumpFileKind::ABSENT;
    int64_t bytes = 0;
    bool begun = false; // by this request
    bool whole = false; // begun, and its end is there
};

// Looks at the file through the JVM's own root directory. `heap_id` is that of the request.
DumpProgress LookAtDump(pid_t pid, const DumpTarget &target, uint32_t heap_id);

// Whether the JVM sees a directory for it.
bool HasDumpDirectory(pid_t pid, const DumpTarget &target);

// Why there is no dump, and what to do.
struct DumpFault {
    std::string what, hint;
};
DumpFault ExplainMissingDump(pid_t pid, const DumpTarget &target, uint32_t heap_id);

} // namespace qorctl
