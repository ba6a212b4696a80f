#include "qorpidlist.h"

#include "linux.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorsettings.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <pthread.h>
#include <unistd.h>

int32_t Linux_Kernel_2_4;
char cpu_cmd_str[CPU_COMMAND_SIZE];
QorCpuNode cpu_list_base[MAX_CPU_PIDS];
QorCpuNode *cpu_list_start, *cpu_list_end;
QorCpuNode *cpu_free_list_start, *cpu_free_list_end;

namespace {

constexpr char KERNEL_2_4[] = "Linux-2.4.";
constexpr char JVM_PROCESS[] = "java";
constexpr char NO_COUNTERS[] = "Qor Agent :: Error could not open process's CPU Counters";
constexpr int32_t TREE_STEPS = 64;  // far above any real tree: process ids may be reused while we walk
constexpr int32_t TREE_NODES = 2;   // the manager and the first process
constexpr int32_t NAME_LIMIT = 256; // of a command name
constexpr int32_t STAT_SIZE = 2048; // of a line of /proc/PID/stat
constexpr int32_t TREE_STAT_SIZE = 1024;
constexpr int32_t LINE_SIZE = 2048;     // of the pipeline's output
constexpr int32_t BLANKS_TO_TICKS = 12; // from the command name to the user ticks

pthread_mutex_t pid_list_guard = PTHREAD_MUTEX_INITIALIZER;
int64_t last_user, last_system;    // sums of the last reading
int32_t listed_pids[MAX_CPU_PIDS]; // what the pipeline gave; too much for a Java thread's stack

int32_t OpenProcessFile(int32_t pid) {
    char path[80];
    snprintf(path, sizeof path, "/proc/%d/stat", pid);
    return qor_open_read(path);
}

// Reads a file of /proc from its start. False for a process that is gone.
bool ReadFromStart(int32_t fd, char *text, int32_t size) {
    const ssize_t length = pread(fd, text, static_cast<size_t>(size) - 1, 0);
    text[length > 0 ? length : 0] = 0;
    return length > 0;
}

void BuildFreeList() {
    for (int32_t i = 0; i < MAX_CPU_PIDS; i++)
        cpu_list_base[i] = {0, -1, nullptr, i + 1 < MAX_CPU_PIDS ? &cpu_list_base[i + 1] : nullptr};
    cpu_free_list_start = &cpu_list_base[0];
    cpu_free_list_end = &cpu_list_base[MAX_CPU_PIDS - 1];
    cpu_list_start = cpu_list_end = nullptr;
}

// Appends a node that owns `fd`. False when there is none left; the caller keeps the descriptor then.
bool AppendNode(int32_t pid, int32_t fd) {
    if (cpu_free_list_start == cpu_free_list_end)
        return false;
    QorCpuNode *node = cpu_free_list_start;
    cpu_free_list_start = node->next;
    *node = {pid, fd, cpu_list_end, nullptr};
    if (cpu_list_end)
        cpu_list_end->next = node;
    else
        cpu_list_start = node;
    cpu_list_end = node;
    return true;
}

void DropAllNodes() {
    while (cpu_list_start)
        delete_cpu_node(cpu_list_start);
}

struct ProcessFacts {
    int32_t pid, parent;
    char name[NAME_LIMIT];
};

// Takes a line of /proc/PID/stat apart. The name may itself hold blanks and brackets: it ends at the last
// one.
bool ParseProcess(const char *line, ProcessFacts *facts) {
    const char *open = strchr(line, '('), *close = strrchr(line, ')');
    if (!open || !close || close < open)
        return false;
    facts->pid = static_cast<int32_t>(strtol(line, nullptr, 10));
    snprintf(facts->name, sizeof facts->name, "%.*s", static_cast<int>(close - open - 1), open + 1);
    char state;
    int parent;
    if (sscanf(close + 1, " %c %d", &state, &parent) != 2)
        return false;
    facts->parent = parent;
    return true;
}

bool ReadProcess(int32_t pid, ProcessFacts *facts) {
    int32_t fd = OpenProcessFile(pid);
    if (fd < 0) {
        perror(NO_COUNTERS);
        return false;
    }
    char line[TREE_STAT_SIZE];
    const bool read = ReadFromStart(fd, line, sizeof line);
    qor_close_handle(&fd);
    return read && ParseProcess(line, facts);
}

bool AppendTreeNode(int32_t pid) {
    const int32_t fd = OpenProcessFile(pid);
    if (fd < 0) {
        perror(NO_COUNTERS);
        return false;
    }
    return AppendNode(pid, fd);
}

// Walks up the process tree as long as it is the JVM's. The number of nodes found.
int32_t FollowProcessTree() {
    int32_t found = 0, pid = getpid();
    for (int32_t step = 0; step < TREE_STEPS && pid > 0; step++) {
        ProcessFacts facts;
        if (!ReadProcess(pid, &facts))
            break;
        QORLOG(LOG_TRACE, "initvar : Found (%s) pid %d, ppid %d", facts.name, facts.pid, facts.parent);
        if (strcmp(facts.name, JVM_PROCESS) != 0) {
            if (step == 1) // the kernel has newer threads than its version says
                perror("Qor Agent :: Patched Kernel found");
            break;
        }
        if (step > 0 && found < TREE_NODES) {
            if (!AppendTreeNode(facts.pid))
                break;
            found++;
        }
        pid = facts.parent;
    }
    return found;
}

// Whether a user name may be in a shell command and isn't an option of ps.
bool IsPlainUserName(const char *name) {
    constexpr char ALLOWED[] = "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789._-";
    return name && name[0] && name[0] != '-' && name[strspn(name, ALLOWED)] == 0;
}

void BuildCommand(int32_t first, int32_t second) {
    const char *logname = getenv("LOGNAME");
    if (IsPlainUserName(logname)) {
        const int length = snprintf(cpu_cmd_str, sizeof cpu_cmd_str,
                                    "ps -fu %s | while read i j k l; do echo $j $k; done | grep %d | "
                                    "grep -v %d | cut -d' ' -f1",
                                    logname, first, second);
        if (length < CPU_COMMAND_SIZE) // a command cut in the middle must not run
            return;
    }
    snprintf(cpu_cmd_str, sizeof cpu_cmd_str,
             "ps -fe | while read i j k l; do echo $j $k; done | grep %d | grep -v %d | cut -d' ' -f1", first,
             second);
}

// Runs the pipeline: the number of process ids read, -1 when it can't be started.
int32_t ListProcesses() {
    FILE *lines = popen(cpu_cmd_str, "re");
    if (!lines)
        return -1;
    char line[LINE_SIZE];
    int32_t count = 0;
    while (fgets(line, sizeof line, lines)) {
        const long pid = strtol(line, nullptr, 10);
        if (pid <= 0 || pid > INT32_MAX)
            continue;
        if (count == MAX_CPU_PIDS) {
            QORLOG(LOG_TRACE, "Qor Agent : Pids exceeded the cpu pid list ");
            break;
        }
        listed_pids[count++] = static_cast<int32_t>(pid);
    }
    pclose(lines);
    return count;
}

bool IsTracked(int32_t pid) {
    for (const QorCpuNode *node = cpu_list_start; node; node = node->next)
        if (node->pid == pid)
            return true;
    return false;
}

bool IsListed(int32_t count, int32_t pid) {
    for (int32_t i = 0; i < count; i++)
        if (listed_pids[i] == pid)
            return true;
    return false;
}

// Adds the processes that have come and deletes those that have gone; the first two always stay.
void UpdateList() {
    const int32_t count = ListProcesses();
    if (count < 0) {
        perror("Qor Agent Error CPU Stats - 3");
        return;
    }
    for (int32_t i = 0; i < count; i++)
        if (!IsTracked(listed_pids[i]))
            add_pid(listed_pids[i]);
    QorCpuNode *node = cpu_list_start;
    for (int32_t i = 0; node; i++) {
        QorCpuNode *next = node->next;
        if (i >= TREE_NODES && !IsListed(count, node->pid))
            delete_cpu_node(node);
        node = next;
    }
}

// The user and the system ticks in a line of /proc/PID/stat.
void ParseTicks(const char *line, int64_t *user, int64_t *system) {
    const char *p = strrchr(line, ')');
    for (int32_t i = 0; p && i < BLANKS_TO_TICKS; i++) {
        p = strchr(p, ' ');
        if (p)
            p++;
    }
    if (!p)
        return;
    char *rest;
    *user += strtoll(p, &rest, 10);
    *system += strtoll(rest, nullptr, 10);
}

void SumTicks() {
    last_user = last_system = 0;
    for (QorCpuNode *node = cpu_list_start; node;) {
        QorCpuNode *next = node->next;
        char line[STAT_SIZE];
        if (ReadFromStart(node->fd, line, sizeof line))
            ParseTicks(line, &last_user, &last_system);
        else
            delete_cpu_node(node);
        node = next;
    }
}

void BeginList() {
    Linux_Kernel_2_4 = 1;
    QORLOG(LOG_TRACE, "Qor Agent : Detected Linux 2.4 Kernel : %s", os_name);
    if (FollowProcessTree() < TREE_NODES) {
        DropAllNodes();
        Linux_Kernel_2_4 = 0;
        return;
    }
    BuildCommand(cpu_list_start->pid, cpu_list_start->next->pid);
    QORLOG(LOG_TRACE, "Qor Agent : Executing cmd :: %s", cpu_cmd_str);
    const int32_t count = ListProcesses();
    if (count < 0)
        QORLOG(LOG_ERROR, "Qor Agent Error Initialising CPU Stats - 2");
    for (int32_t i = 0; i < count; i++)
        add_pid(listed_pids[i]);
}

} // namespace

