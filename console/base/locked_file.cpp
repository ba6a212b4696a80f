#include "locked_file.h"

#include "process.h"
#include "transfer.h"

#include <algorithm>
#include <climits>
#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr std::chrono::milliseconds PATIENCE(500);

struct Request {
    size_t limit;
    char path[PATH_MAX];
};

bool SendAll(int fd, const void *bytes, size_t size) {
    for (size_t sent = 0; sent < size;) {
        const ssize_t now = send(fd, static_cast<const char *>(bytes) + sent, size - sent, MSG_NOSIGNAL);
        if (now <= 0)
            return false;
        sent += static_cast<size_t>(now);
    }
    return true;
}

bool ReceiveAll(int fd, void *bytes, size_t size, Clock::time_point deadline) {
    for (size_t got = 0; got < size;) {
        const ssize_t now =
            WaitFor(fd, POLLIN, deadline) ? recv(fd, static_cast<char *>(bytes) + got, size - got, 0) : 0;
        if (now <= 0)
            return false;
        got += static_cast<size_t>(now);
    }
    return true;
}

// In the child: answers until the other end closes.
[[noreturn]] void Serve(int fd) {
    fd = KeepOnly(fd);
    try {
        for (Request request; recv(fd, &request, sizeof request, MSG_WAITALL) == sizeof request;) {
            const std::string text = ReadFile(request.path, request.limit);
            const size_t size = text.size();
            if (!SendAll(fd, &size, sizeof size) || !SendAll(fd, text.data(), size))
                break;
        }
    } catch (...) { // nothing of the parent's may run in here
    }
    _exit(0);
}

// The process that reads; one of a parent isn't used by its children.
class Reader {
public:
    std::optional<std::string> Read(const std::string &path, size_t limit) {
        Request request = {limit, ""};
        if (path.size() >= sizeof request.path || !Start())
            return std::nullopt;
        memcpy(request.path, path.c_str(), path.size() + 1);
        const auto deadline = Clock::now() + PATIENCE;
        std::string text;
        size_t size = 0;
        if (SendAll(socket_.get(), &request, sizeof request) &&
            ReceiveAll(socket_.get(), &size, sizeof size, deadline) && size <= limit) {
            text.resize(size);
            if (ReceiveAll(socket_.get(), text.data(), size, deadline))
                return text;
        }
        End();
        return std::nullopt;
    }

private:
    bool Start() {
        if (owner_ == getpid() && socket_.ok())
            return true;
        if (owner_ == getpid() && child_ > 0)
            waitpid(child_, nullptr, WNOHANG); // the one that was ended
        int ends[2];
        if (socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, ends) != 0)
            return false;
        FileDescriptor other(ends[1]);
        socket_ = FileDescriptor(ends[0]);
        owner_ = getpid();
        child_ = fork();
        if (child_ == 0)
            Serve(other.get());
        if (child_ < 0)
            socket_ = FileDescriptor();
        return child_ > 0;
    }

    // It hangs in the kernel, where not even this may end it: then it isn't waited for.
    void End() {
        kill(child_, SIGKILL);
        waitpid(child_, nullptr, WNOHANG);
        socket_ = FileDescriptor();
    }

    FileDescriptor socket_;
    pid_t owner_ = 0, child_ = 0;
};

} // namespace

std::optional<std::string> ReadLocked(const std::string &path, size_t limit) {
    static Reader reader;
    return reader.Read(path, limit);
}

int KeepOnly(int kept) {
    constexpr int HIGH = 10;
    kept = fcntl(kept, F_DUPFD_CLOEXEC, HIGH);
    const int nothing = open("/dev/null", O_RDWR | O_CLOEXEC);
    for (int fd = 0; fd < 3; ++fd)
        dup2(nothing, fd);
    if (syscall(SYS_close_range, 3u, static_cast<unsigned>(kept) - 1, 0) != 0 ||
        syscall(SYS_close_range, static_cast<unsigned>(kept) + 1, ~0u, 0) != 0) // a kernel before 5.9
        for (int fd = 3; fd < 1024; ++fd)
            if (fd != kept)
                close(fd);
    return kept;
}

} // namespace qorctl
