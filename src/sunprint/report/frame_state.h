// What a thread does, told from its first frames: the system says only whether it runs or waits.
#pragma once

#include "qorutil/vm_offsets.h"

#include <cstdint>

// The state of a thread that was `state` before its frame number `frame` (0 at the top). Any thread.
QorDirectState QorRefineState(QorDirectState state, int32_t frame, const char *className, const char *method);

// Whether the rules leave a thread in this state as it is, whatever they say of its calls and monitors.
bool QorKeepsState(QorDirectState state);

// The state of a thread without Java frames.
QorDirectState QorStateWithoutFrames(QorDirectState state, const char *threadName);
