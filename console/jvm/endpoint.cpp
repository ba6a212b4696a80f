#include "endpoint.h"

#include "base/failure.h"
#include "base/inside.h"
#include "base/network.h"
#include "base/transfer.h"
#include "patience.h"
#include "wire/protocol.h"
#include "wire/request.h"

#include <algorithm>
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

constexpr size_t TOKEN_DIGITS = 32;
constexpr int KNOWN_VERSION = 1;
constexpr size_t MAX_REPLY_BYTES = 4 * REPLY_LIMIT; // UTF-8 may take more bytes than the agent's buffer
constexpr Seconds SEND_LIMIT(10);
constexpr std::string_view TOKEN_ACCEPTED = "OK\n";

template <class Number>
bool ReadNumber(std::string_view text, Number low, Number high, Number *value) {
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), *value);
    return error == std::errc() && end == text.data() + text.size() && *value >= low && *value <= high;
}

// What a look for an endpoint found; the file's text follows FOUND.
enum LookResult : char { ABSENT = 'a', FOUND = 'f', TAKEN = 't', UNSAFE = 'u' };

std::string LookForEndpoint(int root, const std::string &path, const std::string &name, uid_t owner) {
    auto result = [](LookResult look, const std::string &text = "") {
        return static_cast<char>(look) + text;
    };
    FileDescriptor dir(
        openat(root, BelowRoot(path).c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat facts;
    // A directory of somebody else's can't be opened if it is closed, but be seen.
    if (fstatat(root, BelowRoot(path).c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0)
        return result(ABSENT);
    if (!dir.ok() || fstat(dir.get(), &facts) != 0 || facts.st_uid != owner || (facts.st_mode & 077) != 0)
        return result(TAKEN);
    if (fstatat(dir.get(), name.c_str(), &facts, AT_SYMLINK_NOFOLLOW) != 0)
        return result(ABSENT);
    if (!S_ISREG(facts.st_mode) || facts.st_uid != owner || (facts.st_mode & 077) != 0)
        return result(UNSAFE);
    return result(FOUND, ReadRegular(dir.get(), name, owner));
}

// A reply that ended without its end mark: the relay says a line before it hangs up, the agent may say
// nothing.
Failure Unanswered(std::string_view got) {
    if (!got.empty())
        return Failure(
            fmt::format("the agent refused the request: {}", got.substr(0, got.find_first_of("\r\n"))),
            "correct the request");
    return Failure("the agent gave no answer",
                   "its log says why (raise its level with 'log PID 3' and ask again)");
}

int MakeSocket() {
    return socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
}

Failure NoSocket(pid_t pid) {
    if (errno != EPERM && errno != EACCES)
        return Failure(fmt::format("no socket: {}", strerror(errno)), "raise the limit of open files");
    return Failure(
        fmt::format("process {} has its own network, which can't be entered: {}", pid, strerror(errno)),
        "run qorctl as root");
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
        else if (key == "pidns")
            endpoint.pid_namespace = value;
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

std::string UsualDirectory(const Process &process) {
    return fmt::format("/tmp/qoragent-{}", process.inner_euid);
}

std::optional<Endpoint> FindEndpoint(const Process &process, const std::string &dir, bool *taken) {
    std::string name = fmt::format("{}.endpoint", process.inner_pid);
    *taken = false;
    std::string found = LookInside(process, [&](int root) {
                            return LookForEndpoint(root, dir, name, process.euid);
                        }).value_or("");
    char what = found.empty() ? static_cast<char>(ABSENT) : found[0];
    *taken = what == TAKEN;
    if (what == UNSAFE)
        throw Failure(fmt::format("{}/{} is not the JVM user's own", dir, name),
                      "somebody else may have made it; remove it as its owner or as root, then attach again");
    if (what != FOUND)
        return std::nullopt;
    std::optional<Endpoint> endpoint = ParseEndpoint(std::string_view(found).substr(1));
    if (!endpoint || endpoint->inner_pid != process.inner_pid)
        throw Failure(fmt::format("{}/{} is not understood", dir, name),
                      "agent and qorctl may be of different versions; restart the JVM or use its own qorctl");
    endpoint->pid = process.pid;
    return endpoint;
}

std::optional<Connection> Connection::Open(const Endpoint &endpoint, Clock::time_point deadline) {
    FileDescriptor fd = MakeInNetwork(endpoint.pid, MakeSocket);
    if (!fd.ok())
        throw NoSocket(endpoint.pid);
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
    Patience patience(endpoint.pid, deadline);
    Transfer result = Send(fd.get(), endpoint.token + "\n", deadline);
    const auto receive = [&](Clock::time_point until) {
        return (result = Receive(fd.get(), &greeting, TOKEN_ACCEPTED.size() - greeting.size(), until)) !=
               Transfer::LATE;
    };
    while (result == Transfer::DONE && greeting.size() < TOKEN_ACCEPTED.size())
        patience.Wait(receive);
    if (result == Transfer::LATE)
        throw patience.Late(Failure(
            "the agent's relay doesn't answer",
            "the JVM may be stopped or in a long pause, or others hold all its connections; try again"));
    if (greeting != TOKEN_ACCEPTED)
        return std::nullopt;
    return Connection(std::move(fd), endpoint.pid);
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

std::string Connection::Ask(std::string_view request, Deadline due) {
    CheckRequest(request);
    std::string reply;
    Transfer sent = Send(socket_.get(), std::string(request) + "\n", due.at);
    if (sent == Transfer::CLOSED)
        throw Unanswered(reply);
    Patience patience(pid_, due.at);
    const auto receive = [&](Clock::time_point until) { return ReceiveReply(&reply, until); };
    if (sent == Transfer::LATE || !patience.Wait(receive))
        throw patience.Late(Failure(fmt::format("no answer within {} seconds", due.limit.count()),
                                    "try again, or wait longer with --timeout"));
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

void Connection::SendLast(std::string_view request, Deadline due) {
    std::string reply;
    Transfer result = Send(socket_.get(), std::string(request) + "\n", due.at);
    while (result == Transfer::DONE && reply.size() < MAX_REPLY_BYTES)
        result = Receive(socket_.get(), &reply, MAX_REPLY_BYTES - reply.size(), due.at);
    if (result != Transfer::CLOSED)
        throw Failure("the agent didn't hang up", "it may still be busy with a request; try again");
    if (!reply.empty())
        throw Unanswered(reply);
}

} // namespace qorctl
