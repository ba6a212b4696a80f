#include "attachable.h"

#include "base/failure.h"
#include "base/inside.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qorctl {

namespace {

void CheckIsHotspot(const Process &process) {
    std::string library;
    switch (FindJvm(process.pid, &library)) {
    case JvmKind::HOTSPOT:
        break;
    case JvmKind::OTHER:
        throw Failure(fmt::format("process {} is a JVM of another kind than HotSpot", process.pid),
                      "start it with -javaagent:qoragent.jar");
    case JvmKind::UNREADABLE:
        throw Failure(fmt::format("process {} can't be looked into: {}", process.pid, strerror(errno)),
                      "run qorctl as root");
    case JvmKind::LOCKED:
        throw Failure(fmt::format("the memory of process {} is locked in the kernel", process.pid),
                      fmt::format("'qorctl hung {}' shows what it waits for", process.pid));
    case JvmKind::NONE:
        throw Failure(fmt::format("process {} isn't a JVM", process.pid), "'qorctl list' shows the JVMs");
    }
}

} // namespace

void CheckAttachable(const Process &process) {
    CheckIsHotspot(process);
    if (AttachDisabled(process, ReadPerfData(process)))
        throw Failure(fmt::format("JVM {} was started with -XX:+DisableAttachMechanism", process.pid),
                      "start it without that flag, or with -javaagent:qoragent.jar");
}

void CheckMaySignal(const Process &process) {
    if (!process.catches_sigquit)
        throw Failure(fmt::format("JVM {} doesn't listen for attaching", process.pid),
                      "it may still be starting: try again; -javaagent:qoragent.jar works in any case");
}

void CheckRuns(const Process &process) {
    if (process.stopped)
        throw Failure(fmt::format("process {} is stopped", process.pid),
                      fmt::format("let it run again: kill -CONT {}", process.pid));
}

void CheckUser(const Process &process) {
    uid_t self = geteuid();
    if (self == process.euid || self == 0)
        return;
    std::string user = UserName(process.euid);
    throw Failure(fmt::format("process {} belongs to {}, we are {}", process.pid, user, UserName(self)),
                  fmt::format("run it as that user: sudo -u {} qorctl ...", user));
}

bool ListensForAttach(const Process &process) {
    // A JVM that was told to leave signals alone (-Xrs) has its socket from the start.
    return process.catches_sigquit ||
           LookInside(process, [&](int root) {
               struct stat status;
               std::string path = "tmp/" + AttachSocketName(process);
               bool there = fstatat(root, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
               return std::string(there && S_ISSOCK(status.st_mode) ? "there" : "");
           }) == "there";
}

std::string AttachSocketName(const Process &process) {
    return fmt::format(".java_pid{}", process.inner_pid);
}

} // namespace qorctl
