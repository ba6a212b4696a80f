#include "walk_thread.h"

#include "qorlog.h"
#include "qorrequest.h"

#include "qorutil/vm_calls.h"

int32_t stack_trace_error;

namespace {

// One hold, where a fault or a time-out can find it.
struct Held {
    QorHold hold;
    std::atomic<QorHold> *shared;
};

Held Hold(const QorThreadFacts &facts, bool again, QorRegisters *registers) {
    Held held = {0, again ? &segv_suspended_thread : &null_sp_suspended_thread};
    const QorHold hold = qor_suspend_thread(facts.address, facts.id, again ? HOLD_OBJECT_MOVE : HOLD_NULL_SP);
    *held.shared = hold;
    if (hold && QorAwaitHeld(hold, registers))
        held.hold = hold;
    else
        *held.shared = 0;
    return held;
}

// False when the thread wasn't held to the end.
bool Release(const Held &held) {
    if (!held.hold)
        return true;
    const bool whole = QorStillHeld(held.hold);
    qor_resume_thread(held.hold);
    *held.shared = 0;
    return whole;
}

// Whether the thread has left the frame that its walk began at: what was read above may be of two stacks.
bool HasMovedOn(uint64_t thread, const QorRegisters &from) {
    QorRegisters now;
    return QorReadAnchor(thread, &now) != ANCHOR_READ || now.sp != from.sp || now.pc != from.pc;
}

QorWalkResult ResultOf(QorWalkEnd end) {
    switch (end) {
    case WALK_NOTHING:
        return WALKED_NONE;
    case WALK_UNDOABLE:
        return WALKED_UNDONE;
    case WALK_FAULT:
        return WALK_FAILED;
    case WALK_TO_ASK:
        return WALK_ASKED;
    case WALK_TOO_DEEP:
        return WALK_OVERRUN;
    default:
        return WALKED;
    }
}

void LogWalk(const QorThreadFacts &facts, const QorStackWalk &walk, bool whole) {
    if (walk.linkLost && walk.present.mapRegister == NO_STACK_MAP) {
        QORLOG(LOG_POLL_FAILURE, "Invalid map index: Cannot find the link offset");
    } else if (walk.linkLost) {
        QORLOG(LOG_POLL_FAILURE, "Oop Map search failed: link offset not found");
        QORLOG(LOG_POLL_FAILURE, "map_content_reg was %d", walk.present.mapRegister);
    }
    if (!whole)
        QORLOG(LOG_DETAIL, "Thread 0x%lx went on before its stack was read", facts.address);
}

} // namespace

QorWalkResult QorWalkThread(QorWalkedThread *thread, bool hold, bool monitors) {
    const QorThreadFacts &facts = thread->facts;
    QorStackWalk walk = {};
    thread->frames = stack_trace_error = 0;
    QorAnchorLook anchor = QorReadAnchor(facts.address, &walk.at);
    if (anchor == ANCHOR_GONE || (anchor == ANCHOR_RESTLESS && !hold))
        return WALK_FAILED;
    const bool holds = sp_null_enable && facts.vmState == VM_STATE_JAVA && (hold || walk.at.sp == 0);
    QorReadCodeRanges(&walk.code);
    QorReadCodeCopy(facts.address, &walk.copy);
    walk.monitors = monitors;

    if (holds && walk.at.sp == 0) // nobody is held yet
        QORLOG(LOG_TRACE, "Qor Agent: _sp is NULL for 0x%x %s", static_cast<uint32_t>(facts.address),
               thread->name);
    const Held held = holds ? Hold(facts, hold, &walk.at) : Held();
    walk.held = held.hold != 0;
    if (!walk.held && (holds || anchor == ANCHOR_RESTLESS)) { // it may have left one meanwhile
        anchor = QorReadAnchor(facts.address, &walk.at);
        if (anchor != ANCHOR_READ || walk.at.sp == 0)
            return anchor == ANCHOR_GONE ? WALK_FAILED : WALK_NOT_HELD;
    }
    const QorRegisters from = walk.at;
    const QorWalkEnd end = QorWalkStack(&walk);
    const bool whole = Release(held);

    LogWalk(facts, walk, whole);
    if (!whole)
        return WALK_CUT;
    if (!walk.held && !hold && HasMovedOn(facts.address, from))
        return WALK_FAILED;
    if (end == WALK_TO_ASK)
        QorAskBlob(walk.blob);
    stack_trace_error = end == WALK_TOO_DEEP;
    thread->frames = walk.records;
    return walk.linkLost ? WALKED_LOST : ResultOf(end);
}
