// The port by which the JVM is known: that of its application server, or the only one that it listens at.
#pragma once

#include <atomic>
#include <cstdint>

// The port of the relay, which is the agent's and not the application's; 0 for none. Set by Java before the
// start.
extern std::atomic<int32_t> relayPort;

// On the JVMTI road: the identifier becomes the process's one listening TCP port. Nothing happens when it is
// known, when there is no such port, or more than one. Initialisation thread, and the worker before a dump: a
// server that starts with the agent in it listens later.
void QorNameJvmByPort();

// On the direct road: finds the port in the objects of the server that `webserver` names, and makes it the
// identifier. A server that is still starting is waited for, up to a minute in all and `qormaxbackoff`
// seconds at a time; a SHUTDOWN ends that. Nothing found changes nothing; what was missing is logged.
// Initialisation thread, once the readers are ready; the references of the caller's frame must be alive.
void QorIdentifyServer();

// 1 while QorIdentifyServer waits: callers are kept out then, but for a SHUTDOWN.
extern std::atomic<int32_t> serverAwaited;
