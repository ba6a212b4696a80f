// `qorctl metrics`: figures of JVMs for a monitoring system.
#include "base/failure.h"
#include "command_tools.h"
#include "metrics/gather.h"
#include "metrics/serve.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr size_t LEAST_TOKEN = 16, MOST_TOKEN = 512; // bytes

// Where nothing is said: in the user's runtime directory, or in a directory of /tmp that is closed to others.
std::string UsualSocket() {
    if (const char *runtime = getenv("XDG_RUNTIME_DIR"); runtime && *runtime == '/')
        return std::string(runtime) + "/qorctl-metrics.sock";
    const std::string dir = fmt::format("/tmp/qorctl-{}", geteuid());
    mkdir(dir.c_str(), 0700);
    struct stat status = {};
    if (lstat(dir.c_str(), &status) != 0 || !S_ISDIR(status.st_mode) || status.st_uid != geteuid() ||
        (status.st_mode & 077) != 0)
        throw Failure(dir + " isn't a directory of yours that is closed to others",
                      "name a place with --socket");
    return dir + "/metrics.sock";
}

std::string ReadToken(const std::string &path) {
    std::string token = ReadFile(path, MOST_TOKEN + 1);
    token.erase(token.find_last_not_of(" \t\r\n") + 1);
    if (token.size() < LEAST_TOKEN || token.size() > MOST_TOKEN)
        throw Failure(fmt::format("{} holds no token of {} to {} characters", path, LEAST_TOKEN, MOST_TOKEN),
                      "write one: head -c 32 /dev/urandom | base64", EXIT_USAGE);
    return token;
}

// Replaces the file whole, so that a reader never sees a part.
void WriteWhole(const std::string &path, const std::string &text) {
    const std::string part = fmt::format("{}.{}.part", path, getpid());
    const FileDescriptor file(open(part.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0644));
    const ssize_t written = file.ok() ? write(file.get(), text.data(), text.size()) : -1;
    if (written == static_cast<ssize_t>(text.size()) && rename(part.c_str(), path.c_str()) == 0)
        return;
    const int error = written >= 0 && written < static_cast<ssize_t>(text.size()) ? ENOSPC : errno;
    if (file.ok())
        unlink(part.c_str());
    throw Failure(fmt::format("can't write {}: {}", path, strerror(error)),
                  "see that there is room, and that it is yours");
}

} // namespace

void RunMetrics(Settings settings, const MetricsCommand &command) {
    if (command.pids.empty() != command.all)
        throw Failure("metrics needs process ids, or --all", "see qorctl metrics --help", EXIT_USAGE);
    if (!command.token_file.empty() && command.listen.empty())
        throw Failure("--token-file goes with --listen", "see qorctl metrics --help", EXIT_USAGE);
    Gatherer jvms = command.all ? Gatherer(settings) : Gatherer(settings, command.pids);
    auto text = [&] { return OpenMetricsText(jvms.Read()); };
    if (command.once) {
        Print(text());
        return;
    }
    if (!command.text_file.empty()) {
        Repeat(&settings, command.every, [&] { WriteWhole(command.text_file, text()); });
        return;
    }
    MetricsPlace place;
    place.address = command.listen;
    if (command.listen.empty())
        place.socket = command.socket.empty() ? UsualSocket() : command.socket;
    if (!command.token_file.empty())
        place.token = ReadToken(command.token_file);
    ServeMetrics(place, OPENMETRICS_TYPE, text, [&](const std::string &where) {
        Print(fmt::format("serving {}\n", place.socket.empty() ? "http://" + where + "/metrics" : where));
        if (!command.listen.empty() && place.token.empty())
            fmt::print(stderr, "qorctl: whoever reaches {} can read them; --token-file asks for a token\n",
                       where);
    });
}

} // namespace qorctl
