// The frames of the one thread that is being read: filled by the walk of its stack, read by the report.
//
// Static, so that nothing has to be allocated while the thread is held. What of a frame lies on the thread's
// stack is here as a copy: the stack isn't read again once the thread runs on. Worker only.
#pragma once

#include <cstdint>

enum : int32_t {
    MAX_FRAME_RECORDS = 500,
    MAX_FRAMES_VISITED = 501, // with those that have no record
    MAX_FRAME_MONITORS = 1024,
    MONITOR_ROOM = 8192, // of all frames
};

enum QorWalkedKind : int32_t {
    WALKED_UNKNOWN = 0,
    WALKED_COMPILED = 1,
    WALKED_INTERPRETED = 2,
};

struct QorFrameInfo {
    uint64_t sp, pc, fp;
    uint64_t locals;       // interpreted: address of local 0
    uint64_t receiver;     // the object in local 0; untested, may be anything
    uint64_t arguments[2]; // interpreted: what is in locals 1 and 2; untested likewise
    uint64_t method;       // untested likewise
    uint64_t bcp;          // interpreted: address of the bytecode
    uint64_t monitors;     // interpreted: the monitor block's top
    uint64_t stream;       // compiled: scope data
    QorWalkedKind kind;
    int32_t bci;            // compiled
    int32_t monitorsOffset; // compiled: position of the monitors in the stream, -1 for none
    int32_t monitorCount;   // entries of frame_monitors from `firstMonitor` on, the one entered last in front
    int32_t firstMonitor;
};

extern QorFrameInfo frame_info[MAX_FRAME_RECORDS];

// The objects whose monitors the frames have entered or are about to; untested. 0 for one that isn't on the
// stack.
extern uint64_t frame_monitors[MONITOR_ROOM];
