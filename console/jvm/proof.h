// Who listens at a port: the process that its endpoint file names, or somebody who has taken the port since.
#pragma once

#include "endpoint.h"

#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace qorctl {

enum class Proof {
    PROVEN,  // the listening socket is among the process's descriptors
    UNKNOWN, // its descriptors or its sockets can't be read
    OTHER,   // the process has no such socket
};

// What is said where it is UNKNOWN.
constexpr const char *NOT_PROVEN = "not proven";

// Who listens where the agent of the process should. Throws a Failure when that is an address of another
// machine.
Proof CheckListener(const Process &process, const Endpoint &endpoint);

// By the process's own files below `proc_dir`, usually /proc/PID.
Proof ProveListener(const std::string &proc_dir, const Endpoint &endpoint);

// The inodes of sockets that listen at the endpoint, in a table of the kernel's (net/tcp or net/tcp6).
std::vector<std::string> ListeningInodes(std::string_view table, const Endpoint &endpoint);

// The TCP ports that a process listens at, in order; nothing when they can't be read. `proc_dir` is usually
// /proc/PID.
std::optional<std::vector<uint16_t>> ListeningPorts(const std::string &proc_dir);

// Whether an IPv4 address (network order) is of this network namespace, so that nobody else's machine answers
// there.
bool IsOwnAddress(uint32_t address);

} // namespace qorctl
