#include "inside.h"

#include "transfer.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <linux/capability.h>
#include <linux/openat2.h>
#include <poll.h>
#include <signal.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr std::chrono::milliseconds LOOK_LIMIT(2000), END_LIMIT(500);
constexpr unsigned CHILD_SECONDS = 5; // should nobody be left to end it
constexpr char ENTERED = '+';         // before a look's text

void WriteAll(int fd, std::string_view text) {
    for (ssize_t sent; !text.empty() && (sent = write(fd, text.data(), text.size())) > 0;)
        text.remove_prefix(static_cast<size_t>(sent));
}

[[noreturn]] void RunChild(int root, int to_parent, const Process &process,
                           const std::function<std::string(int root)> &look) {
    try {
        alarm(CHILD_SECONDS);
        if (EnterAs(root, process))
            WriteAll(to_parent, ENTERED + look(root));
    } catch (...) {
        // whatever it is, nothing of the parent's may run in here
    }
    _exit(0);
}

// A container's root may do less than we. What isn't wanted is given up; another user has none anyway.
bool KeepCapabilities(uint64_t wanted) {
    __user_cap_header_struct header = {_LINUX_CAPABILITY_VERSION_3, 0};
    __user_cap_data_struct sets[_LINUX_CAPABILITY_U32S_3] = {};
    if (syscall(SYS_capget, &header, sets) != 0)
        return false;
    for (__user_cap_data_struct &set : sets) {
        set.permitted &= static_cast<uint32_t>(wanted);
        set.effective = set.permitted;
        set.inheritable = 0;
        wanted >>= 32;
    }
    return syscall(SYS_capset, &header, sets) == 0;
}

// What comes until the other end closes; false at the deadline or when it is too much.
bool ReadAll(int fd, std::string *text, Clock::time_point deadline) {
    char part[16384];
    while (text->size() <= LONGEST_INSIDE + 1) {
        if (!WaitFor(fd, POLLIN, deadline))
            return false;
        ssize_t got = read(fd, part, sizeof part);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            return got == 0;
        text->append(part, static_cast<size_t>(got));
    }
    return false;
}

} // namespace

std::optional<std::string> LookInside(const Process &process,
                                      const std::function<std::string(int root)> &look) {
    FileDescriptor root(
        open(fmt::format("/proc/{}/root/", process.pid).c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
    int ends[2];
    if (!root.ok() || pipe2(ends, O_CLOEXEC) != 0)
        return std::nullopt;
    FileDescriptor from_child(ends[0]);
    pid_t child;
    {
        FileDescriptor to_us(ends[1]);
        child = fork();
        if (child == 0)
            RunChild(root.get(), to_us.get(), process, look);
    }
    if (child < 0)
        return std::nullopt;
    std::string text;
    bool whole = ReadAll(from_child.get(), &text, Clock::now() + LOOK_LIMIT);
    // It may be stopped by the process's user, or hang on a file system of that user's, where not even this
    // ends it: it is left behind then.
    kill(child, SIGKILL);
    const auto patience = Clock::now() + END_LIMIT;
    while (waitpid(child, nullptr, WNOHANG) == 0 && Clock::now() < patience)
        poll(nullptr, 0, 1);
    if (!whole || text.empty())
        return std::nullopt;
    return text.substr(1);
}

// Without the privilege for chroot our own root directory serves if it is the process's too. Not root: every
// file that opens is one that we may open anyway.
bool EnterAs(int root, const Process &process) {
    uid_t self = geteuid();
    if (self != 0)
        return self == process.euid;
    if ((fchdir(root) != 0 || chroot(".") != 0) && !SameFiles(process.pid))
        return false;
    bool groups = setgroups(0, nullptr) == 0 && setresgid(process.egid, process.egid, process.egid) == 0;
    return self == process.euid ? KeepCapabilities(process.capabilities)
                                : groups && setresuid(process.euid, process.euid, process.euid) == 0;
}

FileDescriptor OpenBelow(int root, const char *path, int flags) {
    open_how how = {};
    how.flags = static_cast<uint64_t>(flags);
    how.resolve = RESOLVE_IN_ROOT | RESOLVE_NO_MAGICLINKS;
    int fd = static_cast<int>(syscall(SYS_openat2, root, path, &how, sizeof how));
    if (fd < 0 && errno == ENOSYS) // a kernel before 5.6
        fd = openat(root, path, flags | O_NOFOLLOW);
    return FileDescriptor(fd);
}

std::string ReadRegular(int dir, const std::string &path, std::optional<uid_t> owner) {
    struct stat facts;
    auto fits = [&] {
        return S_ISREG(facts.st_mode) && facts.st_size <= static_cast<off_t>(LONGEST_INSIDE) &&
               facts.st_uid == owner.value_or(facts.st_uid);
    };
    // Looked at before it is opened: opening alone has effects on some devices.
    if (fstatat(dir, path.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0 || !fits())
        return "";
    FileDescriptor file(openat(dir, path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.ok() || fstat(file.get(), &facts) != 0 || !fits())
        return "";
    std::string text(LONGEST_INSIDE, '\0');
    ssize_t got = pread(file.get(), text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return text;
}

std::string BelowRoot(std::string_view path) {
    path.remove_prefix(std::min(path.find_first_not_of('/'), path.size()));
    return std::string(path);
}

} // namespace qorctl
