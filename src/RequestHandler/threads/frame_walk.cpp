// The frames of one thread in an all-threads sample.
#include "all_threads_sample.h"
#include "qorsettings.h"
#include "qortiers.h"
#include "qorutil.h"
#include "stack_rows.h"

#include <algorithm>

namespace {

// The rows end here: one in the room kept for it stands for the frames from here to the bottom.
void EndRows(QorThreadWalk *walk, const QorFrameHandle &frames) {
    walk->rowsFull = true;
    walk->stackRows.size += LONGEST_SKIP_ROW;
    QorAppendSkipRow(&walk->stackRows, frames.count - frames.index, walk->thread.tid, frames.index);
}

// In a long stack only the frames down to the first user call, half of the recorded depth after it and the
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
    if (sample->writesStacks && !walk->rowsFull &&
        QorAppendSkipRow(&walk->stackRows, walk->omitted, walk->thread.tid, frames.index) < 0)
        EndRows(walk, frames);
    frames.index += walk->omitted;
}

// A frame of interest: reads it at once, or lists it for the pass at the end. Below a framework frame the
// user call is looked for again, as the one above it says less than what the framework works on.
QorFramework NoteXtierFrame(QorThreadWalk *walk, const QorFrameRecord *frame, uint32_t kinds) {
    if (gbQorRELocal) {
        QorReadFrameAtOnce(&walk->thread, walk->key, frame, kinds, &walk->xtier);
        return FRAMEWORK_NONE;
    }
    const QorFramework framework = QorListXtierFrame(&walk->thread, frame, kinds, &walk->xtier);
    if (framework != FRAMEWORK_NONE)
        walk->userCallFound = false;
    return framework;
}

// The place of the framework frame among the stack rows, where a row with its data can go in.
void NoteFrameworkRow(QorThreadWalk *walk) {
    walk->frameworkRow = walk->stackRows.length;
    for (QorFrameworkMeeting *meeting : {&walk->xtier.view, &walk->xtier.groovy, &walk->xtier.el})
        if (*meeting == MEETING_NOW)
            *meeting = MEETING_RECORDED;
}

// The current call is the first user call, or the top frame while no user call is known. A framework frame
// says less than the call above it, which stays until the framework's data takes its columns.
void NoteCurrentCall(QorThreadWalk *walk, const QorFrameRecord *frame, QorFramework framework,
                     bool filtering) {
    const bool isUserCall = frame->callType != 0;
    if (!isUserCall && frame->frameIndex != 0)
        return;
    walk->framework = framework;
    if (framework == FRAMEWORK_NONE || walk->currentCall.length == 0) {
        QorTextCut(&walk->currentCall, 0);
        QorAppendFrameGroup(&walk->currentCall, frame, null_str, null_str);
    }
    if (!isUserCall)
        return;
    walk->userCallFound = true;
    walk->userFrame = frame->frameIndex;
    walk->userCallIsIdle = filtering && checkCurrCall(frame->className, frame->method) == 0;
}

// Rules may keep a thread in the sample for such a frame, whether its locals are read or not.
bool IsRequestOrDatabase(const QorFrameShape &shape) {
    const uint32_t tiers = shape.frame.facts ? shape.frame.facts->tiers : 0;
    return (shape.kinds & (FRAME_WEB | FRAME_DATABASE)) || (tiers & (TIER_WEB | TIER_DB));
}

} // namespace

void QorWalkFrames(QorSample *sample, QorThreadWalk *walk) {
    QorFrameHandle &frames = sample->frames;
    for (frames.index = 0; frames.index < frames.count; ++frames.index) {
        SkipMiddle(sample, walk);
        if (frames.index >= frames.count)
            return; // nothing is recorded after the user call
        ++walk->processed;
        QorFrameShape *shape = QorFindFrameShape(&frames);
        if (!shape)
            return;
        QorFrameRecord *frame = &shape->frame;
        frame->frameIndex = frames.index;
        walk->servesOrAsks = walk->servesOrAsks || IsRequestOrDatabase(*shape);
        const QorFramework framework =
            shape->kinds && !gbQorSkipLocal ? NoteXtierFrame(walk, frame, shape->kinds) : FRAMEWORK_NONE;
        if (!QorStateIsSettled(walk->thread.state, frames.index))
            GetThreadEnhancedState(frame, &walk->thread);
        if (!walk->userCallFound)
            NoteCurrentCall(walk, frame, framework, sample->filtering);
        if (!sample->writesStacks || walk->rowsFull)
            continue; // the frames still show state and current call
        if (framework != FRAMEWORK_NONE)
            NoteFrameworkRow(walk);
        if (QorAppendStackRow(&walk->stackRows, shape, walk->threadId, walk->threadIdLength, frames.index) <
            0)
            EndRows(walk, frames);
    }
}
