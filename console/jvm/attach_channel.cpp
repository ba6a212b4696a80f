#include "attach_channel.h"

#include "attachable.h"
#include "base/failure.h"
#include "base/inside.h"
#include "effective_user.h"
#include "patience.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
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

constexpr size_t MAX_ATTACH_REPLY = 1 << 20;
constexpr std::chrono::milliseconds SOCKET_PERIOD(20);
constexpr const char *PROTOCOL_VERSION = "1";

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
    TriggerFile(const AttachPlaces &places, const EffectiveUser &user, std::string name)
        : name_(std::move(name)) {
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

Failure Unheard() {
    return Failure("the JVM doesn't answer to attaching",
                   "it may have its own way with SIGQUIT; -javaagent:qoragent.jar always works");
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
    std::string name = AttachSocketName(process);
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
FileDescriptor OpenChannel(const AttachPlaces &places, const Target &target, const Process &process,
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

} // namespace

Target::Target(pid_t pid) : pid_(pid), fd_(static_cast<int>(syscall(SYS_pidfd_open, pid, 0))) {}

bool Target::Signal(int number) const {
    if (fd_.ok())
        return syscall(SYS_pidfd_send_signal, fd_.get(), number, nullptr, 0) == 0;
    return kill(pid_, number) == 0; // a kernel before 5.3
}

AttachChannel::AttachChannel(const Process &process) : process_(process), target_(process.pid) {
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

std::string AttachChannel::Ask(std::initializer_list<std::string_view> words, Clock::time_point deadline,
                               bool call) {
    std::string request = PROTOCOL_VERSION;
    request += '\0';
    for (std::string_view word : words) {
        request += word;
        request += '\0';
    }
    EffectiveUser user(process_);
    Patience patience(process_.pid, deadline);
    FileDescriptor channel = call ? OpenChannel(places_, target_, process_, user, deadline, &patience)
                                  : ConnectIfThere(places_.tmp.get(), process_, user, deadline, &patience);
    return channel.ok() ? Exchange(channel.get(), request, deadline, &patience) : "";
}

} // namespace qorctl
