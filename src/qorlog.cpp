#include "qorlog.h"

#include <cerrno>
#include <cstdarg>
#include <cstring>
#include <ctime>
#include <pthread.h>
#include <sys/time.h>

int32_t qorloglevel;
FILE *fpLogFile;

namespace {

constexpr int MESSAGE_LIMIT = 4095;
constexpr int FRAME_LIMIT = 192; // prefix and the closing of the message
constexpr int FILE_LIMIT = 64;   // of the source file's name

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

} // namespace

void QorWriteLogLine(const char *file, int lineNumber, const char *format, ...) {
    const int callersErrno = errno;
    int cancelState; // a worker cancelled in here would leave the stream locked for the whole host
    pthread_setcancelstate(PTHREAD_CANCEL_DISABLE, &cancelState);
    char line[FRAME_LIMIT + MESSAGE_LIMIT];
    int length = WritePrefix(line, sizeof line, file, lineNumber);

    va_list args;
    va_start(args, format);
    int message = vsnprintf(line + length, MESSAGE_LIMIT + 1, format, args);
    va_end(args);
    if (message > MESSAGE_LIMIT)
        message = MESSAGE_LIMIT;
    if (message > 0)
        length += message;
    line[length++] = '>';
    line[length++] = '\n';

    FILE *out = fpLogFile;
    if (!out)
        fpLogFile = out = stderr;
    flockfile(out);
    fwrite_unlocked(line, 1, static_cast<size_t>(length), out);
    fflush_unlocked(out);
    funlockfile(out);
    pthread_setcancelstate(cancelState, nullptr);
    errno = callersErrno;
}
