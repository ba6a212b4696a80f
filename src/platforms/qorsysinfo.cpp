#include "qorsysinfo.h"

#include "linux.h"
#include "qorlog.h"
#include "qorpidlist.h"
#include "qorsettings.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <sys/resource.h>
#include <sys/time.h>
#include <sys/times.h>
#include <unistd.h>

int32_t Pthread_NPTL;
int32_t ncpu = 1;
int32_t p_pid;
int32_t cpu_stat_fd;
char get_cpu_util[CPU_TEXT_SIZE];
int64_t last_cpu_usr, last_cpu_sys, last_snap_time_hi, last_snap_time_lo;
int64_t last_process_user_time, last_process_sys_time;
int64_t last_process_snap_time_hi, last_process_snap_time_lo;
QorExtendedAttributeReader qorReadExtendedAttribute;

namespace {

constexpr char STAT_FILE[] = "/proc/stat";
constexpr int64_t PERCENT = 100;
constexpr int64_t HUNDREDTHS = 100; // of a second; also the kernel's ticks in one
constexpr int32_t CPU_LOAD_KEY = 401;
constexpr size_t NPTL_TEXT_SIZE = 12;
constexpr int32_t NUMBER_SIZE = 24;

struct tms qor_tms; // the last answer of times

struct Moment {
    int64_t seconds, hundredths;
};

Moment Now() {
    timeval now;
    gettimeofday(&now, nullptr);
    return {now.tv_sec, now.tv_usec / 10000};
}

// Percent of the machine that `ticks` are since the last reading; 0 when no time has passed, or when a clock
// or a counter went back.
int64_t Load(int64_t ticks, const Moment &now, int64_t lastSeconds, int64_t lastHundredths) {
    const int64_t elapsed = now.hundredths - lastHundredths + HUNDREDTHS * (now.seconds - lastSeconds);
    return elapsed > 0 && ticks > 0 ? ticks * PERCENT / (ncpu * elapsed) : 0;
}

void OpenMachineFigures() {
    static QorKeptFile opened;
    if (cpu_stat_fd <= 0 || !QorIsFile(cpu_stat_fd, opened)) { // else an earlier start's serves this one too
        cpu_stat_fd = qor_open_read(STAT_FILE);
        QorNoteFile(cpu_stat_fd, &opened);
    }
    if (cpu_stat_fd < 0)
        perror("QOR Agent: CPU Utilization disabled:");
    QORLOG(LOG_DETAIL, "OS Version is %s", os_name);
}

// The machine's user and system ticks. False when they are unavailable; a failed read leaves the old ones.
bool ReadMachineTicks(int64_t *user, int64_t *system) {
    if (cpu_stat_fd == 0) {
        QORLOG(LOG_ERROR, "QOR Agent Error 4001-3:");
        return false; // 0 is the host's standard input
    }
    const ssize_t length = pread(cpu_stat_fd, get_cpu_util, sizeof get_cpu_util - 1, 0);
    if (length > 0)
        get_cpu_util[length] = 0;
    if (length == 0)
        QORLOG(LOG_ERROR, "QOR Agent Error 4001-2:");
    if (strncmp(get_cpu_util, "cpu ", 4) != 0) {
        QORLOG(LOG_ERROR, "QOR Agent Error 4001:");
        return false;
    }
    const char *cursor = get_cpu_util;
    char number[NUMBER_SIZE];
    *user = strtoll(next_word(&cursor, number, sizeof number), nullptr, 10);
    next_word(&cursor, number, sizeof number); // low-priority user time is not counted
    *system = strtoll(next_word(&cursor, number, sizeof number), nullptr, 10);
    return true;
}

int64_t MachineFigure(int32_t mode) {
    const Moment now = Now();
    int64_t user, system;
    if (!ReadMachineTicks(&user, &system))
        return 0;
    const int64_t result = mode == CPU_MACHINE_COUNTER ? (user + system) / ncpu
                                                       : Load(user + system - last_cpu_usr - last_cpu_sys,
                                                              now, last_snap_time_hi, last_snap_time_lo);
    last_cpu_usr = user;
    last_cpu_sys = system;
    last_snap_time_hi = now.seconds;
    last_snap_time_lo = now.hundredths;
    return result;
}

bool ReadProcessTicks(int64_t *user, int64_t *system) {
    if (Linux_Kernel_2_4) {
        QorReadPidListTicks(user, system);
        return true;
    }
    struct tms answer;
    if (times(&answer) == static_cast<clock_t>(-1))
        return false;
    qor_tms = answer;
    *user = answer.tms_utime + answer.tms_cutime;
    *system = answer.tms_stime + answer.tms_cstime;
    return true;
}

int64_t ProcessFigure(int32_t mode) {
    const Moment now = Now();
    int64_t user, system;
    if (!ReadProcessTicks(&user, &system))
        return 0;
    if (mode == CPU_PROCESS_COUNTER)
        return (user + system) / ncpu;
    const int64_t result = Load(user + system - last_process_user_time - last_process_sys_time, now,
                                last_process_snap_time_hi, last_process_snap_time_lo);
    last_process_user_time = user;
    last_process_sys_time = system;
    last_process_snap_time_hi = now.seconds;
    last_process_snap_time_lo = now.hundredths;
    return result;
}

// A share between 0 and 1 as percent, 0 when the JVM doesn't know it.
int32_t ExtendedLoad(const char *withoutTable) {
    if (!qorReadExtendedAttribute) {
        QORLOG(LOG_TRACE, "%s", withoutTable);
        return 0;
    }
    double share = 0;
    if (!qorReadExtendedAttribute(CPU_LOAD_KEY, &share))
        return 0;
    const double percent = share * PERCENT;
    return percent >= 0 && percent < INT32_MAX ? static_cast<int32_t>(percent) : 0;
}

} // namespace

