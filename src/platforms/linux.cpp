#include "linux.h"

#include "../qorStrUtils.h"
#include "../qorlog.h"
#include "../qorsettings.h"
#include "qorsysinfo.h"

#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <unistd.h>

namespace {

constexpr int FIRST_OWN_DESCRIPTOR = 3;
constexpr int64_t MSEC_PER_SEC = 1000;
constexpr int64_t LONGEST_WAIT_MSEC = INT32_MAX; // what poll can be told
constexpr time_t SOCKET_LIMIT_SEC = 5;
constexpr size_t ERROR_TEXT_SIZE = 256;

// Moves a descriptor out of the standard streams' places. -1, with errno set, stays -1.
int32_t AboveStandardStreams(int32_t fd) {
    if (fd < 0 || fd >= FIRST_OWN_DESCRIPTOR)
        return fd;
    const int32_t moved = fcntl(fd, F_DUPFD_CLOEXEC, FIRST_OWN_DESCRIPTOR);
    const int reason = errno;
    close(fd);
    errno = reason;
    return moved;
}

int64_t MonotonicMsec() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * MSEC_PER_SEC + now.tv_nsec / 1000000;
}

// poll for input that signals (a profiler's, most of all) cannot cut short.
int PollForInput(int32_t fd, int64_t msec) {
    pollfd wanted = {fd, POLLIN, 0};
    const int64_t end = MonotonicMsec() + msec;
    for (;;) {
        const int ready = poll(&wanted, 1, static_cast<int>(msec));
        if (ready >= 0 || errno != EINTR)
            return ready;
        msec = end - MonotonicMsec();
        if (msec < 0)
            msec = 0;
    }
}

// A regular file or a FIFO of the process's own user.
bool IsOwnFile(const struct stat &file) {
    return (S_ISREG(file.st_mode) || S_ISFIFO(file.st_mode)) && file.st_uid == geteuid();
}

} // namespace

int32_t qor_current_thread_id() {
    return Pthread_NPTL ? static_cast<int32_t>(syscall(SYS_gettid)) : getpid();
}

void qor_perror(const char *format, ...) {
    char errstr[ERROR_TEXT_SIZE];
    const int reason = errno;
    va_list args;
    va_start(args, format);
    vsnprintf(errstr, sizeof errstr, format, args);
    va_end(args);
    errno = reason;
    perror(errstr);
}

int32_t qor_open_read(const char *path) {
    return AboveStandardStreams(open(path, O_RDONLY | O_CLOEXEC | O_NONBLOCK));
}

bool QorNoteFile(int32_t fd, QorKeptFile *file) {
    struct stat now;
    if (fstat(fd, &now) != 0)
        return false;
    *file = {now.st_dev, now.st_ino};
    return true;
}

bool QorIsFile(int32_t fd, const QorKeptFile &file) {
    QorKeptFile now;
    return QorNoteFile(fd, &now) && now.device == file.device && now.inode == file.inode;
}

int32_t qor_open_append(const char *path) {
    struct stat there;
    if (lstat(path, &there) == 0 && !IsOwnFile(there)) // looked at first: to open some devices has effects
        return -1;
    int32_t fd = AboveStandardStreams(
        open(path, O_WRONLY | O_APPEND | O_CREAT | O_NOFOLLOW | O_NOCTTY | O_NONBLOCK | O_CLOEXEC,
             S_IRUSR | S_IWUSR));
    if (fd >= 0 && (fstat(fd, &there) != 0 || !IsOwnFile(there)))
        qor_close_handle(&fd);
    if (fd >= 0)
        fcntl(fd, F_SETFL, O_APPEND); // what is opened may block like any stream
    return fd;
}

bool qor_create_pipe(int32_t fds[2]) {
    if (pipe2(fds, O_CLOEXEC) == 0) {
        fds[0] = AboveStandardStreams(fds[0]);
        fds[1] = AboveStandardStreams(fds[1]);
        if (fds[0] >= 0 && fds[1] >= 0)
            return true;
    } else {
        fds[0] = fds[1] = -1;
    }
    qor_perror("QOR Agent: INTERNAL ERROR Unable to create internal communication pipe\n");
    qor_close_pipe(fds);
    return false;
}

ssize_t qor_write_file(int32_t fd, const void *data, size_t count) {
    return write(fd, data, count);
}

ssize_t qor_read_file(int32_t fd, void *data, size_t count) {
    return read(fd, data, count);
}

int32_t qor_close_handle(int32_t *fd) {
    if (*fd == -1)
        return 0;
    const int32_t closing = *fd;
    *fd = -1; // also after a failure: the descriptor is gone by then, and may be another's already
    return close(closing);
}

int32_t qor_close_pipe(int32_t fds[2]) {
    const int32_t first = qor_close_handle(&fds[0]);
    const int32_t second = qor_close_handle(&fds[1]);
    return first ? first : second;
}

int32_t qor_can_read_internal(int32_t fd, int32_t seconds) {
    return QorCanReadWithin(fd, seconds * MSEC_PER_SEC);
}

int32_t QorCanReadWithin(int32_t fd, int64_t msec) {
    if (fd == -1)
        return 0;
    if (msec < 0)
        msec = 0;
    if (msec > LONGEST_WAIT_MSEC)
        msec = LONGEST_WAIT_MSEC;
    const int ready = PollForInput(fd, msec);
    if (ready < 0 && qorloglevel > LOG_POLL_FAILURE)
        perror("QOR Agent : poll failed");
    return ready > 0 ? 1 : 0;
}

void qor_set_socket_TO(int32_t socket) {
    if (gbNimbJvm)
        return;
    const timeval limit = {SOCKET_LIMIT_SEC, 0};
    setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof limit);
    setsockopt(socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
}

int32_t QorGetFileNameFromFD(int32_t fd, char *out) {
    char link[64], name[FILE_NAME_SIZE];
    snprintf(link, sizeof link, "/proc/%d/fd/%d", getpid(), fd);
    const ssize_t length = readlink(link, name, FILE_NAME_SIZE - 1);
    if (length < 0) {
        QORLOG(LOG_TRACE, "QorGetFileNameFromFD : Not able to open readlink %s, error number : %d\n", link,
               errno);
        return -1;
    }
    name[length] = 0;
    return QorStrncpy(out, name, FILE_NAME_SIZE, FILE_NAME_SIZE);
}
