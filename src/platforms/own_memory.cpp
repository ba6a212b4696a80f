#include "own_memory.h"

#include "linux.h"

#include <atomic>
#include <cerrno>
#include <sys/syscall.h>
#include <sys/uio.h>
#include <unistd.h>

namespace {

constexpr char MEMORY_FILE[] = "/proc/self/mem";

// The memory file, kept open between reads. Whoever has set `busy` may use the rest.
std::atomic_flag busy = ATOMIC_FLAG_INIT;
int32_t kept = -1;
pid_t keeper; // the process whose memory it shows: a copy of it needs another one
QorKeptFile made;

// getpid() of an old C library answers a copy of the process with the original's number.
pid_t OwnId() {
    return static_cast<pid_t>(syscall(SYS_getpid));
}

bool IsKeptFile() {
    return kept >= 0 && keeper == OwnId() && QorIsFile(kept, made);
}

bool OpenKeptFile() {
    keeper = OwnId();
    kept = qor_open_read(MEMORY_FILE);
    if (kept >= 0 && !QorNoteFile(kept, &made))
        qor_close_handle(&kept);
    return kept >= 0;
}

bool ReadFrom(int32_t fd, uint64_t address, void *out, size_t size) {
    return fd >= 0 && pread(fd, out, size, static_cast<off_t>(address)) == static_cast<ssize_t>(size);
}

// For sandboxes that forbid the system call.
bool ReadByFile(uint64_t address, void *out, size_t size) {
    bool read;
    if (!busy.test_and_set(std::memory_order_acquire)) {
        read = (IsKeptFile() || OpenKeptFile()) && ReadFrom(kept, address, out, size);
        busy.clear(std::memory_order_release);
        return read;
    }
    int32_t fd = qor_open_read(MEMORY_FILE);
    read = ReadFrom(fd, address, out, size);
    qor_close_handle(&fd);
    return read;
}

} // namespace

bool QorReadOwnMemory(uint64_t address, void *out, size_t size) {
    iovec local = {out, size};
    iovec remote = {reinterpret_cast<void *>(address), size};
    const ssize_t length = process_vm_readv(OwnId(), &local, 1, &remote, 1, 0);
    if (length < 0 && (errno == ENOSYS || errno == EPERM))
        return ReadByFile(address, out, size);
    return length == static_cast<ssize_t>(size);
}

int32_t QorKeepOwnMemory() {
    busy.clear();
    kept = -1; // the number is the original's file
    return OpenKeptFile() ? kept : -1;
}
