// The TCP ports at which this process itself listens.
#pragma once

#include <atomic>
#include <cstdint>

// The port of the relay, which is the agent's and not the application's; 0 for none. Set by Java before the
// start.
extern std::atomic<int32_t> relayPort;

// Writes those ports to `ports`, `size` of them at most, each once. `except` is left out. Returns how many
// there are. It reads the kernel's tables and the names of the process's descriptors; opens QorOpenProcNet's
// files no further. Worker, or the initialisation thread.
int32_t QorListeningPorts(uint16_t *ports, int32_t size, uint16_t except);

// The JVM's identifier becomes the process's one listening port. Nothing happens when it is known, when there
// is no such port, or more than one. JVMTI road: initialisation thread, and the worker before a dump, as a
// server that starts with the agent in it listens later.
void QorNameJvmByPort();
