#include "task_stat.h"

#include "platforms/linux.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <sys/syscall.h>
#include <unistd.h>

namespace {

// The line's fields, counted from 1. The second is a name in parentheses, which may hold any character.
enum { FIELD_STATE = 3, FIELD_START = 22, FIELD_PENDING = 31 };

bool ReadStat(int32_t id, char *line, size_t size) {
    char path[64];
    snprintf(path, sizeof path, "/proc/self/task/%d/stat", id);
    int32_t fd = qor_open_read(path);
    if (fd < 0)
        return false;
    const ssize_t length = qor_read_file(fd, line, size - 1);
    qor_close_handle(&fd);
    line[length > 0 ? length : 0] = 0;
    return length > 0;
}

bool ParseStat(const char *line, QorTaskStat *out) {
    const char *at = strrchr(line, ')');
    for (int field = FIELD_STATE; at && field <= FIELD_PENDING; field++) {
        at = strchr(at + 1, ' ');
        if (at && field == FIELD_START)
            out->start = strtoull(at, nullptr, 10);
        if (at && field == FIELD_PENDING)
            out->pending = strtoull(at, nullptr, 10);
    }
    return at;
}

} // namespace

TaskLook QorLookAtTask(int32_t id, QorTaskStat *out) {
    char line[1024];
    if (ReadStat(id, line, sizeof line) && ParseStat(line, out))
        return TASK_SEEN;
    return syscall(SYS_tgkill, getpid(), id, 0) != 0 && errno == ESRCH ? TASK_GONE : TASK_UNKNOWN;
}
