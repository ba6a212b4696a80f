// Whether a thread is read for a request.
#pragma once

#include "frame_report.h"

// True when the thread counts. Fills name and key in `thread`, whose facts are known. `looks`: of a thread of
// the queue that still runs, raised here; null for one of the list. Worker, nobody held.
bool call_stack_trace(QorWalkedThread *thread, const QorSampleRequest &request, int32_t *looks);
