// The shape of a frame: everything about it that does not depend on the thread.
//
// A sample of many threads meets the same frame, method and location, again and again: pool threads are in
// the same call. Its first meeting reads the frame and formats the fixed parts of its stack row; later ones
// find both in a table. The table is fixed and forgets everything at the next sample; a frame that finds it
// full, or that could not be read completely, is read and formatted afresh each time.
//
// Worker only, inside one walk of ThreadSystem.h.
#pragma once

#include "Xtier/Xtier.h"
#include "reply/records.h"

struct QorFrameShape {
    jmethodID method;
    jlocation location;
    uint32_t sample;      // the sample that filled the entry
    uint32_t kinds;       // QorFrameKind bits
    int32_t headLength;   // bytes of the row before the thread id
    int32_t tailLength;   // bytes of the row after the frame index
    const char *rowText;  // head and tail, one after the other; null until a row was wanted
    QorFrameRecord frame; // its frameIndex is set by who walks
};

// Forgets the frames of the last sample.
void QorStartFrameShapes();

// The shape of the frame at frameHandle->index; null when the frame can't be read. It holds until the next
// call.
QorFrameShape *QorFindFrameShape(QorFrameHandle *frameHandle);

// Appends the stack row of a frame. `threadId` is the decimal text of the Java thread id. 1, or -1 when there
// is no room: then nothing of it is written.
int32_t QorAppendStackRow(QorText *out, QorFrameShape *shape, const char *threadId, int32_t threadIdLength,
                          int32_t frameIndex);
