#include "network.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sched.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

namespace qorctl {

namespace {

constexpr unsigned SOCKET_SECONDS = 5; // making a socket takes no time, but should it

FileDescriptor OpenNamespace(pid_t pid, const char *name) {
    return FileDescriptor(open(fmt::format("/proc/{}/ns/{}", pid, name).c_str(), O_RDONLY | O_CLOEXEC));
}

// Who isn't root may enter a network through the user namespace that it made itself.
bool EnterNetwork(pid_t pid) {
    FileDescriptor net = OpenNamespace(pid, "net"), user = OpenNamespace(pid, "user");
    if (!net.ok() || setns(net.get(), CLONE_NEWNET) == 0)
        return net.ok();
    const int refused = errno;
    if (user.ok() && setns(user.get(), CLONE_NEWUSER) == 0 && setns(net.get(), CLONE_NEWNET) == 0)
        return true;
    errno = refused;
    return false;
}

// A message of errno's value and, when there is one, a descriptor.
struct Message {
    int error = 0;
    iovec part = {&error, sizeof error};
    alignas(cmsghdr) char space[CMSG_SPACE(sizeof(int))] = {};
    msghdr header = {};
    Message() {
        header.msg_iov = &part;
        header.msg_iovlen = 1;
        header.msg_control = space;
        header.msg_controllen = sizeof space;
    }
    Message(const Message &) = delete;
};

void SendDescriptor(int to, int fd) {
    Message message;
    message.error = errno;
    cmsghdr *control = CMSG_FIRSTHDR(&message.header);
    control->cmsg_level = SOL_SOCKET;
    control->cmsg_type = SCM_RIGHTS;
    control->cmsg_len = CMSG_LEN(sizeof fd);
    memcpy(CMSG_DATA(control), &fd, sizeof fd);
    if (fd < 0)
        message.header.msg_controllen = 0;
    sendmsg(to, &message.header, MSG_NOSIGNAL);
}

FileDescriptor ReceiveDescriptor(int from) {
    Message message;
    ssize_t got;
    while ((got = recvmsg(from, &message.header, MSG_CMSG_CLOEXEC)) < 0 && errno == EINTR) {
    }
    errno = got == sizeof message.error ? message.error : EIO;
    const cmsghdr *control = CMSG_FIRSTHDR(&message.header);
    int fd = -1;
    if (got > 0 && control && control->cmsg_type == SCM_RIGHTS)
        memcpy(&fd, CMSG_DATA(control), sizeof fd);
    return FileDescriptor(fd);
}

[[noreturn]] void RunChild(int to_parent, pid_t pid, const std::function<int()> &make) {
    try {
        alarm(SOCKET_SECONDS);
        SendDescriptor(to_parent, EnterNetwork(pid) ? make() : -1);
    } catch (...) {
        // whatever it is, nothing of the parent's may run in here
    }
    _exit(0);
}

} // namespace

FileDescriptor MakeInNetwork(pid_t pid, const std::function<int()> &make) {
    if (pid == 0 || SameNetwork(pid))
        return FileDescriptor(make());
    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends) != 0)
        return FileDescriptor();
    FileDescriptor ours(ends[0]), childs(ends[1]);
    const pid_t child = fork();
    if (child == 0)
        RunChild(childs.get(), pid, make);
    childs = FileDescriptor();
    if (child < 0)
        return FileDescriptor();
    FileDescriptor made = ReceiveDescriptor(ours.get());
    const int error = errno;
    while (waitpid(child, nullptr, 0) < 0 && errno == EINTR) {
    }
    errno = error;
    return made;
}

} // namespace qorctl
