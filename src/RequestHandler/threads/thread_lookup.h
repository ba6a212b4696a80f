// What the views of threads share: one thread found by its key, and the end of their walk. Worker only.
#pragma once

#include "Xtier/Xtier.h"
#include "jvmti/threads/ThreadSystem.h"
#include "reply/records.h"

#include <cstdint>

// Moves the cursor of a started walk to the thread with this key and fills its record. False when no thread
// of the walk and no virtual thread has it; a null key matches no thread.
bool QorFindThread(QorThreadHandle *handle, int32_t processId, const char *key, QorThreadRecord *thread);

// Turns an open walk to the virtual thread with this key, as QorTurnToVirtual does.
bool QorTurnToKey(QorThreadHandle *handle, int32_t processId, const char *key);

// Lets the next walk for locals find those of the thread at the cursor if no carrier runs it. Until
// closeThreadAndFreeLists.
void QorHoldUnmounted(const QorThreadHandle &handle);

// "user" or "sys", the type column of a frame.
const char *QorCallTypeText(const QorFrameRecord *frame);

// Appends the state, and of a wait for a database or another server the block of what is known of it: that of
// `database`, or else an empty one, whose place goes into `at`.
void QorAppendState(QorText *out, int32_t state, const QorDBRequestData *database, QorXtierPositions *at);

// Closes the walk and frees the lists of a sample; on every way out of a view.
void closeThreadAndFreeLists();
