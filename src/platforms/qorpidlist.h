// The processes that make up this JVM on Linux 2.4, where each thread is a separate process.
//
// The first two are found by walking up from this process: the thread library's manager and the JVM's first
// process, all named "java". The others come from a shell pipeline over ps. Each has its /proc/PID/stat open.
//
// Start-up begins the list. Afterwards any caller of the processor figures reads it; of two at once, the
// second gets what the last reading gave, as a torn list would harm the host.
#pragma once

#include <cstdint>

enum : int32_t {
    MAX_CPU_PIDS = 2000,
    CPU_COMMAND_SIZE = 256,
};

struct QorCpuNode {
    int32_t pid;
    int32_t fd; // its /proc/PID/stat
    QorCpuNode *prev, *next;
};

extern int32_t Linux_Kernel_2_4;           // 1 on Linux 2.4 with a process tree as expected
extern char cpu_cmd_str[CPU_COMMAND_SIZE]; // shell command that lists the JVM's threads

extern QorCpuNode cpu_list_base[MAX_CPU_PIDS];              // all nodes
extern QorCpuNode *cpu_list_start, *cpu_list_end;           // those in use, in order
extern QorCpuNode *cpu_free_list_start, *cpu_free_list_end; // the others; the last one is never taken

// Drops the list and begins it anew where `os_name` says Linux 2.4. Clears Linux_Kernel_2_4 elsewhere,
// and where the process tree is not as expected.
void QorStartPidList();

// Brings the list up to date and sums the user and the system ticks of its processes.
void QorReadPidListTicks(int64_t *user, int64_t *system);

// Starts to track a process: 1, or 0 when its file can't be opened or the nodes are used up.
int32_t add_pid(int32_t pid);

// Stops tracking it.
void delete_cpu_node(QorCpuNode *node);
