#include "attach.h"

#include "failure.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace qorctl {

namespace {

using Clock = std::chrono::steady_clock;
using Milliseconds = std::chrono::milliseconds;

constexpr size_t MAX_ATTACH_ARGUMENT = 1024; // the JVM's own limit
constexpr size_t MAX_ATTACH_REPLY = 1 << 20;
constexpr Milliseconds SOCKET_PERIOD(20);
constexpr const char *PROTOCOL_VERSION = "1";
constexpr std::string_view STATUS_PROPERTY = "qoragent.status";

// The effective user and group of the target for the time of a scope. Only root gets another one.
class EffectiveUser {
public:
    explicit EffectiveUser(const Process &process) : uid_(geteuid()), gid_(getegid()) {
        if (process.euid == uid_)
            return;
        if (setegid(process.egid) != 0 || seteuid(process.euid) != 0) {
            Restore();
            throw Failure(fmt::format("can't take the identity of {}", UserName(process.euid)),
                          "run qorctl as that user");
        }
        changed_ = true;
    }
    EffectiveUser(const EffectiveUser &) = delete;
    ~EffectiveUser() {
        if (changed_)
            Restore();
    }

private:
    void Restore() const {
        // The user first: only root may choose the group.
        if (seteuid(uid_) != 0 || setegid(gid_) != 0)
            abort(); // going on under a mixed identity would be worse
    }
    uid_t uid_;
    gid_t gid_;
    bool changed_ = false;
};

// A process held by descriptor, so that a signal can't reach a later process of the same number.
class Target {
public:
    explicit Target(pid_t pid) : pid_(pid), fd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}
    bool Alive() const { return Signal(0); }
    bool Signal(int number) const {
        if (fd_.ok())
            return syscall(SYS_pidfd_send_signal, fd_.get(), number, nullptr, 0) == 0;
        return kill(pid_, number) == 0; // a kernel before 5.3
    }

private:
    pid_t pid_;
    FileDescriptor fd_;
};

// The .attach_pidN file, there as long as this object.
class TriggerFile {
public:
    TriggerFile(int dir, std::string name) : dir_(dir), name_(std::move(name)) {
        constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        FileDescriptor file(openat(dir_, name_.c_str(), FLAGS, 0600));
        if (!file.ok() && errno == EEXIST && unlinkat(dir_, name_.c_str(), 0) == 0)
            file =
                FileDescriptor(openat(dir_, name_.c_str(), FLAGS, 0600)); // left by an attach that was killed
        if (!file.ok())
            throw Failure(fmt::format("can't create /tmp/{}: {}", name_, strerror(errno)),
                          "the JVM looks for it there; make room in /tmp or remove the old file");
    }
    TriggerFile(const TriggerFile &) = delete;
    ~TriggerFile() { unlinkat(dir_, name_.c_str(), 0); }

private:
    int dir_;
    std::string name_;
};

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
    case JvmKind::NONE:
        throw Failure(fmt::format("process {} is no JVM", process.pid), "'qorctl list' shows the JVMs");
    }
}

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

void CheckArgument(const std::string &jar, const std::string &argument) {
    if (jar.find('=') != jar.npos)
        throw Failure(fmt::format("the jar's path {} holds '=', where the JVM expects the options", jar),
                      "copy the jar to another path and give that with --jar", EXIT_USAGE);
    if (argument.size() >= MAX_ATTACH_ARGUMENT)
        throw Failure(fmt::format("the jar's path and the options take {} bytes, the JVM takes {}",
                                  argument.size(), MAX_ATTACH_ARGUMENT - 1),
                      "give fewer options", EXIT_USAGE);
}

// The jar must be there for the JVM, whose files may be others than ours, and readable for its user.
void CheckJarVisible(int root, const Process &process, const std::string &jar) {
    const char *inside = jar.c_str() + jar.find_first_not_of('/');
    struct stat status;
    if (fstatat(root, inside, &status, 0) != 0) {
        std::string hint = "check --jar";
        if (!SameFiles(process.pid))
            hint = fmt::format("the JVM sees other files than we do; copy the jar there (cp qoragent.jar "
                               "/proc/{}/root/tmp/) and give its path in there with --jar",
                               process.pid);
        throw Failure(fmt::format("process {} has no file {}", process.pid, jar), hint);
    }
    EffectiveUser user(process);
    if (faccessat(root, inside, R_OK, AT_EACCESS) != 0)
        throw Failure(
            fmt::format("{}, who runs process {}, can't read {}", UserName(process.euid), process.pid, jar),
            "copy the jar to a place open to that user and give it with --jar");
}

