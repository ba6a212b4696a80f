// The first half of reading a thread: from its registers to frame_info, with the thread held where there is
// no other way.
//
// A held thread is released before this returns, and until then nothing allocates, logs or takes a lock; what
// there is to log is logged afterwards. Worker.
#pragma once

#include "qorthreads/thread_facts.h"
#include "sunprint/stack_steps.h"

struct QorWalkedThread {
    QorThreadFacts facts;
    int32_t frames;                  // records in frame_info
    char name[QOR_THREAD_NAME_SIZE]; // filled by whoever needs it
    char key[QOR_THREAD_KEY_SIZE];
};

enum QorWalkResult : int32_t {
    WALKED,        // as far as the stack is Java's
    WALKED_NONE,   // 1: there is nothing to show
    WALKED_LOST,   // 1 likewise, for want of a saved fp's place: what is known of the thread stays true
    WALKED_UNDONE, // 2: a frame lacks what it needs
    WALK_FAILED,   // memory couldn't be read, or the thread went on meanwhile; once more with `hold`
    WALK_NOT_HELD, // it didn't stop, and has left no anchor; once more
    WALK_CUT,      // the thread went on before its stack was whole; once more
    WALK_ASKED,    // code of a kind not met before was asked about; once more
    WALK_OVERRUN,  // too many frames without a record; stack_trace_error is set
};

extern int32_t stack_trace_error; // 1 when the last walk was an overrun

// Walks the thread's stack. Held is only a thread in Java code, and only as the request allows it: one that
// has left no anchor, or with `hold` any. `monitors`: whether those of the frames are wanted.
QorWalkResult QorWalkThread(QorWalkedThread *thread, bool hold, bool monitors);
