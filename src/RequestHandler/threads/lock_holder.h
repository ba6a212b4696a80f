// From a lock that a thread waits for to the thread that holds it. Worker only.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Appends where the owner of a lock is: args[0] is the lock id in decimal, args[1] the key of the thread
// that waits for it. A thread that no longer waits for this lock leaves the reply as it is.
void QorShowMonitorThreadRequest(uint32_t reqid, QorText *reply, char **args);

// Appends the lock-holder view of the thread with this key; a bare section end when there is none. Opens a
// separate walk.
void QorShowThreadHoldingLockRequest(uint32_t reqid, QorText *reply, const char *key);
