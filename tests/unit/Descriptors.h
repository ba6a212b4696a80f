// Looks at the process's own descriptors.
#pragma once

#include <fcntl.h>
#include <filesystem>

inline int OpenDescriptors() {
    return static_cast<int>(std::distance(std::filesystem::directory_iterator("/proc/self/fd"), {}));
}

inline bool IsCloseOnExec(int fd) {
    return (fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0;
}
