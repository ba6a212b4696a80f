// One thread of a walk, found by the key that the console sends back. Worker only.
#pragma once

#include "jvmti/ThreadSystem.h"
#include "records.h"

#include <cstdint>

// Moves the cursor of a started walk to the thread with this key and fills its record. False when no thread
// of the walk has it; a null key is no thread's.
bool QorFindThread(QorThreadHandle *handle, int32_t processId, const char *key, QorThreadRecord *thread);

// Reads the frame at frames->index for a view that shows every frame: what can't be read stays empty.
void QorReadFrameAsItIs(QorFrameHandle *frames, QorFrameRecord *frame);

// "user" or "sys", the type column of a frame.
const char *QorCallTypeText(const QorFrameRecord *frame);
