#include "dump_file.h"

#include <cerrno>
#include <cstdlib>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#define ROW(d) #d "0" #d "1" #d "2" #d "3" #d "4" #d "5" #d "6" #d "7" #d "8" #d "9"
const char qorDigitPairs[201] = ROW(0) ROW(1) ROW(2) ROW(3) ROW(4) ROW(5) ROW(6) ROW(7) ROW(8) ROW(9);
#undef ROW

namespace {

constexpr int FIRST_OWN_DESCRIPTOR = 3;
constexpr mode_t OWNER_ONLY = S_IRUSR | S_IWUSR;
constexpr char COUNT_TOO_LONG[] = "2147483600";
constexpr uint64_t LARGEST_COUNT = 0xffffffffff; // ten digits

static_assert(sizeof COUNT_TOO_LONG == DUMP_COUNT_WIDTH + 1, "count field");

// Makes an opened file the dump's, if it may be. False with errno set.
bool TakeOver(int fd) {
    struct stat facts;
    if (fstat(fd, &facts) != 0)
        return false;
    if (!S_ISREG(facts.st_mode) || facts.st_uid != geteuid() || facts.st_nlink != 1) {
        errno = EPERM;
        return false;
    }
    return fchmod(fd, OWNER_ONLY) == 0 && ftruncate(fd, 0) == 0;
}

// All of it, or the reason in errno.
bool WriteWhole(int fd, const char *data, int64_t length, int64_t offset) {
    while (length > 0) {
        const ssize_t written = pwrite(fd, data, static_cast<size_t>(length), offset);
        if (written < 0 && errno == EINTR)
            continue;
        if (written <= 0) {
            if (written == 0)
                errno = EIO;
            return false;
        }
        data += written;
        length -= written;
        offset += written;
    }
    return true;
}

bool WriteToFile(QorDumpFile *file, const char *data, int64_t length, int64_t offset) {
    file->writing = 1;
    const bool written = WriteWhole(file->fd, data, length, offset);
    file->writing = 0;
    return written;
}

// Twice the room. Without memory what has been written is dropped, and the error kept.
bool GrowBuffer(QorDumpFile *file) {
    char *grown = nullptr;
    if (file->size <= INT32_MAX / 2)
        grown = static_cast<char *>(realloc(file->buffer, 2 * static_cast<size_t>(file->size)));
    if (grown) {
        file->buffer = grown;
        file->size *= 2;
    } else {
        file->error = ENOMEM;
        file->used = 0;
    }
    return grown;
}

} // namespace

int32_t QorDumpOpen(QorDumpFile *file, const char *path, int32_t bufferSize) {
    *file = {-1, 0, bufferSize < DUMP_LEAST_BUFFER ? DUMP_LEAST_BUFFER : bufferSize, 0, 0, nullptr, 0};
    // Without O_TRUNC: nothing is lost before the file has been looked at. Without waiting: a pipe has no
    // reader.
    int fd = open(path, O_WRONLY | O_CREAT | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC, OWNER_ONLY);
    if (fd >= 0 && fd < FIRST_OWN_DESCRIPTOR) { // the host has closed a standard stream
        const int moved = fcntl(fd, F_DUPFD_CLOEXEC, FIRST_OWN_DESCRIPTOR);
        close(fd);
        fd = moved;
    }
    if (fd < 0)
        return -1;
    file->buffer = static_cast<char *>(malloc(static_cast<size_t>(file->size)));
    if (!file->buffer || !TakeOver(fd)) {
        const int reason = errno;
        free(file->buffer);
        file->buffer = nullptr;
        close(fd);
        errno = reason;
        return -1;
    }
    file->fd = fd;
    return 0;
}

bool QorDumpBegin(QorDumpFile *file, int32_t bufferSize) {
    *file = {
        DUMP_IN_MEMORY, 0, bufferSize, 0, 0, static_cast<char *>(malloc(static_cast<size_t>(bufferSize))), 0};
    return file->buffer;
}

void QorDumpAbandon(QorDumpFile *file) {
    free(file->buffer);
    *file = {-1, 0, 0, 0, 0, nullptr, 0};
}

bool QorDumpFlush(QorDumpFile *file) {
    if (file->fd == DUMP_IN_MEMORY)
        return GrowBuffer(file);
    if (!file->error && !WriteToFile(file, file->buffer, file->used, file->flushed))
        file->error = errno;
    file->flushed += file->used;
    file->used = 0;
    return !file->error;
}

int32_t QorDumpClose(QorDumpFile *file) {
    QorDumpFlush(file);
    if (file->error && ftruncate(file->fd, 0) != 0) {
        // The first failure is what the caller hears of.
    }
    if (close(file->fd) != 0 && !file->error)
        file->error = errno;
    file->fd = -1;
    free(file->buffer);
    file->buffer = nullptr;
    errno = file->error;
    return file->error ? -1 : 0;
}

void QorDumpText(QorDumpFile *file, const char *text, int64_t length) {
    while (length > 0) {
        const int32_t piece = length < DUMP_LEAST_BUFFER ? static_cast<int32_t>(length) : DUMP_LEAST_BUFFER;
        char *p = QorDumpReserve(file, piece);
        memcpy(p, text, static_cast<size_t>(piece));
        QorDumpCommit(file, p + piece);
        text += piece;
        length -= piece;
    }
}

void QorDumpField(QorDumpFile *file, const char *text) {
    for (; *text; text++) {
        const char shown = strchr("|\n\r", *text) ? ' ' : *text;
        QorDumpText(file, &shown, 1);
    }
}

void QorDumpPatchCount(QorDumpFile *file, int64_t offset, uint64_t count) {
    char text[DUMP_COUNT_WIDTH];
    if (count > LARGEST_COUNT) {
        memcpy(text, COUNT_TOO_LONG, sizeof text);
    } else {
        memset(text, '0', sizeof text);
        char digits[16];
        const size_t length = static_cast<size_t>(QorPutHex(digits, count) - digits);
        memcpy(text + sizeof text - length, digits, length);
    }
    if (offset >= file->flushed) {
        memcpy(file->buffer + (offset - file->flushed), text, sizeof text);
    } else if (!file->error && !WriteToFile(file, text, sizeof text, offset)) {
        file->error = errno;
    }
}
