// The state of one all-threads sample, shared by the files that make it up.
#pragma once

#include "Xtier/Xtier.h"
#include "all_threads.h"
#include "jvmti/threads/Monitors.h"
#include "reply/records.h"

#include <cstdint>

// One sample; lives on the stack of the view.
struct QorSample {
    uint32_t reqid;
    char **args;
    QorText *reply;
    int32_t processId;
    bool filtering;         // idle threads are left out
    bool writesStacks;      // each thread's record carries its call stack
    bool recordStands;      // a thread record has been written
    char title[TITLE_SIZE]; // title record, or empty
    QorThreadHandle handle;
    QorFrameHandle frames;
    char lockOwner[NAME_SIZE]; // name of the virtual thread that owns the lock waited for, or empty

    // statistics
    int32_t threadCount, frameCount, maxDepth;
    int64_t deepestThread;
};

// What the frames of one thread say.
struct QorThreadWalk {
    QorThreadRecord thread;
    char key[THREAD_KEY_SIZE]; // the thread's key; the rows show its part after the dash
    const char *threadId;
    int32_t threadIdLength;
    bool userCallFound;  // the frames so far hold the user call that counts
    int32_t userFrame;   // index of the last one that did, -1 when none was met
    int32_t omitted;     // frames left out, 0 when none
    int32_t processed;   // frames read
    bool userCallIsIdle; // a rule says so
    bool nameIsIdle;     // likewise of the thread's name
    bool servesOrAsks;   // a frame of a web request or a database call was met
    QorText currentCall; // frame group of the current call, in console_frame_buf
    QorText stackRows;   // in console_thr_buf, with room for a skip row after them
    bool rowsFull;       // the rows have met one without room
    QorXtierFlags xtier;
    QorFramework framework; // of the framework frame whose data may take the current call's place
    int32_t frameworkRow;   // length of the stack rows before that frame's, -1 when not noted
};

// Whether a sample gathers the data of its threads for the Java side.
bool QorCarriesThreadData(uint32_t reqid);

// Walks the frames of the thread, refining its state, finding its current call and writing its stack rows.
void QorWalkFrames(QorSample *sample, QorThreadWalk *walk);

// Appends the record of the thread. 0, or -1 when the sample must end: the reply is full, and ends after the
// record before, or there is no memory for the thread's end-to-end block.
int32_t QorWriteThreadRecord(QorSample *sample, QorThreadWalk *walk);
