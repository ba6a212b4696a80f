// Text heap dumps that a copy of this process writes while the JVM runs on.
//
// The worker waits for the copy, for somewhat less than a caller waits for a reply; one that takes longer
// goes on by itself. See jvmti/heapdump/ForkedDump.h.
#pragma once

#include <cstdint>

extern int32_t pipe_fd_FP[2]; // from the copy; made for each dump and closed when the wait for it is over

// Whether a request asks for a text dump that may be made by a copy. `command` is its text after the flags.
bool QorMayForkForDump(const char *command);

// Makes such a dump into `dumpfile`, leaves the reply in `pagebuf` and gives the GC lock back. Worker.
void QorAnswerForkedDump();

// Waits for the copy's last word until QorForkClock comes to `until`. 1 when it came, -1 when something else
// came (also the pipe's end, which counts as a word too), 0 when the time is over or the agent is leaving.
int32_t qor_wait_for_forked_child_to_respond(int64_t until);

// Looks after copies that nobody waits for at the moment. Worker, at each wake.
void QorTendCopies();

// Kills them, without waiting for their end, and drops what they have made. Worker, when it leaves.
void QorDropCopies();
