// Looks at the process's own descriptors.
#pragma once

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
