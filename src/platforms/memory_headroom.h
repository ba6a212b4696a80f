// How much this process may still take before the system refuses or starts to kill.
#pragma once

#include <cstdint>

// Bytes: the least of what the machine has available and what each control group of the process still allows.
// UINT64_MAX when nothing is known.
uint64_t QorMemoryHeadroom();

// Threads and processes that its control groups still allow. UINT64_MAX when nothing is known.
uint64_t QorTaskHeadroom();

enum QorCgroupResource : int32_t { CGROUP_MEMORY, CGROUP_TASKS };

// What the control groups alone allow, of version 1 and 2. `membership` is a file in the form of
// /proc/self/cgroup, `root` the folder where the groups' files are.
uint64_t QorCgroupHeadroom(QorCgroupResource resource, const char *membership, const char *root);
