#include "qorlog.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <sys/time.h>

int32_t qorloglevel;
FILE *fpLogFile;

namespace {

constexpr int MESSAGE_ROOM = 4095; // of a message that is written in one piece with its line
constexpr int FRAME_LIMIT = 192;   // prefix and the closing of the message
constexpr char LINE_END[] = ">\n";
constexpr size_t LINE_END_LENGTH = sizeof LINE_END - 1;
constexpr int FILE_LIMIT = 64; // of the source file's name
constexpr int64_t RATION_SECONDS = 60;

const char *LastComponent(const char *path) {
    const char *slash = strrchr(path, '/');
    return slash ? slash + 1 : path;
}

int WritePrefix(char *line, size_t size, const char *file, int lineNumber) {
    timeval now;
    gettimeofday(&now, nullptr);
    tm local{};
    localtime_r(&now.tv_sec, &local);
    return snprintf(line, size, "<%d-%d-%d %02d:%02d:%02d.%03d> <QordAgent|%.*s:%d> <", local.tm_mon + 1,
                    local.tm_mday, local.tm_year + 1900, local.tm_hour, local.tm_min, local.tm_sec,
                    static_cast<int>(now.tv_usec / 1000), FILE_LIMIT, LastComponent(file), lineNumber);
}

// Start-up may install another stream at any moment: stderr takes the place of none only.
FILE *LogStream() {
    FILE *out = nullptr;
    const bool none =
        __atomic_compare_exchange_n(&fpLogFile, &out, stderr, false, __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST);
    return none ? stderr : out;
}

} // namespace

void QorWriteLogLine(const char *file, int lineNumber, const char *format, ...) {
    const int callersErrno = errno;
    char line[FRAME_LIMIT + MESSAGE_ROOM];
    int length = WritePrefix(line, sizeof line, file, lineNumber);

    va_list args;
    va_start(args, format);
    const int message = vsnprintf(line + length, MESSAGE_ROOM + 1, format, args);
    va_end(args);
    const bool whole = message <= MESSAGE_ROOM;
    if (whole && message > 0)
        length += message;

    FILE *out = LogStream();
    flockfile(out);
    if (whole) {
        memcpy(line + length, LINE_END, LINE_END_LENGTH);
        fwrite_unlocked(line, 1, static_cast<size_t>(length) + LINE_END_LENGTH, out);
    } else {
        fwrite_unlocked(line, 1, static_cast<size_t>(length), out);
        va_start(args, format);
        vfprintf(out, format, args);
        va_end(args);
        fwrite_unlocked(LINE_END, 1, LINE_END_LENGTH, out);
    }
    fflush_unlocked(out);
    funlockfile(out);
    errno = callersErrno;
}

bool QorLogIsDue(int64_t *next) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    int64_t due = __atomic_load_n(next, __ATOMIC_RELAXED);
    if (due != 0 && now.tv_sec < due)
        return false;
    return __atomic_compare_exchange_n(next, &due, now.tv_sec + RATION_SECONDS, false, __ATOMIC_RELAXED,
                                       __ATOMIC_RELAXED);
}
