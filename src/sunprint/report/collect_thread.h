// The reply of a sample: how a thread's texts become a record of it, and how it begins and ends.
//
// Worker only.
#pragma once

#include "frame_report.h"

struct QorDirectSample {
    QorSampleRequest request;
    QorText *reply;
    int32_t counts[DIRECT_RMI_WAIT + 1]; // threads by state, with QORREQ_JUST_THREADS
    bool shown;                          // a thread has a record
    bool ended;                          // nothing more is to be read
};

// Begins the reply; a poll without details becomes a request for active threads. False when there is nothing
// to read: the request is refused, or lacks its arguments.
bool QorOpenDirectReply(QorDirectSample *sample);

// Adds what is shown of a thread; a record that doesn't fit is left out whole and the sample ends.
void QorCollectThread(QorDirectSample *sample, const QorWalkedThread &thread, const QorThreadText &text);

// Ends it.
void QorCloseDirectReply(QorDirectSample *sample);
