// The agent's jar, brought into the files of a JVM that doesn't see ours: one in a container, say.
//
// A child of ours enters the JVM's root directory and takes its user's identity. It makes a file for the
// owner only in the first directory where the JVM can also map a library, as the agent unpacks its own beside
// the jar when the temporary directory is mounted noexec. Nothing is mounted. The child removes the file when
// we are done or gone, however we end.
#pragma once

#include "base/process.h"
#include "base/transfer.h"

#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

class BroughtJar {
public:
    // `jar` is our path of it; `places` are tried first, as paths of the JVM, then the file systems that it
    // has mounted; where others could replace the file only if there is nothing else. Its path there takes
    // `longest_path` bytes at most. Throws a Failure that names each place with the reason against it.
    BroughtJar(const Process &process, const std::string &jar, std::vector<std::string> places,
               size_t longest_path, Clock::time_point deadline);
    BroughtJar(const BroughtJar &) = delete;
    ~BroughtJar(); // removes the file

    // As the JVM sees it.
    const std::string &path() const { return path_; }

private:
    void End();
    std::string path_;
    FileDescriptor leave_; // the child goes when this closes
    pid_t child_ = -1;
};

// The directories at which a process (its mountinfo text) has mounted file systems that hold files, in order.
std::vector<std::string> MountedDirectories(std::string_view mountinfo);

} // namespace qorctl
