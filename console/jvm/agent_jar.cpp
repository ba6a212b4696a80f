#include "agent_jar.h"

#include "base/inside.h"

#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <optional>
#include <unistd.h>

namespace qorctl {

std::string FindJar(const std::string &given) {
    auto absolute = [](const std::string &path) {
        char *full = realpath(path.c_str(), nullptr);
        std::string result = full ? full : "";
        free(full);
        return result;
    };
    const char *from_environment = getenv("QORAGENT_JAR");
    std::string named = !given.empty() ? given : from_environment ? from_environment : "";
    if (!named.empty()) {
        // A path that isn't ours may still be one of the JVM's.
        std::string found = absolute(named);
        if (!found.empty() || named[0] == '/')
            return found.empty() ? named : found;
        throw Failure(fmt::format("there is no file {}", named), "check --jar or QORAGENT_JAR", EXIT_USAGE);
    }
    std::string self = absolute("/proc/self/exe");
    std::string dir = self.substr(0, self.rfind('/'));
    for (const char *place :
         {"/qoragent.jar", "/../share/qoragent/qoragent.jar", "/../lib/qoragent/qoragent.jar"}) {
        std::string found = absolute(dir + place);
        if (!found.empty())
            return found;
    }
    throw Failure("qoragent.jar isn't beside qorctl", "give it with --jar, or in QORAGENT_JAR");
}

Sight LookForJar(const Process &process, const std::string &jar) {
    constexpr const char *READABLE = "readable", *CLOSED = "closed", *ABSENT = "absent";
    std::optional<std::string> found = LookInside(process, [&](int root) {
        std::string path = BelowRoot(jar);
        return faccessat(root, path.c_str(), F_OK, 0) != 0   ? ABSENT
               : faccessat(root, path.c_str(), R_OK, 0) == 0 ? READABLE
                                                             : CLOSED;
    });
    if (!found)
        throw Failure(fmt::format("can't look into the files of process {}", process.pid),
                      "run qorctl as root");
    return *found == READABLE ? Sight::READABLE : *found == CLOSED ? Sight::CLOSED : Sight::ABSENT;
}

Failure Unseen(const Process &process, const std::string &jar, Sight sight) {
    if (sight == Sight::ABSENT)
        return Failure(fmt::format("process {} has no file {}, or its user can't reach it", process.pid, jar),
                       "check --jar");
    return Failure(
        fmt::format("{}, who runs process {}, can't read {}", UserName(process.euid), process.pid, jar),
        "copy the jar to a place open to that user and give it with --jar");
}

} // namespace qorctl
