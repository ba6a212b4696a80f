// The frames of one thread in an all-threads sample.
#include "all_threads_sample.h"
#include "qorlog.h"
#include "qorsettings.h"
#include "qorutil.h"
#include "stack_rows.h"

#include <algorithm>

namespace {

// In a long stack only the frames down to the first user call, half of the recorded depth behind it and the
// other half at the bottom are kept. Jumps over the rest once that place is reached; a stack that turns out
// too short for it is not looked at again.
void SkipMiddle(QorSample *sample, QorThreadWalk *walk) {
    QorFrameHandle &frames = sample->frames;
    const int32_t recorded = std::max(maxStackDepthRecorded, 0);
    if (walk->userFrame < 0 || walk->omitted != 0 || frames.index <= walk->userFrame + recorded / 2.0)
        return;
    walk->omitted = frames.count - recorded - walk->userFrame - 1;
    if (walk->omitted <= 0)
        return;
    if (sample->writesStacks)
        QorAppendSkipRow(&walk->stackRows, walk->omitted, walk->thread.tid, frames.index);
    frames.index += walk->omitted;
}

// The current call is the first user call, or the top frame while no user call is known.
void NoteCurrentCall(QorThreadWalk *walk, const QorFrameRecord *frame, bool filtering) {
    const bool isUserCall = frame->callType != 0;
    if (!isUserCall && frame->frameIndex != 0)
        return;
    QorTextCut(&walk->currentCall, 0);
    QorAppendFrameGroup(&walk->currentCall, frame, null_str, null_str);
    if (!isUserCall)
        return;
    walk->userFrame = frame->frameIndex;
    walk->userCallIsIdle = filtering && checkCurrCall(frame->className, frame->method) == 0;
}

} // namespace

void QorWalkFrames(QorSample *sample, QorThreadWalk *walk) {
    QorFrameHandle &frames = sample->frames;
    for (frames.index = 0; frames.index < frames.count; ++frames.index) {
        SkipMiddle(sample, walk);
        if (frames.index >= frames.count)
            return; // nothing is recorded behind the user call
        ++walk->processed;
        QorFrameShape *shape = QorFindFrameShape(&frames);
        if (!shape)
            return;
        QorFrameRecord *frame = &shape->frame;
        frame->frameIndex = frames.index;
        if (!gbQorSkipLocal)
            QorListXtierFrame(&walk->thread, frame, &walk->xtier);
        if (!QorStateIsSettled(walk->thread.state, frames.index))
            GetThreadEnhancedState(frame, &walk->thread);
        if (walk->userFrame < 0)
            NoteCurrentCall(walk, frame, sample->filtering);
        if (sample->writesStacks && QorAppendStackRow(&walk->stackRows, shape, walk->threadId,
                                                      walk->threadIdLength, frames.index) < 0)
            return;
    }
}
