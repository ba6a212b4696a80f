#include "forked_dump.h"

#include "channel.h"
#include "dispatch.h"
#include "fault_handler.h"
#include "gc_lock.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "request_text.h"

#include "RequestHandler/records.h"
#include "jvmti/ForkedWalk.h"
#include "jvmti/Session.h"
#include "jvmti/heapdump/ForkedDump.h"
#include "platforms/linux.h"
#include "platforms/reaper.h"

#include <cstdio>
#include <cstring>
#include <ctime>

int32_t pipe_fd_FP[2] = {-1, -1};

namespace {

void Append(const char *text) {
    QorStrncat(pagebuf, text, PAGEBUF_SIZE);
}

void ReplyRefused(int32_t refusal) {
    QOR_REPLY("%s%c", QorForkRefusalText(refusal), SECTION_END);
}

int32_t SecondsSince(time_t start) {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<int32_t>(now.tv_sec - start);
}

// Why the file isn't whole.
void AppendFailure(QorForkState state, int32_t error) {
    char text[256];
    snprintf(text, sizeof text, "JVM Heap:Heap dump failed, %s", QorForkFailureText(state, error));
    QORLOG(LOG_ERROR, "%s", text);
    Append(text);
}

// The JVM may collect again while the copy writes.
void ReleaseGcLock() {
    if (no_gc == 0)
        qor_enable_gc();
}

enum Attempt { ANSWERED, TRY_AGAIN };

// One fork, and the wait for what comes of it.
Attempt ForkAndWait(int32_t seconds, bool last) {
    if (!qor_create_pipe(pipe_fd_FP)) {
        ReleaseGcLock();
        Append("JVM Heap: Error cannot create child pipe");
        return ANSWERED;
    }
    const int32_t pid = QorForkHeapDump(dumpfile, pipe_fd_FP);
    qor_close_handle(&pipe_fd_FP[1]); // the copy's death is then the pipe's end
    ReleaseGcLock();
    fpid = pid;
    if (pid < 0) {
        ReplyRefused(pid);
        return ANSWERED;
    }
    QORLOG(LOG_NOTE, "Heap dump: process %d writes it", pid);
    QOR_REPLY("JVM Heap dump started.%c", SECTION_END);
    if (qor_wait_for_forked_child_to_respond(seconds) == 0) {
        Append("JVM Heap:Heap dump timed out");
        return ANSWERED;
    }
    int32_t error = 0;
    const QorForkState state = QorForkOutcome(&error);
    QorForgetFork();
    if (state == FORK_DONE)
        Append("JVM Heap:Heap dump completed sucessfully");
    else if (state != FORK_FAILED && !last)
        return TRY_AGAIN;
    else
        AppendFailure(state, error);
    return ANSWERED;
}

void Dump() {
    const int32_t limit = qor_max_timeout ? qor_max_timeout : DEFAULT_WAIT_SECONDS;
    timespec start;
    clock_gettime(CLOCK_MONOTONIC, &start);
    for (int attempt = 1; attempt <= FORK_ATTEMPTS; attempt++) {
        const int32_t left = limit - SecondsSince(start.tv_sec);
        const Attempt outcome = ForkAndWait(left > 0 ? left : 1, attempt == FORK_ATTEMPTS);
        qor_close_pipe(pipe_fd_FP);
        zombie_reaper();
        if (outcome == ANSWERED)
            return;
        QORLOG(LOG_WARNING, "Heap dump: once more, as the process that wrote it came to no end");
    }
}

} // namespace

bool QorAnswerForkedDump(const char *command) {
    if (strncmp(command, DUMP_REQUEST, sizeof DUMP_REQUEST - 1) != 0 || !QorGetForkHeapDumpCapability() ||
        !QorCanInspect())
        return false;
    set_qor_handler();
    QorParseDumpRequest(buf);
    reset_qor_handler();
    if (!dumpfile[0])
        return false; // no dump is asked for, only the memory view
    Dump();
    return true;
}

int32_t qor_wait_for_forked_child_to_respond(int32_t seconds) {
    int32_t left = seconds ? seconds : DEFAULT_WAIT_SECONDS;
    bool readable = false;
    for (; left > 0 && !readable && agentstatus != AGENT_SHUTDOWN; left--) {
        readable = qor_can_read(pipe_fd_FP[0], 1);
        QorForkedChildLives(); // looks after it
    }
    if (!readable)
        return 0;
    char pipe_str[FORK_HANDSHAKE_SIZE] = {};
    const ssize_t got = qor_read_file(pipe_fd_FP[0], pipe_str, FORK_HANDSHAKE_SIZE);
    if (got != FORK_HANDSHAKE_SIZE)
        qor_perror("Qor Agent Error : IPC CH - 6 :");
    if (qorloglevel > LOG_POLL_FAILURE) {
        QORLOG(LOG_POLL_FAILURE, "Child Process Read returned = %d", static_cast<int>(got));
        qor_perror(" Read-Child process:");
    }
    if (memcmp(pipe_str, FORK_HANDSHAKE, FORK_HANDSHAKE_SIZE) == 0)
        return 1;
    QORLOG(LOG_NOTE, "Pipe not invoked by Child process");
    qor_perror(" Qor Agent Error 2008:");
    return -1;
}
