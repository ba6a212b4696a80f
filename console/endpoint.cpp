#include "endpoint.h"

#include "failure.h"
#include "protocol.h"
#include "request.h"

#include <arpa/inet.h>
#include <cerrno>
#include <charconv>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

namespace qorctl {

namespace {

using Clock = std::chrono::steady_clock;

constexpr size_t MAX_ENDPOINT_FILE = 4096;
constexpr size_t TOKEN_DIGITS = 32;
constexpr int KNOWN_VERSION = 1;
constexpr size_t MAX_REPLY_BYTES = 4 * REPLY_LIMIT; // UTF-8 may take more bytes than the agent's buffer
constexpr Seconds SEND_LIMIT(10);
constexpr std::string_view TOKEN_ACCEPTED = "OK\n";

// Waits until the socket is ready for `events`; false at the deadline.
bool WaitFor(int fd, short events, Clock::time_point deadline) {
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now()).count();
        pollfd entry = {fd, events, 0};
        int ready = poll(&entry, 1, static_cast<int>(std::max<long>(left, 0)));
        if (ready > 0)
            return true;
        if (ready == 0 || errno != EINTR)
            return false;
    }
}

enum class Transfer { DONE, CLOSED, LATE };

Transfer Send(int fd, std::string_view text, Clock::time_point deadline) {
    while (!text.empty()) {
        ssize_t sent = send(fd, text.data(), text.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
        if (sent >= 0)
            text.remove_prefix(static_cast<size_t>(sent));
        else if (errno == EAGAIN && !WaitFor(fd, POLLOUT, deadline))
            return Transfer::LATE;
        else if (errno != EAGAIN && errno != EINTR)
            return Transfer::CLOSED;
    }
    return Transfer::DONE;
}

// Appends what has come to `text`.
Transfer Receive(int fd, std::string *text, size_t limit, Clock::time_point deadline) {
    char part[65536];
    for (;;) {
        if (!WaitFor(fd, POLLIN, deadline))
            return Transfer::LATE;
        ssize_t got = recv(fd, part, std::min(sizeof part, limit), MSG_DONTWAIT);
        if (got < 0 && (errno == EINTR || errno == EAGAIN))
            continue;
        if (got <= 0)
            return Transfer::CLOSED;
        text->append(part, static_cast<size_t>(got));
        return Transfer::DONE;
    }
}

template <class Number>
bool ReadNumber(std::string_view text, Number low, Number high, Number *value) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size() && *value >= low && *value <= high;
}

Failure Unsafe(const std::string &path, const char *fault) {
    return Failure(fmt::format("{} {}", path, fault),
                   "somebody else may have made it; remove it as its owner or as root, then attach again");
}

// A reply that ended without its end mark: the relay says a line before it hangs up, the agent may say
// nothing.
Failure Unanswered(std::string_view got) {
    if (!got.empty())
        return Failure(
            fmt::format("the agent refused the request: {}", got.substr(0, got.find_first_of("\r\n"))),
            "correct the request");
    return Failure("the agent gave no answer",
                   "its log tells why (raise its level with 'log PID 3' and ask again)");
}

} // namespace

std::optional<Endpoint> ParseEndpoint(std::string_view text) {
    Endpoint endpoint;
    endpoint.address = htonl(INADDR_LOOPBACK);
    int version = 0;
    while (!text.empty()) {
        size_t end = text.find('\n');
        std::string_view line = text.substr(0, end);
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
        size_t equals = line.find('=');
        if (equals == line.npos)
            continue;
        std::string_view key = line.substr(0, equals), value = line.substr(equals + 1);
        bool good = true;
        if (key == "port")
            good = ReadNumber<uint16_t>(value, 1, 65535, &endpoint.port);
        else if (key == "pid")
            good = ReadNumber<pid_t>(value, 1, INT32_MAX, &endpoint.inner_pid);
        else if (key == "version")
            good = ReadNumber<int>(value, KNOWN_VERSION, KNOWN_VERSION, &version);
        else if (key == "token")
            endpoint.token = value;
        else if (key == "bind" && inet_pton(AF_INET, std::string(value).c_str(), &endpoint.address) == 1 &&
                 endpoint.address == htonl(INADDR_ANY))
            endpoint.address = htonl(INADDR_LOOPBACK);
        if (!good)
            return std::nullopt;
    }
    bool token_good = endpoint.token.size() == TOKEN_DIGITS &&
                      endpoint.token.find_first_not_of("0123456789abcdefABCDEF") == std::string::npos;
    if (endpoint.port == 0 || endpoint.inner_pid == 0 || version != KNOWN_VERSION || !token_good)
        return std::nullopt;
    return endpoint;
}