void QorStartPidList() {
    pthread_mutex_lock(&pid_list_guard);
    DropAllNodes();
    BuildFreeList();
    Linux_Kernel_2_4 = 0;
    cpu_cmd_str[0] = 0;
    if (strncmp(os_name, KERNEL_2_4, sizeof KERNEL_2_4 - 1) == 0)
        BeginList();
    pthread_mutex_unlock(&pid_list_guard);
}

void QorReadPidListTicks(int64_t *user, int64_t *system) {
    if (pthread_mutex_trylock(&pid_list_guard) == 0) {
        UpdateList();
        SumTicks();
        pthread_mutex_unlock(&pid_list_guard);
    }
    *user = last_user;
    *system = last_system;
}

int32_t add_pid(int32_t pid) {
    int32_t fd = OpenProcessFile(pid);
    if (fd < 0) {
        qor_perror("Qor Agent : CPU Stat internal error code %d :", pid);
        return 0;
    }
    if (AppendNode(pid, fd))
        return 1;
    QORLOG(LOG_TRACE, "Qor Agent :: CPU Stat internal error, exhausted free list.");
    qor_close_handle(&fd);
    return 0;
}

void delete_cpu_node(QorCpuNode *node) {
    QORLOG(LOG_TRACE, "Qor Agent :: Deleting node from the list %d.", node->pid);
    qor_close_handle(&node->fd);
    if (node->prev)
        node->prev->next = node->next;
    else
        cpu_list_start = node->next;
    if (node->next)
        node->next->prev = node->prev;
    else
        cpu_list_end = node->prev;
    node->prev = node->next = nullptr;
    cpu_free_list_end->next = node;
    cpu_free_list_end = node;
}
