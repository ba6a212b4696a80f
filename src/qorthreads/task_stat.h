// A thread of this process as /proc shows it: whether it is the one that was asked for, and whether the
// signal that holds threads is still on its way to it.
#pragma once

#include <cstdint>

struct QorTaskStat {
    uint64_t start;   // the kernel's ticks since boot
    uint64_t pending; // signals sent to this thread and not yet taken, signal N as bit N - 1; 1 to 31 only
};

enum TaskLook { TASK_SEEN, TASK_GONE, TASK_UNKNOWN };

// Looks at the thread of this process with that kernel id. TASK_UNKNOWN where /proc doesn't show it though it
// is there. Opens a descriptor for a moment and doesn't allocate. Any thread.
TaskLook QorLookAtTask(int32_t id, QorTaskStat *out);
