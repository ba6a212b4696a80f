// Heap sizes by the JVM library's own entry points, and CPU load by its extended management table.
//
// Any thread, once the session is open; the CPU loads use the session's environment and belong to the worker.
#pragma once

#include <cstdint>

// Bytes; 1 when the JVM has no such entry point. The greatest size is read once and kept.
uint64_t QorGetTotalMemory();
uint64_t QorGetFreeMemory();
uint64_t QorGetMaxMemory();

// Load in percent, cut to an integer; 0 where the JVM has no extended table. Both read the same figure.
int64_t QorGetSystemCpuLoad();
int64_t QorGetProcessCpuLoad();
