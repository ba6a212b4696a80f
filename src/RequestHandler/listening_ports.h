// The TCP port at which this process listens, by the kernel's tables and its own descriptors' names.
#pragma once

#include <atomic>
#include <cstdint>

// The port of the relay, which is the agent's and not the application's; 0 for none. Set by Java before the
// start.
extern std::atomic<int32_t> relayPort;

// The JVM's identifier becomes the process's one listening port. Nothing happens when it is known, when there
// is no such port, or more than one. JVMTI road: initialisation thread, and the worker before a dump, as a
// server that starts with the agent in it listens later.
void QorNameJvmByPort();
