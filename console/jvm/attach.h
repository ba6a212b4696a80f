// Loading the agent into a running JVM, by its attach listener.
#pragma once

#include "base/process.h"
#include "base/transfer.h"

#include <string>
#include <string_view>

namespace qorctl {

// Loads the jar into the process and waits until its agentmain has returned. `jar` is an absolute path as the
// JVM sees it; when it sees no such file that its user can read, ours of that path is brought to it for the
// time of the call. Throws a Failure that says why the JVM refused, or why there is no place for the jar.
void LoadAgent(const Process &process, const std::string &jar, const std::string &options,
               Clock::time_point deadline);

// The agent's own word on how it fares, from the JVM's system properties: "running", "running in DIRECTORY"
// when its endpoint isn't in the usual one, "stopped", "failed: why"; empty when it has said nothing or can't
// be asked. No signal is sent for it: a JVM that nobody has attached to isn't asked.
std::string AgentStatus(const Process &process, Clock::time_point deadline);

// A value of a properties text, its escapes undone; empty when the key isn't there.
std::string PropertyValue(std::string_view text, std::string_view key);

// The JVM's reply to "load": returns when the agent was loaded, else throws a Failure.
void CheckLoadReply(std::string_view reply, const std::string &jar);

} // namespace qorctl
