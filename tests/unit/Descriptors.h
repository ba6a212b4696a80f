// Looks at the process's own descriptors and memory.
#pragma once

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <dirent.h>
#include <fcntl.h>

inline int OpenDescriptors() {
    DIR *dir = opendir("/proc/self/fd");
    int count = 0;
    while (dir && readdir(dir))
        count++;
    if (dir)
        closedir(dir);
    return count;
}

inline bool IsCloseOnExec(int fd) {
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}

inline int64_t KilobytesOf(const char *key) {
    FILE *file = fopen("/proc/self/status", "re");
    char line[256];
    int64_t value = -1;
    while (fgets(line, sizeof line, file))
        if (strncmp(line, key, strlen(key)) == 0)
            value = atoll(line + strlen(key));
    fclose(file);
    return value;
}
