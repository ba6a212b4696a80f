// The way to an agent that runs: its endpoint file, its relay, one request and its reply.
//
// The relay listens on the loopback of the JVM's network, which is entered for the connection when it isn't
// ours. It asks for a token, which is with the port in a file that only the JVM's user can read. Every wait
// has an end and every read a bound.
#pragma once

#include "base/process.h"
#include "base/transfer.h"

#include <chrono>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

namespace qorctl {

struct Endpoint {
    uint32_t address = 0; // IPv4, network order
    uint16_t port = 0;
    std::string token; // 32 hexadecimal digits
    pid_t inner_pid = 0;
    pid_t pid = 0;             // as we see it; 0 when not known: one in our own network
    std::string pid_namespace; // of the JVM, as /proc names it; empty when not known
};

// The text of an endpoint file, "key=value" lines; nothing when a line that is needed is missing or
// malformed, or when the file is of a version this console doesn't know.
std::optional<Endpoint> ParseEndpoint(std::string_view text);

// The directory in which an agent writes its endpoint, as the process sees it, if nobody else has taken its
// name.
std::string UsualDirectory(const Process &process);

// The endpoint of a process in `dir`; nothing when no agent has written one there. `*taken` says that the
// directory is there but isn't as the agent makes it: of the JVM's user, closed to others, no link. Throws a
// Failure when that is so of the file.
std::optional<Endpoint> FindEndpoint(const Process &process, const std::string &dir, bool *taken);

// A connection to a relay, after its token.
class Connection {
public:
    // Nothing when nobody listens there or the token isn't accepted: the file is then a leftover.
    static std::optional<Connection> Open(const Endpoint &endpoint, Clock::time_point deadline);

    // Sends one request line and reads the reply up to its end mark. Throws a Failure when none comes.
    std::string Ask(std::string_view request, Deadline due);

    // The same with no limit of its own: every `period` while it waits it asks `go_on`, and gives up, with
    // nothing, when that says no.
    std::optional<std::string> AskWhile(std::string_view request, std::chrono::milliseconds period,
                                        const std::function<bool()> &go_on);

    // Sends a line after which the other side hangs up. Throws a Failure when it doesn't.
    void SendLast(std::string_view request, Deadline due);

private:
    Connection(FileDescriptor socket, pid_t pid) : socket_(std::move(socket)), pid_(pid) {}
    bool ReceiveReply(std::string *reply, Clock::time_point deadline);
    FileDescriptor socket_;
    pid_t pid_; // of the JVM; 0 when not known
};

} // namespace qorctl