void init_cpu() {
    char library[NPTL_TEXT_SIZE] = "";
    errno = 0;
    if (confstr(_CS_GNU_LIBPTHREAD_VERSION, library, sizeof library) == 0 && errno == EINVAL &&
        qorloglevel > LOG_POLL_FAILURE)
        perror("QOR Agent: Invalid Args while getting NPTL value :");
    Pthread_NPTL = strncmp(library, "NPTL", 4) == 0;
    if (Pthread_NPTL)
        QORLOG(LOG_DETAIL, "NPTL string is %s ", library);
    else
        QORLOG(LOG_ERROR, "NPTL is not supported ");
    ncpu = getCpuCount();
    QORLOG(LOG_DETAIL, "Number of CPUs %d ", ncpu);
    p_pid = qor_current_thread_id();
    QORLOG(LOG_DETAIL, "Parent's PID is %d", p_pid);
}

int32_t QorCountCpuLines(FILE *stat) {
    char piece[CPU_TEXT_SIZE];
    int32_t lines = 0;
    bool atLineStart = true;
    while (fgets(piece, sizeof piece, stat)) {
        if (atLineStart && strncmp(piece, "cpu", 3) == 0)
            lines++;
        atLineStart = strchr(piece, '\n') != nullptr;
    }
    return lines > 1 ? lines - 1 : 1; // the first line is the machine's total
}

int32_t getCpuCount() {
    FILE *stat = fopen(STAT_FILE, "re");
    if (!stat) {
        QORLOG(LOG_ERROR, "Not able to open the file /proc/stat, default setting cup count to 1");
        return 1;
    }
    const int32_t count = QorCountCpuLines(stat);
    fclose(stat);
    return count;
}

int64_t qorsysinfo(int32_t mode) {
    switch (mode) {
    case CPU_INITIALISE:
        OpenMachineFigures();
        QorStartPidList();
        return 0;
    case CPU_MACHINE_LOAD:
    case CPU_MACHINE_COUNTER:
        return MachineFigure(mode);
    case CPU_PROCESS_COUNTER:
    case CPU_PROCESS_LOAD:
        return ProcessFigure(mode);
    default:
        return 0;
    }
}

int64_t QorGetCpuLoad(int32_t mode) {
    if (!gbNimbJvm)
        return qorsysinfo(mode);
    return mode == CPU_MACHINE_LOAD || mode == CPU_MACHINE_COUNTER ? QorGetSystemCpuLoad()
                                                                   : QorGetProcessCpuLoad();
}

int32_t QorGetSystemCpuLoad() {
    return ExtendedLoad(" QOR Agent : QorGetSystemCpuLoad - jmm_ext NULL \n");
}

int32_t QorGetProcessCpuLoad() {
    return ExtendedLoad("QOR Agent : QorGetProcessCpuLoad - jmm_ext NULL \n");
}

int32_t QorGetProcessContextSwitch(uint32_t *count) {
    struct rusage usage;
    if (getrusage(RUSAGE_SELF, &usage) != 0) {
        *count = UINT32_MAX;
        return -1;
    }
    *count = static_cast<uint32_t>(usage.ru_nvcsw + usage.ru_nivcsw);
    return 0;
}

int64_t QorGetOpenFileDescriptorInProcess() {
    return 0;
}

int32_t QorGetTotalReadCharPerThread(int32_t, int64_t *count) {
    *count = 0;
    return 0;
}

int32_t QorGetTotalWriteCharPerThread(int32_t, int64_t *count) {
    *count = 0;
    return 0;
}

char *next_word(const char **cursor, char *out, int32_t size) {
    const char *word = *cursor + strcspn(*cursor, " ");
    word += strspn(word, " ");
    const size_t length = strcspn(word, " ");
    snprintf(out, static_cast<size_t>(size), "%.*s", static_cast<int>(length), word);
    *cursor = word;
    return out;
}
