// How much memory this process may still take before the system starts to kill.
#pragma once

#include <cstdint>

// Bytes: the least of what the machine has available and what each control group of the process still allows.
// UINT64_MAX when nothing is known.
uint64_t QorMemoryHeadroom();

// The same for the control groups alone, of version 1 and 2. `membership` is a file in the form of
// /proc/self/cgroup, `root` the folder where the groups' files are.
uint64_t QorCgroupHeadroom(const char *membership, const char *root);
