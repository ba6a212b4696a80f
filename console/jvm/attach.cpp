#include "attach.h"

#include "base/failure.h"
#include "base/inside.h"
#include "base/transfer.h"
#include "bring.h"
#include "patience.h"

#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <poll.h>
#include <random>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/un.h>
#include <unistd.h>

namespace qorctl {

namespace {

using Milliseconds = std::chrono::milliseconds;

constexpr size_t MAX_ATTACH_ARGUMENT = 1024; // the JVM's own limit
constexpr size_t MAX_ATTACH_REPLY = 1 << 20;
constexpr Milliseconds SOCKET_PERIOD(20);
constexpr const char *PROTOCOL_VERSION = "1";
constexpr std::string_view STATUS_PROPERTY = "qoragent.status";

// The effective user, group and groups of the target for the time of a scope. Only root gets others.
class EffectiveUser {
public:
    explicit EffectiveUser(const Process &process) : process_(process), uid_(geteuid()), gid_(getegid()) {
        if (uid_ != 0 && process.euid == uid_)
            return;
        groups_.resize(static_cast<size_t>(std::max(getgroups(0, nullptr), 0)));
        changed_ = getgroups(static_cast<int>(groups_.size()), groups_.data()) >= 0;
        if (changed_ && Take())
            return;
        if (changed_)
            Restore();
        changed_ = false;
        if (process.euid == uid_)
            return; // root without the privilege: the same user at least
        throw Failure(fmt::format("can't take the identity of {}", UserName(process.euid)),
                      "run qorctl as that user");
    }
    EffectiveUser(const EffectiveUser &) = delete;
    ~EffectiveUser() {
        if (changed_)
            Restore();
    }

