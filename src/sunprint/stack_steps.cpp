#include "stack_steps.h"

#include "platforms/findsymLinSolHPIA64.h"
#include "qorutil/vm_calls.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

namespace {

constexpr uint64_t MAX_STEP = 64ULL << 20; // bytes of stack
constexpr int32_t MAX_HOPS = 3;
constexpr uint64_t MONITOR_ENTRY = 16, MONITOR_OBJECT = 8;
constexpr uint64_t WRAPPER_BELOW_FP = 48, METHOD_BELOW_FP = 16, SENDER_SP_BELOW_FP = 8, FRAME_LINK = 16;
constexpr uint64_t OSR_FP_BELOW_SP = 16, OSR_SP_BELOW_SP = 24;

bool Word(uint64_t address, uint64_t *out) {
    return QorPeekValue(address, out);
}

// Whether a frame pointer can be that of the frame at sp.
bool FpFits(uint64_t fp, uint64_t sp) {
    return fp % VM_WORD_SIZE == 0 && fp >= sp && fp - sp <= MAX_STEP;
}

bool LeadsUp(uint64_t from, uint64_t to) {
    return to % VM_WORD_SIZE == 0 && to > from && to - from <= MAX_STEP;
}

bool IsJavaCode(const QorCodeRanges &code, uint64_t pc) {
    return QorInInterpreter(code, pc) || pc == code.callStubReturn || cb(code, pc) != 0;
}

QorWalkEnd Count(QorStackWalk *walk) {
    return ++walk->visited >= MAX_FRAMES_VISITED ? WALK_TOO_DEEP : WALK_GOES_ON;
}

// ---- Steps: the registers of the sender. WALK_DONE when they lead nowhere.

// fp links: the caller's fp is at fp, the return address above it.
QorWalkEnd FollowFp(const QorRegisters &from, QorRegisters *to) {
    if (!FpFits(from.fp, from.sp))
        return WALK_DONE;
    to->sp = from.fp + FRAME_LINK;
    return Word(from.fp + VM_WORD_SIZE, &to->pc) && Word(from.fp, &to->fp) ? WALK_GOES_ON : WALK_FAULT;
}

// The interpreter keeps its sender's sp, as the caller may be compiled code with arguments on the stack.
QorWalkEnd StepInterpreted(const QorRegisters &from, QorRegisters *to) {
    const QorWalkEnd end = FollowFp(from, to);
    if (end != WALK_GOES_ON)
        return end;
    return Word(from.fp - SENDER_SP_BELOW_FP, &to->sp) ? WALK_GOES_ON : WALK_FAULT;
}

// The place of the saved fp, if the code saves it; it is carried on as it is otherwise.
bool SavedFp(const QorStackWalk &walk, uint64_t *fp) {
    const QorBlob &blob = walk.present;
    if ((blob.traits & BLOB_OSR_ADAPTER) || blob.link < 0)
        return true;
    if (!Word(walk.at.sp + static_cast<uint64_t>(blob.link) * VM_WORD_SIZE, fp))
        return false;
    if (blob.linkFromMap && !FpFits(*fp, walk.at.sp))
        *fp = 0;
    return true;
}

QorWalkEnd StepServerCode(const QorStackWalk &walk, QorRegisters *to) {
    if (!SavedFp(walk, &to->fp))
        return WALK_FAULT;
    uint64_t sp = walk.at.sp + walk.present.frameBytes;
    if (walk.present.traits & BLOB_I2C_ADAPTER) {
        if (!Word(sp - VM_WORD_SIZE, &sp))
            return WALK_FAULT;
        sp += VM_WORD_SIZE;
    }
    to->sp = sp;
    if (!Word(sp - VM_WORD_SIZE, &to->pc))
        return WALK_FAULT;
    if (!(walk.present.traits & BLOB_OSR_ADAPTER))
        return WALK_GOES_ON;
    return Word(sp - OSR_FP_BELOW_SP, &to->fp) && Word(sp - OSR_SP_BELOW_SP, &to->sp) ? WALK_GOES_ON
                                                                                      : WALK_FAULT;
}

QorWalkEnd StepClientCode(const QorStackWalk &walk, QorRegisters *to) {
    const QorWalkEnd end = FollowFp(walk.at, to);
    if (end != WALK_GOES_ON || !(walk.present.traits & BLOB_OSR_ADAPTER))
        return end;
    return Word(to->sp - OSR_SP_BELOW_SP, &to->sp) ? WALK_GOES_ON : WALK_FAULT;
}

// Code that isn't Java's: only the frames of a thread that doesn't run can be trusted to be linked by fp.
QorWalkEnd StepOutside(QorStackWalk *walk, QorRegisters *to) {
    if (!walk->held || walk->at.fp == 0 || walk->hops == MAX_HOPS)
        return WALK_DONE;
    walk->hops++;
    return FollowFp(walk->at, to);
}

QorWalkEnd Step(QorStackWalk *walk, QorRegisters *to) {
    const QorRegisters &from = walk->at;
    *to = from;
    const bool clientEntry = walk->code.clientEntry != 0 && from.pc == walk->code.clientEntry;
    if (QorInInterpreter(walk->code, from.pc) || clientEntry)
        return StepInterpreted(from, to);
    if (!walk->present.address)
        return StepOutside(walk, to);
    const QorWalkEnd end = jat_server_jvm ? StepServerCode(*walk, to) : StepClientCode(*walk, to);
    to->pc = QorTranslatePc(walk->copy, walk->code, to->pc);
    return end;
}

// A thread that was stopped at any instruction may be building its first frame, or taking it down: then the
// return address is on top of the stack, or above the fp that is already the frame's.
bool StepHalfBuilt(const QorStackWalk &walk, QorRegisters *to) {
    const QorRegisters &from = walk.at;
    *to = {from.sp + VM_WORD_SIZE, 0, from.fp};
    if (Word(from.sp, &to->pc) && IsJavaCode(walk.code, to->pc))
        return true;
    return FollowFp(from, to) == WALK_GOES_ON && IsJavaCode(walk.code, to->pc);
}

QorWalkEnd StepToSender(QorStackWalk *walk) {
    QorRegisters to;
    QorWalkEnd end = Step(walk, &to);
    const bool nowhere =
        end != WALK_GOES_ON || !IsJavaCode(walk->code, to.pc) || !LeadsUp(walk->at.sp, to.sp);
    if (walk->held && !walk->stepped && nowhere && StepHalfBuilt(*walk, &to))
        end = WALK_GOES_ON;
    walk->stepped = true;
    if (end != WALK_GOES_ON)
        return end;
    if (!LeadsUp(walk->at.sp, to.sp))
        return WALK_DONE;
    walk->at = to;
    walk->scopes = {};
    walk->scopes.sender = -1;
    return WALK_GOES_ON;
}

// From the stub through which the JVM called into Java, to the Java frame before that call.
QorWalkEnd CrossCallStub(QorStackWalk *walk) {
    QorRegisters &at = walk->at;
    uint64_t wrapper = 0, sp = 0, fp = 0;
    if (!FpFits(at.fp, at.sp))
        return WALK_NOTHING;
    if (!Word(at.fp - WRAPPER_BELOW_FP, &wrapper))
        return WALK_FAULT;
    if (wrapper == 0)
        return WALK_NOTHING;
    if (!Word(wrapper + offsets[WRAPPER_SP], &sp) || !Word(wrapper + offsets[WRAPPER_FP], &fp))
        return WALK_FAULT;
    if (!LeadsUp(at.sp, sp))
        return WALK_DONE; // 0 where the thread's Java frames begin
    at.sp = sp;
    at.fp = fp;
    if (!Word(sp - VM_WORD_SIZE, &at.pc))
        return WALK_FAULT;
    at.pc = QorTranslatePc(walk->copy, walk->code, at.pc);
    return Count(walk);
}

// ---- Records.

QorFrameInfo *NewRecord(QorStackWalk *walk, QorWalkedKind kind) {
    QorFrameInfo *frame = &frame_info[walk->records];
    *frame = {};
    frame->sp = walk->at.sp;
    frame->pc = walk->at.pc;
    frame->fp = walk->at.fp;
    frame->kind = kind;
    frame->monitorsOffset = -1;
    return frame;
}

QorWalkEnd Keep(QorStackWalk *walk) {
    return ++walk->records == MAX_FRAME_RECORDS ? WALK_DONE : Count(walk);
}

// The entries lie below `base`, down to the block's top; the one entered last is the lowest.
void ReadMonitors(uint64_t base, QorFrameInfo *frame) {
    const uint64_t top = frame->monitors;
    if (top % VM_WORD_SIZE != 0 || top > base || top < frame->sp || (base - top) % MONITOR_ENTRY != 0 ||
        base - top > MAX_FRAME_MONITORS * MONITOR_ENTRY)
        return;
    for (uint64_t entry = top; entry < base; entry += MONITOR_ENTRY) {
        const uint64_t object = QorWordAt(entry + MONITOR_OBJECT);
        if (object) // an entry that isn't in use has none
            QorAddFrameMonitor(frame, object);
    }
}

QorWalkEnd RecordInterpreted(QorStackWalk *walk) {
    const uint64_t fp = walk->at.fp;
    if (fp == 0 || !FpFits(fp, walk->at.sp))
        return WALK_UNDOABLE;
    QorFrameInfo *frame = NewRecord(walk, WALKED_INTERPRETED);
    if (!Word(fp - METHOD_BELOW_FP, &frame->method) || !Word(fp - offsets[FRAME_LOCALS], &frame->locals) ||
        !Word(fp - offsets[FRAME_BYTECODE], &frame->bcp) ||
        !Word(fp - offsets[FRAME_MONITORS_TOP], &frame->monitors))
        return WALK_FAULT;
    if (!frame->method)
        return Count(walk);
    uint64_t slots[3]; // they go downwards
    if (QorPeek(frame->locals - sizeof slots + VM_WORD_SIZE, slots, sizeof slots)) {
        frame->receiver = slots[2];
        frame->arguments[0] = slots[1];
        frame->arguments[1] = slots[0];
    }
    if (walk->monitors)
        ReadMonitors(fp - offsets[FRAME_MONITORS_TOP], frame);
    return Keep(walk);
}

QorWalkEnd RecordCompiled(QorStackWalk *walk) {
    const int32_t monitorsBefore = frameMonitorsUsed;
    QorFrameInfo *frame = NewRecord(walk, WALKED_COMPILED);
    if (QorReadScope(walk->code, walk->present.address, walk->monitors, &walk->scopes, frame))
        return Keep(walk);
    frameMonitorsUsed = monitorsBefore;
    return Count(walk);
}

QorWalkEnd Classify(QorStackWalk *walk) {
    walk->present = {};
    if (QorInInterpreter(walk->code, walk->at.pc))
        return RecordInterpreted(walk);
    switch (QorLookAtCode(walk->code, walk->at.pc, &walk->present)) {
    case BLOB_NONE:
        return Count(walk);
    case BLOB_TO_ASK:
        walk->blob = walk->present.address;
        return WALK_TO_ASK;
    case BLOB_OF_NO_KIND:
        return WALK_DONE;
    case BLOB_LINK_LOST:
        walk->linkLost = true;
        return WALK_NOTHING;
    case BLOB_FOUND:
        break;
    }
    if (walk->present.traits & BLOB_NMETHOD)
        return RecordCompiled(walk);
    return walk->present.traits ? Count(walk) : WALK_DONE;
}

} // namespace

QorWalkEnd QorWalkStack(QorStackWalk *walk) {
    walk->records = walk->visited = walk->hops = 0;
    walk->blob = 0;
    walk->linkLost = walk->stepped = false;
    walk->scopes = {};
    walk->scopes.sender = -1;
    frameMonitorsUsed = 0;
    walk->at.pc = QorTranslatePc(walk->copy, walk->code, walk->at.pc);
    for (QorWalkEnd end = WALK_GOES_ON;;) {
        while (end == WALK_GOES_ON && walk->at.sp != 0 && walk->at.pc == walk->code.callStubReturn)
            end = CrossCallStub(walk);
        if (end == WALK_GOES_ON && walk->at.sp == 0)
            end = WALK_DONE;
        if (end == WALK_GOES_ON)
            end = Classify(walk);
        if (end == WALK_GOES_ON && is_top(walk->scopes.sender, 0))
            end = StepToSender(walk);
        if (end != WALK_GOES_ON)
            return end;
    }
}
