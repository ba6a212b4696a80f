// From a process id to an agent that answers: the process is looked at, the agent is loaded when it isn't
// there, and the relay is connected to.
#pragma once

#include "commands.h"
#include "endpoint.h"

namespace qorctl {

// The process, ours to look into. Throws a Failure otherwise.
Process RequireProcess(pid_t pid);

// A connection to an agent that runs already; nothing when none does.
std::optional<Connection> ConnectToRunning(const Process &process);

// Loads the agent and connects to it; nothing when its options switch the relay off.
std::optional<Connection> LoadAndConnect(const Settings &settings, const Process &process);

// The one or the other.
Connection RequireAgent(const Settings &settings, const Process &process);

} // namespace qorctl