    // What only root can do, done as root; false when we came as somebody else.
    template <class Act>
    bool AsRoot(Act act) const {
        if (uid_ != 0)
            return false;
        if (changed_)
            Restore();
        act();
        if (changed_ && !Take())
            abort(); // going on as root would be worse
        return true;
    }

private:
    bool Take() const {
        return setgroups(0, nullptr) == 0 && setegid(process_.egid) == 0 && seteuid(process_.euid) == 0;
    }
    void Restore() const {
        // The user first: only root may choose the groups.
        if (seteuid(uid_) != 0 || setegid(gid_) != 0 || setgroups(groups_.size(), groups_.data()) != 0)
            abort(); // going on under a mixed identity would be worse
    }
    const Process &process_;
    uid_t uid_;
    gid_t gid_;
    std::vector<gid_t> groups_;
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

// Where the JVM looks for what calls its attach listener: its working directory first.
struct Places {
    FileDescriptor cwd, tmp; // cwd may be closed to us
};

// Moves what a stranger has put in the way of the JVM's own files out of it. Renamed and then removed, as it
// may be a directory that isn't empty. False when we aren't root.
bool ClearAway(const EffectiveUser &user, int dir, const std::string &name) {
    return user.AsRoot([&] {
        std::string aside = fmt::format("{}.{:x}", name, std::random_device()());
        if (renameat(dir, name.c_str(), dir, aside.c_str()) == 0 && unlinkat(dir, aside.c_str(), 0) != 0)
            unlinkat(dir, aside.c_str(), AT_REMOVEDIR);
    });
}

Failure InTheWay(const std::string &name) {
    return Failure(fmt::format("{} in the JVM's working directory or /tmp belongs to another user", name),
                   "somebody may be keeping others from attaching; run qorctl as root, which removes it");
}

// The .attach_pidN file, there as long as this object.
class TriggerFile {
public:
    TriggerFile(const Places &places, const EffectiveUser &user, std::string name) : name_(std::move(name)) {
        if (!Create(places.cwd.get(), user) && !Create(places.tmp.get(), user))
            throw Failure(fmt::format("can't create /tmp/{}: {}", name_, strerror(errno)),
                          "the JVM looks for it there; make room in /tmp");
    }
    TriggerFile(const TriggerFile &) = delete;
    ~TriggerFile() { unlinkat(dir_, name_.c_str(), 0); }

private:
    // False where no file can be made at all. One that is there is of an attach that was killed, or a
    // stranger's; the JVM takes no other in its place.
    bool Create(int dir, const EffectiveUser &user) {
        dir_ = dir;
        if (Open() || errno != EEXIST)
            return made_;
        if ((unlinkat(dir_, name_.c_str(), 0) == 0 || ClearAway(user, dir_, name_)) && Open())
            return true;
        throw InTheWay(name_);
    }
    bool Open() {
        constexpr int FLAGS = O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC;
        return made_ = FileDescriptor(openat(dir_, name_.c_str(), FLAGS, 0600)).ok();
    }
    int dir_ = -1;
    bool made_ = false;
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
    case JvmKind::LOCKED:
        throw Failure(fmt::format("the memory of process {} is locked in the kernel", process.pid),
                      fmt::format("'qorctl hung {}' shows what it waits for", process.pid));
    case JvmKind::NONE:
        throw Failure(fmt::format("process {} isn't a JVM", process.pid), "'qorctl list' shows the JVMs");
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

Failure Unheard() {
    return Failure("the JVM doesn't answer to attaching",
                   "it may have its own way with SIGQUIT; -javaagent:qoragent.jar always works");
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

// Whether the JVM, whose files may be others than ours, has the jar there and its user may read it.
enum class Sight { READABLE, CLOSED, ABSENT };

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

std::string SocketName(const Process &process) {
    return fmt::format(".java_pid{}", process.inner_pid);
}

// A full queue of callers lets nobody in until the JVM takes one out.
FileDescriptor Connect(int tmp, const std::string &name, Clock::time_point deadline, Patience *patience) {
    FileDescriptor fd(socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    // Through the descriptor: the JVM's own path may be of any length and lie in another file tree.
    std::string path = fmt::format("/proc/self/fd/{}/{}", tmp, name);
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    while (fd.ok() && connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        if (errno != EAGAIN && errno != EINTR)
            return FileDescriptor();
        if (Clock::now() >= deadline)
            throw patience->Late(Unheard());
        patience->Check();
        poll(nullptr, 0, static_cast<int>(SOCKET_PERIOD.count()));
    }
    return fd;
}

enum class Listener { ABSENT, THERE, STRANGE };

Listener LookForSocket(int tmp, const std::string &name, const Process &process) {
    struct stat status;
    if (fstatat(tmp, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0)
        return Listener::ABSENT;
    return S_ISSOCK(status.st_mode) && status.st_uid == process.euid ? Listener::THERE : Listener::STRANGE;
}

// A connection to the socket if there is one that answers.
FileDescriptor ConnectIfThere(int tmp, const Process &process, const EffectiveUser &user,
                              Clock::time_point deadline, Patience *patience) {
    std::string name = SocketName(process);
    Listener listener = LookForSocket(tmp, name, process);
    if (listener == Listener::STRANGE && !ClearAway(user, tmp, name))
        throw InTheWay(name);
    if (listener != Listener::THERE)
        return FileDescriptor();
    FileDescriptor fd = Connect(tmp, name, deadline, patience);
    if (!fd.ok())
        unlinkat(tmp, name.c_str(), 0); // of an earlier JVM with that number
    return fd;
}

// Makes the JVM open its socket and connects to it.
FileDescriptor OpenChannel(const Places &places, const Target &target, const Process &process,
                           const EffectiveUser &user, Clock::time_point deadline, Patience *patience) {
    FileDescriptor channel = ConnectIfThere(places.tmp.get(), process, user, deadline, patience);
    if (channel.ok())
        return channel;
    CheckMaySignal(process);
    TriggerFile trigger(places, user, fmt::format(".attach_pid{}", process.inner_pid));
    if (!target.Signal(SIGQUIT))
        throw Failure(fmt::format("can't signal process {}: {}", process.pid, strerror(errno)),
                      "run qorctl as its user or as root");
    while (Clock::now() < deadline && target.Alive()) {
        channel = ConnectIfThere(places.tmp.get(), process, user, deadline, patience);
        if (channel.ok())
            return channel;
        patience->Check();
        poll(nullptr, 0, static_cast<int>(SOCKET_PERIOD.count()));
    }
    throw patience->Late(Unheard());
}

std::string Exchange(int fd, const std::string &request, Clock::time_point deadline, Patience *patience) {
    std::string reply;
    Transfer result = Send(fd, request, deadline);
    if (result == Transfer::CLOSED)
        result = Transfer::DONE; // the JVM hung up; what it said before is still there
    const auto receive = [&](Clock::time_point until) {
        return (result = Receive(fd, &reply, MAX_ATTACH_REPLY - reply.size(), until)) != Transfer::LATE;
    };
    while (result == Transfer::DONE && reply.size() < MAX_ATTACH_REPLY)
        patience->Wait(receive);
    if (result == Transfer::LATE)
        throw patience->Late(Failure("the JVM is still loading the agent",
                                     "wait for it: 'qorctl list' shows when the agent is there"));
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
        std::string own = fmt::format("/proc/{}/", process.pid);
        constexpr int FLAGS = O_PATH | O_DIRECTORY | O_CLOEXEC;
        FileDescriptor root(open((own + "root/").c_str(), FLAGS));
        places_.tmp = OpenBelow(root.get(), "tmp", FLAGS);
        places_.cwd = FileDescriptor(open((own + "cwd/").c_str(), FLAGS));
        if (!places_.tmp.ok())
            throw Failure(
                fmt::format("can't look into the files of process {}: {}", process.pid, strerror(errno)),
                "run qorctl as root");
    }

    // A command and its three arguments; the JVM's reply up to its hanging up. Empty when the JVM would have
    // to be called by a signal first, and `call` is false.
    std::string Ask(std::initializer_list<std::string_view> words, std::chrono::seconds limit, bool call) {
        Clock::time_point deadline = Clock::now() + limit;
        std::string request = PROTOCOL_VERSION;
        request += '\0';
        for (std::string_view word : words) {
            request += word;
            request += '\0';
        }
        EffectiveUser user(process_);
        Patience patience(process_.pid, deadline);
        FileDescriptor channel = call
                                     ? OpenChannel(places_, target_, process_, user, deadline, &patience)
                                     : ConnectIfThere(places_.tmp.get(), process_, user, deadline, &patience);
        return channel.ok() ? Exchange(channel.get(), request, deadline, &patience) : "";
    }

private:
    Process process_;
    Target target_;
    Places places_;
};

// The JVM's own directories, to which its user can usually write.
std::vector<std::string> OwnPlaces(std::string_view properties) {
    std::vector<std::string> places;
    for (const char *key : {"java.io.tmpdir", "user.dir", "user.home"})
        places.push_back(PropertyValue(properties, key));
    return places;
}

// Results of the instrument library, as the JVM passes them on.
Failure LoadFailure(int result, const std::string &jar) {
    switch (result) {
    case 100:
        return Failure(fmt::format("the JVM can't use {} as an agent", jar), "check that it is qoragent.jar");
    case 102:
        return Failure("the agent's start failed in the JVM", "the JVM's standard error says why");
    default:
        return Failure(fmt::format("the JVM couldn't load the agent (code {})", result),
                       "the JVM's standard error says why");
    }
}

} // namespace

// First line: the outcome of the request itself. After it JDK 8 writes the library's result as a number,
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
                  "the JVM's standard error may say more");
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
               std::string path = "tmp/" + SocketName(process);
               bool there = fstatat(root, path.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0;
               return std::string(there && S_ISSOCK(status.st_mode) ? "there" : "");
           }) == "there";
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
    AttachChannel channel(process);
    std::optional<BroughtJar> brought;
    if (Sight sight = LookForJar(process, jar); sight != Sight::READABLE) {
        if (access(jar.c_str(), R_OK) != 0)
            throw Unseen(process, jar, sight);
        brought.emplace(process, jar, OwnPlaces(channel.Ask({"properties", "", "", ""}, limit, true)));
    }
    const std::string &path = brought ? brought->path() : jar;
    std::string argument = options.empty() ? path : path + "=" + options;
    CheckArgument(path, argument);
    CheckLoadReply(channel.Ask({"load", "instrument", "false", argument}, limit, true), path);
}

std::string AgentStatus(const Process &process, std::chrono::seconds limit) {
    try {
        return PropertyValue(AttachChannel(process).Ask({"properties", "", "", ""}, limit, false),
                             STATUS_PROPERTY);
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
