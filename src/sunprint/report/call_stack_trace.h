// Whether a thread is read for a request.
#pragma once

#include "frame_report.h"

// True when the thread counts, by its facts, name and key. `looks`: of a thread of the queue that still runs,
// raised here; null for one of the list. Worker.
bool call_stack_trace(const QorWalkedThread &thread, const QorSampleRequest &request, int32_t *looks);