std::string SocketName(const Process &process) {
    return fmt::format(".java_pid{}", process.inner_pid);
}

FileDescriptor Connect(int tmp, const std::string &name) {
    FileDescriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // Through the descriptor: the JVM's own path may be of any length and lie in another file tree.
    std::string path = fmt::format("/proc/self/fd/{}/{}", tmp, name);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    if (fd.ok() && connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0)
        return FileDescriptor();
    return fd;
}

bool SocketThere(int tmp, const std::string &name, const Process &process) {
    struct stat status;
    return fstatat(tmp, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 && S_ISSOCK(status.st_mode) &&
           status.st_uid == process.euid;
}

// Makes the JVM open its socket and connects to it.
FileDescriptor OpenChannel(int tmp, const Target &target, const Process &process,
                           Clock::time_point deadline) {
    std::string name = SocketName(process);
    if (SocketThere(tmp, name, process)) {
        FileDescriptor fd = Connect(tmp, name);
        if (fd.ok())
            return fd;
        unlinkat(tmp, name.c_str(), 0); // of an earlier JVM with that number
    }
    CheckMaySignal(process);
    TriggerFile trigger(tmp, fmt::format(".attach_pid{}", process.inner_pid));
    if (!target.Signal(SIGQUIT))
        throw Failure(fmt::format("can't signal process {}: {}", process.pid, strerror(errno)),
                      "run qorctl as its user or as root");
    while (Clock::now() < deadline && target.Alive()) {
        if (SocketThere(tmp, name, process)) {
            FileDescriptor fd = Connect(tmp, name);
            if (fd.ok())
                return fd;
        }
        poll(nullptr, 0, static_cast<int>(SOCKET_PERIOD.count()));
    }
    throw Failure(fmt::format("JVM {} doesn't answer to attaching", process.pid),
                  "it may be in a long pause (try again), or have its own way with SIGQUIT; "
                  "-javaagent:qoragent.jar always works");
}

std::string Exchange(int fd, const std::string &request, Clock::time_point deadline) {
    std::string_view rest = request;
    while (!rest.empty()) {
        ssize_t sent = send(fd, rest.data(), rest.size(), MSG_NOSIGNAL);
        if (sent < 0 && errno != EINTR)
            break; // the JVM hung up; what it said before is still there
        rest.remove_prefix(static_cast<size_t>(std::max<ssize_t>(sent, 0)));
    }
    std::string reply;
    char part[4096];
    while (reply.size() < MAX_ATTACH_REPLY) {
        auto left = std::chrono::duration_cast<Milliseconds>(deadline - Clock::now()).count();
        pollfd entry = {fd, POLLIN, 0};
        int ready = poll(&entry, 1, static_cast<int>(std::max<long>(left, 0)));
        if (ready < 0 && errno == EINTR)
            continue;
        if (ready <= 0)
            throw Failure("the JVM is still loading the agent",
                          "wait for it: 'qorctl list' shows when the agent is there");
        ssize_t got = read(fd, part, sizeof part);
        if (got < 0 && errno == EINTR)
            continue;
        if (got <= 0)
            break;
        reply.append(part, static_cast<size_t>(got));
    }
    return reply;
}

// One exchange with the JVM's attach listener: its parts in the order they are needed.
class AttachChannel {
public:
    explicit AttachChannel(const Process &process) : process_(process), target_(process.pid) {
        CheckUser(process);
        // The process was held first and is looked at afterwards: what is signalled is what was looked at.
        Process now;
        if (!ReadProcess(process.pid, &now) || now.euid != process.euid || now.inner_pid != process.inner_pid)
            throw Failure(fmt::format("process {} has gone", process.pid), "'qorctl list' shows the JVMs");
        CheckAttachable(now);
        CheckRuns(now);
        process_ = now;
        // Opened before the identity changes: later we may not pass through /proc/PID/root any more.
        std::string root = fmt::format("/proc/{}/root/", process.pid);
        root_ = FileDescriptor(open(root.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        tmp_ = FileDescriptor(open((root + "tmp").c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
        if (!root_.ok() || !tmp_.ok())
            throw Failure(
                fmt::format("can't look into the files of process {}: {}", process.pid, strerror(errno)),
                "run qorctl as root");
    }

    int root() const { return root_.get(); }

    // A command and its three arguments; the JVM's reply up to its hanging up.
    std::string Ask(std::initializer_list<std::string_view> words, std::chrono::seconds limit) {
        Clock::time_point deadline = Clock::now() + limit;
        std::string request = PROTOCOL_VERSION;
        request += '\0';
        for (std::string_view word : words) {
            request += word;
            request += '\0';
        }
        EffectiveUser user(process_);
        FileDescriptor channel = OpenChannel(tmp_.get(), target_, process_, deadline);
        return Exchange(channel.get(), request, deadline);
    }

private:
    Process process_;
    Target target_;
    FileDescriptor root_, tmp_;
};

// Results of the instrument library, as the JVM passes them on.
Failure LoadFailure(int result, const std::string &jar) {
    switch (result) {
    case 100:
        return Failure(fmt::format("the JVM can't use {} as an agent", jar), "check that it is qoragent.jar");
    case 102:
        return Failure("the agent's start failed in the JVM", "the JVM's standard error tells why");
    default:
        return Failure(fmt::format("the JVM couldn't load the agent (code {})", result),
                       "the JVM's standard error tells why");
    }
}

} // namespace

// First line: the outcome of the request itself. Behind it JDK 8 writes the library's result as a number,
// later ones "return code: N"; a refusal is plain text, and its first line may still be 0.
void CheckLoadReply(std::string_view reply, const std::string &jar) {
    if (reply.empty())
        throw Failure("the JVM hung up",
                      "it accepts its own user and group only; run qorctl as that user, or as root");
    size_t end = reply.find('\n');
    std::string_view status = reply.substr(0, end);
    std::string_view text = end == reply.npos ? std::string_view() : reply.substr(end + 1);
    text = text.substr(0, text.find_first_of("\r\n"));
    constexpr std::string_view RETURN_CODE = "return code: ";
    std::string_view code =
        text.substr(0, RETURN_CODE.size()) == RETURN_CODE ? text.substr(RETURN_CODE.size()) : text;
    int result = 0;
    auto [code_end, error] = std::from_chars(code.data(), code.data() + code.size(), result);
    if (error == std::errc() && code_end == code.data() + code.size()) {
        if (status == "0" && result == 0)
            return;
        throw LoadFailure(result, jar);
    }
    if (text.find("Dynamic agent loading is not enabled") != text.npos)
        throw Failure("the JVM was started with -XX:-EnableDynamicAgentLoading",
                      "start it with -XX:+EnableDynamicAgentLoading, or with -javaagent:qoragent.jar");
    if (text.empty() && status == "0")
        return; // a plain "0" alone
    if (text.empty())
        throw Failure(fmt::format("the JVM refused the attach request (code {})", status),
                      "its version may not be supported");
    throw Failure(fmt::format("the JVM refused the agent: {}", text),
                  "the JVM's standard error may tell more");
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
    struct stat status;
    std::string path = fmt::format("/proc/{}/root/tmp/{}", process.pid, SocketName(process));
    return process.catches_sigquit || (lstat(path.c_str(), &status) == 0 && S_ISSOCK(status.st_mode));
}

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

void LoadAgent(const Process &process, const std::string &jar, const std::string &options,
               std::chrono::seconds limit) {
    std::string argument = options.empty() ? jar : jar + "=" + options;
    CheckArgument(jar, argument);
    AttachChannel channel(process);
    CheckJarVisible(channel.root(), process, jar);
    CheckLoadReply(channel.Ask({"load", "instrument", "false", argument}, limit), jar);
}

std::string AgentStatus(const Process &process, std::chrono::seconds limit) {
    try {
        return PropertyValue(AttachChannel(process).Ask({"properties", "", "", ""}, limit), STATUS_PROPERTY);
    } catch (const Failure &) {
        return "";
    }
}

std::string PropertyValue(std::string_view text, std::string_view key) {
    std::string start = fmt::format("\n{}=", key);
    size_t at = text.find(start);
    std::string value;
    if (at == text.npos)
        return value;
    for (at += start.size(); at < text.size() && text[at] != '\n' && text[at] != '\r'; ++at) {
        if (text[at] == '\\' && at + 1 < text.size())
            ++at;
        value += text[at];
    }
    return value;
}

} // namespace qorctl
