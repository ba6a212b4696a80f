// The slots of held threads: who is to be held, who is, and who hasn't come yet.
//
// A slot belongs to one hold of one thread at a time. Its state and its generation share one word, which
// changes by compare-and-swap only, so that worker, held thread and a caller that has run out of time may act
// on it at once:
//
//   FREE -> ASKED      worker: the signal is about to be sent
//   ASKED -> ENTERED   thread: the signal has come, the registers follow
//   ENTERED -> HELD    thread: the registers are in the slot; the thread sleeps on the word
//   HELD -> LEAVING    whoever releases, or the thread itself when the hold's time is over
//   ENTERED -> LEAVING whoever releases, before the registers were complete
//   ASKED -> ABANDONED whoever releases: the signal is still on its way, and must not hold
//   ... -> FREE        the thread, last of all; or the worker once no signal of this hold can come any more
//
// A slot is FREE only when no signal of its holds is under way. The handler's removal relies on that: a
// signal that came after it would meet the action before ours, which may end the process.
//
// Nothing here logs, allocates, takes a lock or calls anything but the kernel. errno may change.
#pragma once

#include <atomic>
#include <cstdint>

enum : int32_t { SLOT_COUNT = 8191, HOLD_SIGNAL = 31 };

// One hold: slot and generation. 0 is none. It stays valid as a name for ever; a slot's later holds have
// others.
using QorHold = uint64_t;

struct QorRegisters {
    uint64_t sp, pc, fp;
};

// A thread as the kernel knows it. `start` is the time it was started, in the kernel's ticks; 0: unknown.
struct QorThreadName {
    int32_t id;
    uint64_t start;
};

// CLOCK_MONOTONIC in nanoseconds. Any thread, any handler.
int64_t QorMonotonicNsec();

// ---- Worker ----------------------------------------------------------------------------------------------

// Claims a slot for `thread`, which leaves by itself at `end` (QorMonotonicNsec). `owner` is kept for the
// caller. 0 when a slot has this thread already, or none is free. One claimer at a time.
QorHold QorClaimSlot(const QorThreadName &thread, uint64_t owner, int64_t end);

// The signal was sent, or wasn't. Until one of them is called the slot can't become free.
void QorSlotSent(QorHold hold);
void QorSlotNotSent(QorHold hold);

// Waits until `until` for the thread to be held. True with its registers; on false the hold is released.
bool QorAwaitSlot(QorHold hold, int64_t until, QorRegisters *out);

// What a hold was claimed for. Of the slot's latest hold once this one is over.
uint64_t QorSlotOwner(QorHold hold);
int32_t QorSlotThread(QorHold hold);

// Frees what no handler will: slots of threads that have ended, and abandoned ones whose signal is no longer
// pending. `trustPending`: whether the system shows pending signals. At most a few file reads a slot in use.
void QorSweepSlots(bool trustPending);

// Whether each slot is FREE.
bool QorSlotsAllFree();

// Whether no thread is held or on its way out; those that haven't come don't count. `id` 0: any thread.
bool QorSlotsLeftBy(int32_t id);

// ---- Any thread, any handler -----------------------------------------------------------------------------

// Whether the thread is held by this very hold, and was all the time since it came.
bool QorSlotHeld(QorHold hold);

// Lets the thread go. Idempotent; a hold that is over, or none, does nothing. False when it wasn't HELD.
bool QorReleaseSlot(QorHold hold);
void QorReleaseAllSlots();

// ---- The signal's handler, on the thread in question -----------------------------------------------------

// The signal of `hold` has come to thread `id`: holds the thread until the release or the hold's end, unless
// the hold is over, abandoned or another thread's.
void QorParkInSlot(QorHold hold, int32_t id, const QorRegisters &registers);

// A signal has come to thread `id` whose sender is lost. True when the thread was asked for: taken as that
// ask, which then holds nobody.
bool QorTakeNamelessAsk(int32_t id);

// A signal of somebody else's has come to thread `id`. The kernel keeps one of two pending ones, so ours may
// be lost: an abandoned slot is freed, but if there is one pending still.
void QorFreeAbandonedOf(int32_t id);

// Holds that the thread ended because their time was over, counted up only.
extern std::atomic<uint32_t> qorHoldsEnded;

// Bytes of stack that the last arrival took below the interrupted code, the kernel's frame included; 0 when
// the handler ran on another stack, and before the first.
uint32_t QorHandlerDepth();
