// What the compiler has noted of a compiled frame: the methods inlined in it, their positions, their
// receivers and monitors. All of it is in a stream of compressed integers.
//
// Nothing here allocates, logs or calls the JVM: a thread may be held. Worker.
#pragma once

#include "code_blobs.h"
#include "frame_info.h"
#include "scope_values.h"

#include <cstdint>

// The scopes of one physical frame, innermost first.
struct QorScopes {
    bool open;
    bool keptOnly; // of the stack only what has been read before
    uint64_t stream, oops;
    int32_t oopCount;
    int32_t sender; // position of the scope around this one, -1 for none
    int32_t locals; // position of this one's local variables, -1 for none
};

// Reads the next scope of the frame into `out`, which has registers and kind, `monitors` telling whether its
// monitors are wanted. False when there is none to show: then the frame's scopes have ended.
bool QorReadScope(const QorCodeRanges &code, uint64_t blob, bool monitors, QorScopes *scopes,
                  QorFrameInfo *out);

// Room in frame_monitors for one frame. A walk clears it, its frames share it.
extern int32_t frameMonitorsUsed;
void QorAddFrameMonitor(QorFrameInfo *frame, uint64_t object);
