#include "forked_dump.h"

#include "channel.h"
#include "direct/direct_dump.h"
#include "direct/gc_lock.h"
#include "dispatch.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"
#include "request_text.h"

#include "jvmti/heap/ForkedDump.h"
#include "jvmti/heap/ForkedHistogram.h"
#include "jvmti/heap/ForkedWalk.h"
#include "platforms/linux.h"
#include "reply/records.h"

#include <cstdio>
#include <cstring>

int32_t pipe_fd_FP[2] = {-1, -1};

namespace {

void Append(const char *text) {
    QorStrncat(pagebuf, text, PAGEBUF_SIZE);
}

void ReplyRefused(int32_t refusal) {
    QOR_REPLY("%s%c", QorForkRefusalText(refusal), SECTION_END);
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

Attempt AfterFailure(QorForkState state, int32_t error, int32_t made, int64_t until) {
    if (QorForkAgain("Heap dump", made, until, state, error))
        return TRY_AGAIN;
    AppendFailure(state, error);
    return ANSWERED;
}

// The `made`th copy, and the wait for what comes of it.
Attempt ForkAndWait(int64_t until, int32_t made) {
    if (!qor_create_pipe(pipe_fd_FP)) {
        ReleaseGcLock();
        Append("JVM Heap: Error cannot create child pipe");
        return ANSWERED;
    }
    const int32_t pid =
        QorOnJvmtiRoad() ? QorForkHeapDump(dumpfile, pipe_fd_FP) : QorForkDirectDump(dumpfile, pipe_fd_FP);
    qor_close_handle(&pipe_fd_FP[1]); // the copy's death is then the pipe's end
    ReleaseGcLock();
    fpid = pid;
    if (pid == FORK_REFUSED_MOVED)
        return AfterFailure(FORK_MOVED, 0, made, until);
    if (pid < 0) {
        ReplyRefused(pid);
        return ANSWERED;
    }
    QORLOG(LOG_NOTE, "Heap dump: process %d writes it", pid);
    QOR_REPLY("JVM Heap dump started.%c", SECTION_END);
    if (qor_wait_for_forked_child_to_respond(until) == 0) {
        Append("JVM Heap:Heap dump timed out");
        return ANSWERED;
    }
    int32_t error = 0;
    const QorForkState state = QorForkOutcome(&error);
    QorForgetFork();
    if (state != FORK_DONE)
        return AfterFailure(state, error, made, until);
    Append("JVM Heap:Heap dump completed sucessfully");
    return ANSWERED;
}

} // namespace

bool QorMayForkForDump(const char *command) {
    return strncmp(command, DUMP_REQUEST, sizeof DUMP_REQUEST - 1) == 0 && QorCanInspect() &&
           (!QorOnJvmtiRoad() || QorWantsCopy());
}

void QorAnswerForkedDump() {
    const int64_t until = QorForkClock() + QorForkPatience();
    Attempt outcome = TRY_AGAIN;
    for (int32_t made = 1; outcome == TRY_AGAIN; made++) {
        outcome = ForkAndWait(until, made);
        qor_close_pipe(pipe_fd_FP);
    }
}

int32_t qor_wait_for_forked_child_to_respond(int64_t until) {
    if (!QorWaitForFork(pipe_fd_FP[0], until))
        return 0;
    if (!qor_can_read_internal(pipe_fd_FP[0], 0))
        return -1; // it is gone, but a child of the application's has inherited the other end
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

void QorTendCopies() {
    QorTendHistogram();
    QorTendFork();
}

void QorDropCopies() {
    QorDropHistogram();
    QorEndFork();
}
