// Processor figures of the machine and of this process.
//
// The machine's come from /proc/stat, which stays open and is re-read from its start. The process's come from
// times(), except on Linux 2.4: there each thread is a separate process, and the figure is summed over a
// list of process ids that a shell pipeline prints.
//
// Called by the worker and by Java callers of getCpuData without a lock: two callers may disturb each other's
// last reading, which is accepted for a figure on a display. The process list alone is guarded, as a torn
// list would harm the host.
#pragma once

#include <cstdint>
#include <cstdio>

enum : int32_t {
    CPU_TEXT_SIZE = 256,
};

// Modes of qorsysinfo and QorGetCpuLoad.
enum QorCpuMode : int32_t {
    CPU_INITIALISE = 0,
    CPU_MACHINE_LOAD = 1,    // percent since the last reading of mode 1 or 2
    CPU_MACHINE_COUNTER = 2, // ticks per processor since boot
    CPU_PROCESS_COUNTER = 3, // ticks per processor since the process started
    CPU_PROCESS_LOAD = 4,    // percent since the last reading of mode 4
};

extern int32_t Pthread_NPTL; // 1: a thread's system id comes from gettid, 0: from getpid
extern int32_t ncpu;         // processors, at least 1
extern int32_t p_pid;        // system thread id of the caller of init_cpu

extern int32_t cpu_stat_fd; // /proc/stat; 0 before the first initialisation, -1 when it can't be opened
extern char get_cpu_util[CPU_TEXT_SIZE]; // the last reading of /proc/stat

// The last machine reading: user and system ticks, time of day in seconds and hundredths. Written by modes 1
// and 2.
extern int64_t last_cpu_usr, last_cpu_sys, last_snap_time_hi, last_snap_time_lo;
// The last process reading. Mode 4 writes it.
extern int64_t last_process_user_time, last_process_sys_time;
extern int64_t last_process_snap_time_hi, last_process_snap_time_lo;

// Finds out the thread library and the processors. Start-up, before anything asks for a thread id.
void init_cpu();

// Processors of the machine, at least 1.
int32_t getCpuCount();
// The count in a text of /proc/stat's form.
int32_t QorCountCpuLines(FILE *stat);

// One figure, by mode; 0 when it is unavailable. Mode 0 opens the files and returns 0, and may be repeated.
int64_t qorsysinfo(int32_t mode);

// The same figures by the source that suits the JVM: /proc, or its management extension on a Nimb JVM, which
// has only loads.
int64_t QorGetCpuLoad(int32_t mode);
int32_t QorGetSystemCpuLoad();
int32_t QorGetProcessCpuLoad();

// Reads attribute `key` of the JVM's management extension as a double: true, or false without touching
// *value. The owner of the extension's table sets it when it has got the table; null while there is none.
typedef bool (*QorExtendedAttributeReader)(int32_t key, double *value);
extern QorExtendedAttributeReader qorReadExtendedAttribute;

// Voluntary and involuntary context switches of the process. 0, or -1 with *count all ones.
int32_t QorGetProcessContextSwitch(uint32_t *count);

// Not available on this platform: 0, and 0 in *count.
int64_t QorGetOpenFileDescriptorInProcess();
int32_t QorGetTotalReadCharPerThread(int32_t threadId, int64_t *count);
int32_t QorGetTotalWriteCharPerThread(int32_t threadId, int64_t *count);

// Moves the cursor from the word (or blanks) it is on to the next word separated by blanks, copies that
// into `size` bytes, cut where it is longer, and returns `out`; "" when there is no further word.
char *next_word(const char **cursor, char *out, int32_t size);
