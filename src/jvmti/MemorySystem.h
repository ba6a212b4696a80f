// Heap sizes by the JVM library's own entry points, and figures of its extended management table.
//
// Any thread, once the session is open; the extended table is asked with the session's environment and so
// belongs to the worker.
#pragma once

#include <cstdint>

// Bytes; 1 when the JVM has no such entry point. The greatest size is read once and kept.
uint64_t QorGetTotalMemory();
uint64_t QorGetFreeMemory();
uint64_t QorGetMaxMemory();

// Reads an attribute of the extended management table; false, with *value as it was, when there is no table.
bool QorReadExtendedAttribute(int32_t key, double *value);
