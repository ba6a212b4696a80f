// Cross-tier frames: which frames of a sample hold data of other tiers, and their way into the reply.
//
// A sample classifies each frame while it walks, reads the objects of the listed frames in one pass after the
// walk, and then puts what it found into the rows. No frame kind is known yet: nothing is listed, so nothing
// is read or put in, and the rows keep the placeholders for data that is not known.
//
// Worker only.
#pragma once

#include "jvmti/ThreadSystem.h"
#include "qortext.h"

#include <cstdint>

// What has been listed for one thread; all zero before its first frame.
struct QorXtierFlags {
    int32_t listedFrames;
};

// Lists a frame of the thread if it is of interest.
void QorListXtierFrame(const QorThreadRecord *thread, const QorFrameRecord *frame, QorXtierFlags *flags);

// Reads the objects of all listed frames and puts what they tell into the reply.
void QorInsertXtierData(QorText *reply);

// Ends the lists of a sample; on every way out of the view.
void QorFreeXtierLists();
