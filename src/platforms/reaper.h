// Collecting the agent's own child processes, and nobody else's.
//
// The application waits for its children itself; the status of one that the agent collected would be lost to
// it. So only recorded process ids are waited for, one by one, and the handler that was there before runs
// after. The handler is installed with the first child: until then the signal is as the application left it.
#pragma once

#include <cstdint>
#include <sys/types.h>

// Records a child of the agent's. The first one installs the handler, once in the life of the process:
// whoever replaced it since may be chaining to it. Worker. False when the table is full: wait for that child
// directly.
bool QorRecordChild(pid_t pid);

// True until a recorded child has been collected.
bool QorChildIsRecorded(pid_t pid);

// Kills a recorded child; one that is not recorded, or has been collected, is left alone: its number may be
// somebody else's by now. The handler, or zombie_reaper, collects it later.
void QorKillChild(pid_t pid);

// Collects the recorded children that have ended. The last result of waitpid, 0 when there are none. Safe in
// a signal handler.
int32_t zombie_reaper();
