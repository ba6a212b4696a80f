#include "own_memory.h"

#include "linux.h"

#include <cerrno>
#include <sys/uio.h>
#include <unistd.h>

namespace {

// For sandboxes that forbid the system call.
bool ReadByFile(uint64_t address, void *out, size_t size) {
    int32_t fd = qor_open_read("/proc/self/mem");
    if (fd < 0)
        return false;
    const ssize_t length = pread(fd, out, size, static_cast<off_t>(address));
    qor_close_handle(&fd);
    return length == static_cast<ssize_t>(size);
}

} // namespace

bool QorReadOwnMemory(uint64_t address, void *out, size_t size) {
    iovec local = {out, size};
    iovec remote = {reinterpret_cast<void *>(address), size};
    const ssize_t length = process_vm_readv(getpid(), &local, 1, &remote, 1, 0);
    if (length < 0 && (errno == ENOSYS || errno == EPERM))
        return ReadByFile(address, out, size);
    return length == static_cast<ssize_t>(size);
}
