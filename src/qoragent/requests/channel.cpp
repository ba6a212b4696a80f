#include "channel.h"

#include "qorStrUtils.h"
#include "qorlog.h"

#include "platforms/linux.h"

#include <cerrno>
#include <cstring>
#include <ctime>
#include <fcntl.h>
#include <initializer_list>
#include <sched.h>

std::atomic<int32_t> pipe_fd_PP[2] = {{-1}, {-1}};
std::atomic<int32_t> pipe_fd_CH[2] = {{-1}, {-1}};
std::atomic<int32_t> agentstatus;

namespace {

constexpr int32_t SLICE_SECONDS = 10;

QorKeptFile madePP, madeCH; // the pipes as they were made; both ends of one are the same file

// Neither end may hold a thread up: not a full pipe its writer, nor a handshake that another caller took
// first its reader.
bool MakePipe(std::atomic<int32_t> ends[2], QorKeptFile *made) {
    int32_t fds[2];
    if (!qor_create_pipe(fds))
        return false;
    QorNoteFile(fds[0], made);
    for (int i = 0; i < 2; i++) {
        fcntl(fds[i], F_SETFL, O_NONBLOCK);
        ends[i] = fds[i];
    }
    return true;
}

void ClosePipes() {
    for (std::atomic<int32_t> *end : {&pipe_fd_PP[0], &pipe_fd_PP[1], &pipe_fd_CH[0], &pipe_fd_CH[1]}) {
        int32_t fd = end->exchange(-1);
        qor_close_handle(&fd);
    }
}

enum RequestState {
    WITHDRAWN, // or none was posted yet
    POSTED,
    TAKEN, // it is in `buf`
};

// The request of the caller whose turn it is, between that caller and the worker. Neither side waits for the
// other but for the length of a copy.
struct Request {
    std::atomic<bool> locked;
    RequestState state;
    bool newText; // `text` replaces what is in `buf`
    char text[BUF_SIZE];
    uint32_t posted, taken;         // numbers of the last ones; 0 before the first
    std::atomic<uint32_t> answered; // number of the one whose reply is in `pagebuf`
} request;

struct RequestScope {
    RequestScope() {
        while (request.locked.exchange(true))
            sched_yield();
    }
    ~RequestScope() { request.locked = false; }
};

void SleepWhole(int32_t seconds) {
    timespec left = {seconds, 0};
    while (nanosleep(&left, &left) != 0 && errno == EINTR) {
    }
}

} // namespace

void QorCloseChannel() {
    if (QorChannelIsOurs())
        ClosePipes();
}

bool QorOpenChannel() {
    QorCloseChannel();
    if (MakePipe(pipe_fd_PP, &madePP) && MakePipe(pipe_fd_CH, &madeCH))
        return true;
    ClosePipes();
    return false;
}

bool QorChannelIsOurs() {
    if (QorIsFile(pipe_fd_PP[0], madePP) && QorIsFile(pipe_fd_PP[1], madePP) &&
        QorIsFile(pipe_fd_CH[0], madeCH) && QorIsFile(pipe_fd_CH[1], madeCH))
        return true;
    for (auto *pipe : {pipe_fd_PP, pipe_fd_CH})
        pipe[0] = pipe[1] = -1;
    return false;
}

int32_t qor_can_read(int32_t fd, int32_t seconds) {
    int32_t left = seconds;
    while ((left == WAIT_FOR_EVER || left > SLICE_SECONDS) && agentstatus != AGENT_SHUTDOWN && fd >= 0) {
        if (left != WAIT_FOR_EVER)
            left -= SLICE_SECONDS;
        if (qor_can_read_internal(fd, SLICE_SECONDS))
            return 1;
    }
    if (agentstatus == AGENT_SHUTDOWN)
        return 0;
    return qor_can_read_internal(fd, left);
}

void qor_safe_sleep(int32_t seconds) {
    int32_t left = seconds;
    for (; left > SLICE_SECONDS && agentstatus != AGENT_SHUTDOWN; left -= SLICE_SECONDS)
        SleepWhole(SLICE_SECONDS);
    if (left > 0)
        SleepWhole(left);
}

bool qor_signal_child_to_process() {
    if (!QorChannelIsOurs())
        return false;
    if (qor_write_file(pipe_fd_PP[1], WAKE_UP, HANDSHAKE_SIZE) == HANDSHAKE_SIZE)
        return true;
    QORLOG(LOG_ERROR, "The worker can't be woken: %s", strerror(errno));
    return false;
}

uint32_t QorPostRequest(const char *text) {
    RequestScope mine;
    if (text) {
        request.text[0] = 0;
        QorStrncpy(request.text, text, BUF_SIZE, REQUEST_LIMIT);
        if (char *marker = strstr(request.text, END_OF_TRANSMISSION))
            *marker = 0;
        request.newText = true;
    }
    request.state = POSTED;
    qorlocks[1] = 1;
    return ++request.posted;
}

void QorWithdrawRequest() {
    RequestScope mine;
    request.state = WITHDRAWN;
    request.text[0] = 0; // nor is its text asked again
    request.newText = true;
}

bool QorTakeRequest() {
    RequestScope mine;
    if (request.state != POSTED)
        return false;
    if (request.newText)
        memcpy(buf, request.text, strlen(request.text) + 1);
    request.newText = false;
    request.state = TAKEN;
    request.taken = request.posted;
    qorlocks[1] = 1; // a late answer may have cleared it since
    return true;
}

bool QorIsAnswered(uint32_t number) {
    return request.answered == number;
}

bool QorAnswerRequest() {
    request.answered = request.taken;
    return QorSignalParent();
}

bool QorSignalParent() {
    if (QorChannelIsOurs() && qor_write_file(pipe_fd_CH[1], HANDSHAKE, HANDSHAKE_SIZE) == HANDSHAKE_SIZE)
        return true;
    QORLOG(LOG_RAW_PIPE, "Handshake not written, error %d", errno);
    return false;
}

int32_t qor_wait_for_child_reponse(int32_t seconds) {
    if (!qor_can_read(pipe_fd_CH[0], seconds == 0 ? DEFAULT_WAIT_SECONDS : seconds) || !QorChannelIsOurs())
        return 0;
    char pipe_str[HANDSHAKE_SIZE] = {};
    const ssize_t got = qor_read_file(pipe_fd_CH[0], pipe_str, HANDSHAKE_SIZE);
    if (got != HANDSHAKE_SIZE)
        qor_perror("Qor Agent Error : IPC CH - 2 :");
    if (qorloglevel > LOG_RAW_PIPE) {
        QORLOG(LOG_RAW_PIPE, READ_RETURNED, static_cast<int>(got));
        qor_perror(" Read-Child:");
    }
    if (memcmp(pipe_str, HANDSHAKE, HANDSHAKE_SIZE) == 0)
        return 1;
    QORLOG(LOG_NOTE, "Pipe not invoked by Child");
    qor_perror(" Qor Agent Error 2001:");
    return -1;
}
