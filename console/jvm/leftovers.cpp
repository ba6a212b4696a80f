#include "leftovers.h"

#include "base/inside.h"
#include "base/starts_with.h"
#include "endpoint.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <dirent.h>
#include <fcntl.h>
#include <fmt/format.h>
#include <functional>
#include <memory>
#include <sys/stat.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr std::string_view FOLDER_START = "qoragent-", FILE_END = ".endpoint";

std::string OwnNamespace() {
    char name[64] = "";
    const ssize_t length = readlink("/proc/self/ns/pid", name, sizeof name - 1);
    return std::string(name, length > 0 ? static_cast<size_t>(length) : 0);
}

// The names in a folder, which is closed again.
std::vector<std::string> NamesIn(int folder) {
    std::vector<std::string> names;
    std::unique_ptr<DIR, int (*)(DIR *)> dir(fdopendir(folder), closedir);
    while (const dirent *entry = dir ? readdir(dir.get()) : nullptr)
        names.emplace_back(entry->d_name);
    return names;
}

FileDescriptor OpenFolder(int root, const std::string &path) {
    return FileDescriptor(openat(root, path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

bool IsGone(pid_t pid) {
    std::string library;
    return (kill(pid, 0) != 0 && errno == ESRCH) || FindJvm(pid, &library) == JvmKind::NONE;
}

// In the child that has taken the identity of the folder's owner.
void RemoveIn(int root, const std::string &folder, uid_t owner, const std::string &space) {
    const FileDescriptor dir = OpenFolder(root, folder);
    if (!dir.ok())
        return;
    for (const std::string &name : NamesIn(dup(dir.get()))) {
        if (name.size() <= FILE_END.size() || name.substr(name.size() - FILE_END.size()) != FILE_END)
            continue;
        const std::optional<Endpoint> endpoint = ParseEndpoint(ReadRegular(dir.get(), name, owner));
        if (endpoint && endpoint->pid_namespace == space &&
            name == fmt::format("{}{}", endpoint->inner_pid, FILE_END) && IsGone(endpoint->inner_pid))
            unlinkat(dir.get(), name.c_str(), 0);
    }
}

} // namespace

void RemoveLeftovers() {
    Process us;
    const std::string space = OwnNamespace();
    if (space.empty() || !ReadProcess(getpid(), &us))
        return;
    const FileDescriptor tmp = OpenFolder(AT_FDCWD, "/tmp");
    if (!tmp.ok())
        return;
    for (const std::string &name : NamesIn(dup(tmp.get()))) {
        struct stat facts;
        if (!StartsWith(name, FOLDER_START) ||
            fstatat(tmp.get(), name.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0 || !S_ISDIR(facts.st_mode) ||
            (facts.st_mode & 077) != 0 || (facts.st_uid != geteuid() && geteuid() != 0))
            continue;
        us.euid = facts.st_uid;
        us.egid = facts.st_gid;
        LookInside(us, [&](int root) {
            RemoveIn(root, "tmp/" + name, facts.st_uid, space);
            return std::string();
        });
    }
}

} // namespace qorctl
