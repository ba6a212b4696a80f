// From a process id to an agent that answers: the process is looked at, the agent is loaded when it isn't
// there, and the relay is connected to.
#pragma once

#include "base/settings.h"
#include "endpoint.h"

namespace qorctl {

// The process, ours to look into. Throws a Failure otherwise.
Process RequireProcess(pid_t pid);

// Where the agent of a process listens; nothing when it hasn't published that. If the usual directory isn't
// the JVM user's own, or with `ask` in any case, the JVM is asked whether it is published elsewhere, if it
// can be without a signal; this takes 5 s at most.
std::optional<Endpoint> LocateEndpoint(const Process &process, bool ask,
                                       Clock::time_point deadline = Clock::time_point::max());

// A connection to an agent that runs already; nothing when none does, or another process listens in its
// place. Throws a Failure when the process is stopped.
std::optional<Connection> ConnectToRunning(const Settings &settings, const Process &process, bool ask);

// Loads the agent and connects to it; nothing when its options switch the relay off.
std::optional<Connection> LoadAndConnect(const Settings &settings, const Process &process);

// The one or the other. Throws a Failure when the settings' time is over before.
Connection RequireAgent(const Settings &settings, const Process &process);

// What is to be said of the agent's answer to VersionRequest; empty when it is of the version `own`.
std::string VersionWarning(std::string_view answer, std::string_view own);

} // namespace qorctl
