// What /proc and the JVM's own performance file say about a process.
//
// A JVM may live in a container: it then knows itself by another process id, sees other files and may have
// another loopback. All of that is taken from the target's own /proc entries; its files are read by a child
// that enters its root directory (inside.h).
#pragma once

#include <cstdint>
#include <string>
#include <string_view>
#include <sys/types.h>
#include <vector>

namespace qorctl {

// A descriptor closed at the end of its scope.
class FileDescriptor {
public:
    explicit FileDescriptor(int fd = -1) : fd_(fd) {}
    FileDescriptor(FileDescriptor &&other) noexcept : fd_(other.fd_) { other.fd_ = -1; }
    FileDescriptor &operator=(FileDescriptor &&other) noexcept;
    FileDescriptor(const FileDescriptor &) = delete;
    FileDescriptor &operator=(const FileDescriptor &) = delete;
    ~FileDescriptor();
    int get() const { return fd_; }
    bool ok() const { return fd_ >= 0; }
    // Closes it now; returns false, with errno, when what was written may be lost.
    bool Close();

private:
    int fd_;
};

// Reads at most `limit` bytes of a file; empty when it can't be read.
std::string ReadFile(const std::string &path, size_t limit);

struct Process {
    pid_t pid = 0;       // as we see it
    pid_t inner_pid = 0; // as it sees itself
    uid_t euid = 0;      // as we see it
    gid_t egid = 0;
    uid_t inner_euid = 0; // as it sees itself
    bool catches_sigquit = false;
    uint64_t capabilities = 0;          // that it has over what is ours too: none in another user namespace
    int threads = 0;                    // of the operating system: those of the JVM itself too
    bool stopped = false;               // by a signal or a debugger
    std::vector<std::string> arguments; // its short name alone when they can't be read in time
};

// Reads a process; false when there is none (any more), or when it is a kernel thread or a zombie.
bool ReadProcess(pid_t pid, Process *process);

// Fields of /proc/PID/status text. Exposed for tests.
bool ParseStatus(std::string_view status, Process *process);

// An id through /proc/PID/uid_map text ("inside outside count" a line): what `outside` is inside.
uid_t MapUid(std::string_view uid_map, uid_t outside);

enum class JvmKind {
    NONE,       // no JVM, so far as we can see
    HOTSPOT,    // libjvm.so is mapped
    OTHER,      // a JVM that attaches in another way
    UNREADABLE, // the process belongs to somebody else
    LOCKED,     // its memory map can't be read in time
};

// Which JVM a process holds; *library becomes the path of libjvm.so as the process sees it.
JvmKind FindJvm(pid_t pid, std::string *library);
JvmKind ParseMaps(std::string_view maps, std::string *library);

// The main class, jar or module of a java command line; the program's name for another launcher.
std::string MainClass(const std::vector<std::string> &arguments);

// The JVM's performance file, as far as it matters here; texts are empty when not known.
struct PerfData {
    std::string java_version;
    std::string vm_flags;     // flags of its command line and environment
    std::string capabilities; // the first character says whether the JVM can be attached to
};
PerfData ReadPerfData(const Process &process);
PerfData ParsePerfData(std::string_view file);

// "17.0.15" from the `release` file beside a libjvm.so; empty when there is none.
std::string VersionBesideLibrary(const Process &process, const std::string &library);

// Whether the JVM was told to refuse attaching, by its performance file or, failing that, its command line.
bool AttachDisabled(const Process &process, const PerfData &perf);

// Whether a process shares our loopback, and whether it sees our files.
bool SameNetwork(pid_t pid);
bool SameFiles(pid_t pid);

// The user's name, or the number where it isn't known.
std::string UserName(uid_t uid);

} // namespace qorctl
