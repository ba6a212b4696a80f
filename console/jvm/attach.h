// Loading the agent into a running JVM.
//
// HotSpot's attach protocol, as JDK 8 to 25 speak it: a file .attach_pidN in the JVM's working directory or
// /tmp and a SIGQUIT make the JVM open a socket .java_pidN in /tmp; one request of NUL-ended texts goes in
// ("1", "load", "instrument", "false", "JAR=OPTIONS"), one text comes back and the JVM hangs up. The JVM
// trusts files and peers of its own user alone (newer ones trust root as well), so root takes that user's
// identity for the exchange.
//
// A SIGQUIT ends a process that doesn't expect it, and a JVM that won't open the socket answers it with a
// thread dump on its standard output. It is sent only to a process that maps HotSpot's library, catches the
// signal and hasn't switched attaching off.
#pragma once

#include "base/process.h"

#include <chrono>
#include <string>
#include <string_view>

namespace qorctl {

// Loads the jar into the process and waits until its agentmain has returned. `jar` is an absolute path as the
// JVM sees it; when it sees no such file that its user can read, ours of that path is brought to it for the
// time of the call. Throws a Failure that says why the JVM refused, or why there is no place for the jar.
void LoadAgent(const Process &process, const std::string &jar, const std::string &options,
               std::chrono::seconds limit);

// The agent's own word on how it fares, from the JVM's system properties: "running", "running in DIRECTORY"
// when its endpoint isn't in the usual one, "stopped", "failed: why"; empty when it has said nothing or can't
// be asked. No signal is sent for it: a JVM that nobody has attached to isn't asked.
std::string AgentStatus(const Process &process, std::chrono::seconds limit);

// A value of a properties text, its escapes undone; empty when the key isn't there.
std::string PropertyValue(std::string_view text, std::string_view key);

// The JVM's reply to "load": returns when the agent was loaded, else throws a Failure.
void CheckLoadReply(std::string_view reply, const std::string &jar);

// Where the agent's jar is: the path given, $QORAGENT_JAR, or beside this program. Throws a Failure.
std::string FindJar(const std::string &given);

// Whether the JVM's attach listener is there or can be called by a signal.
bool ListensForAttach(const Process &process);

// Throws a Failure when the process is stopped, by a signal or a debugger.
void CheckRuns(const Process &process);

// Throws a Failure unless we run as the process's user or as root.
void CheckUser(const Process &process);

} // namespace qorctl
