// The monitors of a frame, as records: what the thread waits for, and what it holds.
#pragma once

#include "frame_report.h"
#include "sunprint/frame_names.h"

// Adds the frame's monitors to the thread's texts and notes whether it holds the lock asked for. `first`: the
// thread's top frame. False when the thread waits for a lock that the rules call idle, and idle threads are
// left out. Worker.
bool QorReportMonitors(const QorWalkedThread &thread, const QorSampleRequest &request,
                       const QorFrameInfo &frame, const QorFrameNames &names, bool first, QorThreadText *out);
