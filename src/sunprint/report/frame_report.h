// The second half of reading a thread: its frames' names, lines, monitors, and what they say about its state,
// as the texts that its record is made of.
//
// The thread runs on. Worker.
#pragma once

#include "frame_tiers.h"
#include "sunprint/frame_names.h"
#include "walk_thread.h"

#include "reply/qortext.h"

#include <cstdint>

// A request, as the sample goes through the threads.
struct QorSampleRequest {
    uint32_t reqid;   // a poll without details is one of active threads
    char **args;      // two texts, each may be null
    bool everyThread; // idle ones too
    uint64_t lock;    // the one asked for, with QORREQ_LOCK_HOLDER
};

// Whether threads that the rules call idle are left out.
bool QorLeavesIdleOut(const QorSampleRequest &request);

enum QorReport : int32_t {
    REPORT_DONE,
    REPORT_DROPPED,    // the thread doesn't count for this request
    REPORT_PORT_FOUND, // the server's port is known, the sample ends
    REPORT_UNREADABLE, // memory of a frame is gone
};

// In a scan for the server's port (QORREQ_SERVER_SCAN) it is asked of every frame, and nothing else is
// reported; true ends the sample. Set by whoever scans, null otherwise.
extern bool (*qorServerPortTest)(const QorWalkedThread &thread, const QorFrameInfo &frame,
                                 const QorFrameNames &names);

// What is shown of one thread. The texts' storage is the caller's.
struct QorThreadText {
    QorDirectState state;
    bool userCall; // the current call is the application's
    bool holds;    // it holds the lock asked for
    int32_t printed;
    QorText call;    // frame group of the current call, no separator at the end; empty without frames
    int32_t callEnd; // where `call` goes on with the file
    const QorThreadTiers *tiers; // of this thread, until the next is read; null when frames don't count
    QorText rows;                // stack rows, as the request has them
    QorText waits;               // the lock waited for, title included
    QorText locks;               // those held, each closed by RECORD_END
};

// Fills `out`, whose texts are empty. What finds no room is left out and noted in qorReplyIsCut.
QorReport QorReportFrames(const QorWalkedThread &thread, const QorSampleRequest &request, QorThreadText *out);