std::optional<Endpoint> FindEndpoint(const Process &process) {
    std::string path = fmt::format("/proc/{}/root/tmp/qoragent-{}", process.pid, process.inner_euid);
    FileDescriptor dir(open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    if (!dir.ok()) {
        if (errno == ELOOP || errno == ENOTDIR)
            throw Unsafe(path, "is not a directory");
        return std::nullopt;
    }
    struct stat status;
    if (fstat(dir.get(), &status) != 0 || status.st_uid != process.euid || (status.st_mode & 077) != 0)
        throw Unsafe(path, "is not the JVM user's own");
    std::string name = fmt::format("{}.endpoint", process.inner_pid);
    FileDescriptor file(openat(dir.get(), name.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
    if (!file.ok()) {
        if (errno == ELOOP)
            throw Unsafe(path + "/" + name, "is a link");
        return std::nullopt;
    }
    if (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode) || status.st_uid != process.euid ||
        (status.st_mode & 077) != 0)
        throw Unsafe(path + "/" + name, "is not the JVM user's own");
    std::string text(MAX_ENDPOINT_FILE, '\0');
    ssize_t got = pread(file.get(), text.data(), text.size(), 0);
    text.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    std::optional<Endpoint> endpoint = ParseEndpoint(text);
    if (!endpoint || endpoint->inner_pid != process.inner_pid)
        throw Failure(fmt::format("{}/{} is not understood", path, name),
                      "agent and qorctl may be of different versions; restart the JVM or use its own qorctl");
    return endpoint;
}

std::optional<Connection> Connection::Open(const Endpoint &endpoint, Seconds limit) {
    Clock::time_point deadline = Clock::now() + limit;
    FileDescriptor fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
    if (!fd.ok())
        throw Failure(fmt::format("no socket: {}", strerror(errno)), "raise the limit of open files");
    int on = 1;
    setsockopt(fd.get(), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    sockaddr_in address = {};
    address.sin_family = AF_INET;
    address.sin_port = htons(endpoint.port);
    address.sin_addr.s_addr = endpoint.address;
    if (connect(fd.get(), reinterpret_cast<sockaddr *>(&address), sizeof address) != 0) {
        if (errno != EINPROGRESS)
            return std::nullopt;
        int error = 0;
        socklen_t size = sizeof error;
        if (!WaitFor(fd.get(), POLLOUT, deadline) ||
            getsockopt(fd.get(), SOL_SOCKET, SO_ERROR, &error, &size) != 0 || error != 0)
            return std::nullopt;
    }
    std::string greeting;
    Transfer result = Send(fd.get(), endpoint.token + "\n", deadline);
    while (result == Transfer::DONE && greeting.size() < TOKEN_ACCEPTED.size())
        result = Receive(fd.get(), &greeting, TOKEN_ACCEPTED.size() - greeting.size(), deadline);
    if (result == Transfer::LATE)
        throw Failure(
            "the agent's relay doesn't answer",
            "the JVM may be stopped or in a long pause, or others hold all its connections; try again");
    if (greeting != TOKEN_ACCEPTED)
        return std::nullopt;
    return Connection(std::move(fd));
}

// True when the reply is whole, false at the deadline.
bool Connection::ReceiveReply(std::string *reply, Clock::time_point deadline) {
    while (reply->size() < MAX_REPLY_BYTES) {
        size_t searched = reply->size() - std::min(reply->size(), END_OF_TRANSMISSION.size() - 1);
        Transfer result = Receive(socket_.get(), reply, MAX_REPLY_BYTES - reply->size(), deadline);
        size_t end = reply->find(END_OF_TRANSMISSION, searched);
        if (end != std::string::npos) {
            reply->resize(end);
            return true;
        }
        if (result == Transfer::LATE)
            return false;
        if (result == Transfer::CLOSED)
            throw Unanswered(*reply);
    }
    throw Failure("the reply doesn't end", "agent and qorctl may be of different versions");
}

std::string Connection::Ask(std::string_view request, Seconds limit) {
    CheckRequest(request);
    Clock::time_point deadline = Clock::now() + limit;
    std::string reply;
    Transfer sent = Send(socket_.get(), std::string(request) + "\n", deadline);
    if (sent == Transfer::CLOSED)
        throw Unanswered(reply);
    if (sent == Transfer::LATE || !ReceiveReply(&reply, deadline))
        throw Failure(fmt::format("no answer within {} seconds", limit.count()),
                      "the JVM may be in a long pause; try again, or wait longer with --timeout");
    return reply;
}

std::optional<std::string> Connection::AskWhile(std::string_view request, std::chrono::milliseconds period,
                                                const std::function<bool()> &go_on) {
    CheckRequest(request);
    std::string reply;
    if (Send(socket_.get(), std::string(request) + "\n", Clock::now() + SEND_LIMIT) != Transfer::DONE)
        throw Unanswered(reply);
    while (!ReceiveReply(&reply, Clock::now() + period))
        if (!go_on())
            return std::nullopt;
    return reply;
}

void Connection::SendLast(std::string_view request, Seconds limit) {
    Clock::time_point deadline = Clock::now() + limit;
    std::string reply;
    Transfer result = Send(socket_.get(), std::string(request) + "\n", deadline);
    while (result == Transfer::DONE && reply.size() < MAX_REPLY_BYTES)
        result = Receive(socket_.get(), &reply, MAX_REPLY_BYTES - reply.size(), deadline);
    if (result != Transfer::CLOSED)
        throw Failure("the agent didn't hang up", "it may still be busy with a request; try again");
    if (!reply.empty())
        throw Unanswered(reply);
}

void CheckNetwork(const Process &process) {
    if (!SameNetwork(process.pid))
        throw Failure(
            fmt::format("process {} has a network of its own, its loopback can't be reached from here",
                        process.pid),
            fmt::format("run qorctl in there: nsenter -t {} -n qorctl ...", process.pid));
}

} // namespace qorctl
