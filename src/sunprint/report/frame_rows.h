// The fields and rows by which the direct road shows a frame. Worker.
#pragma once

#include "frame_report.h"

// Call, file, line; no separator at the end. Returns how long the text was after the call.
int32_t QorAppendCall(QorText *out, const QorFrameNames &names);

// What a framework's frame works on, in the place of a call: the kind's word and the name, file, no line.
int32_t QorAppendFrameworkCall(QorText *out, const QorThreadTiers &tiers);

// Adds the frame's row, if the request has rows. After the first row that has no room there are no more: they
// would pass for the next ones. `system`: not the application's.
void QorAppendFrameRow(const QorSampleRequest &request, QorText *out, const QorFrameInfo &frame,
                       const QorFrameNames &names, bool system);

// The same for what a framework's frame works on. Where its line is or may be put later; -1 for nowhere.
int32_t QorAppendFrameworkRow(const QorSampleRequest &request, QorText *out, const QorThreadTiers &tiers);

// Puts a line in the place of a row's placeholder at `at`; it stays if there is no room.
void QorPutLine(QorText *out, int32_t at, int32_t line);
