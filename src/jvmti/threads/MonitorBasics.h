// What both ways to a thread's locks need (Monitors.h, MonitorsManagement.h). Worker, inside a walk.
#pragma once

#include "ThreadSystem.h"

enum : int32_t {
    OWNED_BATCH = 32,
    MEMO_BATCH = 64, // where most threads answer from the memo
};

// Whether the locks of the threads after the cursor will be asked for too (an all-threads sample) or only
// those of this one thread. Decides the batch.
enum QorMonitorScope { MONITORS_OF_ONE_THREAD, MONITORS_OF_THE_WALK };

// Whether the snapshot shows the walk's `index`th thread where it may wait for a lock that another thread
// owns: blocked, in Object.wait, or parked by a lock of java.util.concurrent that has an owner.
bool QorMayWaitForLock(const QorThreadHandle *handle, int32_t index);

// What the walk's `index`th thread is parked by, a local reference; null when it isn't parked, or by nothing.
jobject QorParkBlocker(const QorThreadHandle *handle, int32_t index);

// Parses a lock's text, "class@hexhash", in place: returns the lock id and leaves "class@decimal" in
// `description` (NAME_SIZE bytes). 0 when the text holds no hash.
int64_t QorParseLockName(char *description);
