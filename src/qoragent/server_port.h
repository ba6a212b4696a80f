// The port by which the JVM is known when Java gave it no name.
#pragma once

#include <atomic>
#include <cstdint>

// The port of the relay that belongs to the agent and not to the application; 0 for none. Set by Java before
// the start.
extern std::atomic<int32_t> relayPort;

// On the JVMTI road: the identifier becomes the process's one listening TCP port. Nothing happens when it is
// known, when there is no such port, or more than one. Initialisation thread, and the worker before a dump: a
// server that starts with the agent in it listens later.
void QorNameJvmByPort();
