#include "held_slots.h"

#include "task_stat.h"

#include <cerrno>
#include <climits>
#include <csignal>
#include <ctime>
#include <linux/futex.h>
#include <sys/syscall.h>
#include <unistd.h>

std::atomic<uint32_t> qorHoldsEnded;

namespace {

enum State : uint32_t { SLOT_FREE, SLOT_ASKED, SLOT_ENTERED, SLOT_HELD, SLOT_LEAVING, SLOT_ABANDONED };

constexpr uint32_t STATE_BITS = 3, STATE_MASK = (1U << STATE_BITS) - 1;
constexpr uint32_t HOLD_SLOT_SHIFT = 32;
constexpr int64_t NSEC_PER_SEC = 1000000000;
constexpr uint64_t LEAF_DEPTH = 256, LARGEST_DEPTH = 64 * 1024; // below the measuring function; of one stack

struct alignas(64) Slot {
    std::atomic<uint32_t> word; // generation and state
    std::atomic<int32_t> thread;
    // Written by the claimer while the slot is FREE, but for `sent`.
    std::atomic<uint64_t> start, owner;
    std::atomic<int64_t> end;
    std::atomic<uint32_t> sent;
    // Written by the thread while ENTERED.
    std::atomic<uint64_t> sp, pc, fp;
};

Slot slots[SLOT_COUNT];
std::atomic<int32_t> slotsUsed; // no slot from here on was ever claimed
std::atomic<uint32_t> depth;

uint32_t StateOf(uint32_t word) {
    return word & STATE_MASK;
}

uint32_t WithState(uint32_t word, State state) {
    return (word & ~STATE_MASK) | state;
}

// A hold is its slot's number plus 1 above the word's generation, whose state bits are 0.
QorHold HoldOf(int32_t slot, uint32_t word) {
    return (static_cast<uint64_t>(slot) + 1) << HOLD_SLOT_SHIFT | WithState(word, SLOT_FREE);
}

Slot *SlotOf(QorHold hold) {
    const uint64_t number = hold >> HOLD_SLOT_SHIFT;
    return number >= 1 && number <= SLOT_COUNT ? &slots[number - 1] : nullptr;
}

uint32_t WordOf(QorHold hold, State state) {
    return WithState(static_cast<uint32_t>(hold), state);
}

bool Move(Slot *slot, uint32_t word, State to) {
    return slot->word.compare_exchange_strong(word, WithState(word, to));
}

// Sleeps while the word is this, until `end` at the latest. False when that was the reason to wake, or the
// system refuses to wait: nobody may turn in a loop here.
bool SleepOn(const Slot *slot, uint32_t word, int64_t end) {
    const timespec until = {static_cast<time_t>(end / NSEC_PER_SEC), static_cast<long>(end % NSEC_PER_SEC)};
    return syscall(SYS_futex, &slot->word, FUTEX_WAIT_BITSET_PRIVATE, word, &until, nullptr,
                   FUTEX_BITSET_MATCH_ANY) == 0 ||
           errno == EAGAIN || errno == EINTR;
}

void Wake(const Slot *slot) {
    syscall(SYS_futex, &slot->word, FUTEX_WAKE_PRIVATE, INT_MAX);
}

// What a release does to a word: the state that follows, or the same where there is nothing to do.
State Released(uint32_t state) {
    switch (state) {
    case SLOT_ASKED:
        return SLOT_ABANDONED;
    case SLOT_ENTERED:
    case SLOT_HELD:
        return SLOT_LEAVING;
    default:
        return static_cast<State>(state);
    }
}

// Releases the hold that `word` is of. The state that it had.
uint32_t Release(Slot *slot, uint32_t word) {
    const uint32_t generation = WithState(word, SLOT_FREE);
    while (WithState(word, SLOT_FREE) == generation) {
        const State next = Released(StateOf(word));
        if (next == StateOf(word))
            break;
        if (!slot->word.compare_exchange_strong(word, WithState(word, next)))
            continue;
        if (StateOf(word) == SLOT_HELD)
            Wake(slot);
        return StateOf(word);
    }
    return SLOT_FREE;
}

bool IsPending(int signal) {
    sigset_t pending;
    return sigpending(&pending) != 0 || sigismember(&pending, signal);
}

// A signal for an abandoned slot was lost, unless one is pending or not yet sent.
bool FreeIfLost(Slot *slot, uint32_t word) {
    return StateOf(word) == SLOT_ABANDONED && slot->sent && !IsPending(HOLD_SIGNAL) &&
           Move(slot, word, SLOT_FREE);
}

// Whether no signal of the slot can come any more, though its thread may not have answered.
bool NoneCanCome(const Slot &slot, uint32_t word, bool trustPending) {
    QorTaskStat task;
    const TaskLook look = QorLookAtTask(slot.thread, &task);
    if (look == TASK_GONE)
        return true;
    if (look == TASK_UNKNOWN)
        return false;
    const uint64_t start = slot.start;
    if (start != 0 && task.start != start)
        return true;
    return trustPending && StateOf(word) == SLOT_ABANDONED && (task.pending >> (HOLD_SIGNAL - 1) & 1) == 0;
}

void Sweep(Slot *slot, bool trustPending, int64_t now) {
    uint32_t word = slot->word;
    if (StateOf(word) == SLOT_FREE || !slot->sent)
        return;
    if (StateOf(word) != SLOT_ABANDONED) {
        if (slot->end > now)
            return;
        Release(slot, word); // its worker has left it
        word = slot->word;
    }
    if (StateOf(word) != SLOT_FREE && NoneCanCome(*slot, word, trustPending))
        Move(slot, word, SLOT_FREE);
}

void MeasureDepth(uint64_t interrupted) {
    uint64_t sp;
    __asm__("movq %%rsp, %0" : "=r"(sp));
    const uint64_t taken = interrupted - sp + LEAF_DEPTH;
    depth = taken < LARGEST_DEPTH ? static_cast<uint32_t>(taken) : 0;
}

// Sleeps, held, until the release or the hold's end.
void Stay(Slot *slot, uint32_t held) {
    const int64_t end = slot->end;
    while (slot->word == held) {
        if (!SleepOn(slot, held, end)) {
            if (Move(slot, held, SLOT_LEAVING) && end != 0)
                qorHoldsEnded++;
            return;
        }
    }
}

template <typename Test>
bool EachSlot(Test test) {
    const int32_t used = slotsUsed;
    for (int32_t i = 0; i < used; i++) {
        if (!test(slots[i], StateOf(slots[i].word)))
            return false;
    }
    return true;
}

} // namespace

int64_t QorMonotonicNsec() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * NSEC_PER_SEC + now.tv_nsec;
}

QorHold QorClaimSlot(const QorThreadName &thread, uint64_t owner, int64_t end) {
    const int32_t used = slotsUsed;
    int32_t chosen = -1;
    for (int32_t i = 0; i < used; i++) {
        const bool isFree = StateOf(slots[i].word) == SLOT_FREE;
        if (!isFree && slots[i].thread == thread.id)
            return 0;
        if (isFree && chosen < 0)
            chosen = i;
    }
    if (chosen < 0 && used == SLOT_COUNT)
        return 0;
    if (chosen < 0)
        chosen = used;
    Slot *slot = &slots[chosen];
    slot->thread = thread.id;
    slot->start = thread.start;
    slot->owner = owner;
    slot->end = end;
    slot->sent = 0;
    const uint32_t word = WithState(slot->word + (1U << STATE_BITS), SLOT_ASKED);
    slot->word = word;
    if (chosen == used)
        slotsUsed = used + 1;
    return HoldOf(chosen, word);
}

void QorSlotSent(QorHold hold) {
    SlotOf(hold)->sent = 1;
}

void QorSlotNotSent(QorHold hold) {
    Slot *slot = SlotOf(hold);
    if (!Move(slot, WordOf(hold, SLOT_ASKED), SLOT_FREE))
        Move(slot, WordOf(hold, SLOT_ABANDONED), SLOT_FREE);
}

bool QorAwaitSlot(QorHold hold, int64_t until, QorRegisters *out) {
    Slot *slot = SlotOf(hold);
    if (!slot)
        return false;
    uint32_t word = slot->word;
    while (word == WordOf(hold, SLOT_ASKED) || word == WordOf(hold, SLOT_ENTERED)) {
        const bool more = SleepOn(slot, word, until);
        if (!more && slot->word == word) {
            QorReleaseSlot(hold);
            return false;
        }
        word = slot->word;
    }
    if (word != WordOf(hold, SLOT_HELD))
        return false;
    *out = {slot->sp, slot->pc, slot->fp};
    return QorSlotHeld(hold);
}

uint64_t QorSlotOwner(QorHold hold) {
    const Slot *slot = SlotOf(hold);
    return slot ? slot->owner.load() : 0;
}

int32_t QorSlotThread(QorHold hold) {
    const Slot *slot = SlotOf(hold);
    return slot ? slot->thread.load() : 0;
}

void QorSweepSlots(bool trustPending) {
    const int32_t used = slotsUsed;
    const int64_t now = QorMonotonicNsec();
    for (int32_t i = 0; i < used; i++)
        Sweep(&slots[i], trustPending, now);
}

bool QorSlotsAllFree() {
    return EachSlot([](const Slot &, uint32_t state) { return state == SLOT_FREE; });
}

bool QorSlotsLeftBy(int32_t id) {
    return EachSlot([id](const Slot &slot, uint32_t state) {
        return (id != 0 && slot.thread != id) || state == SLOT_FREE || state == SLOT_ASKED ||
               state == SLOT_ABANDONED;
    });
}

bool QorSlotHeld(QorHold hold) {
    const Slot *slot = SlotOf(hold);
    return slot && slot->word == WordOf(hold, SLOT_HELD);
}

bool QorReleaseSlot(QorHold hold) {
    Slot *slot = SlotOf(hold);
    if (!slot)
        return false;
    const uint32_t word = slot->word;
    return WithState(word, SLOT_FREE) == WordOf(hold, SLOT_FREE) && Release(slot, word) == SLOT_HELD;
}

void QorReleaseAllSlots() {
    const int32_t used = slotsUsed;
    for (int32_t i = 0; i < used; i++)
        Release(&slots[i], slots[i].word);
}

void QorParkInSlot(QorHold hold, int32_t id, const QorRegisters &registers) {
    MeasureDepth(registers.sp);
    Slot *slot = SlotOf(hold);
    if (!slot || slot->thread != id)
        return;
    if (!Move(slot, WordOf(hold, SLOT_ASKED), SLOT_ENTERED)) {
        Move(slot, WordOf(hold, SLOT_ABANDONED), SLOT_FREE);
        return;
    }
    slot->sp = registers.sp;
    slot->pc = registers.pc;
    slot->fp = registers.fp;
    if (Move(slot, WordOf(hold, SLOT_ENTERED), SLOT_HELD)) {
        Wake(slot);
        Stay(slot, WordOf(hold, SLOT_HELD));
    }
    slot->word = WordOf(hold, SLOT_FREE); // last: the slot may be another thread's now
}

bool QorTakeNamelessAsk(int32_t id) {
    const int32_t used = slotsUsed;
    for (int32_t i = 0; i < used; i++) {
        Slot *slot = &slots[i];
        const uint32_t word = slot->word;
        if ((StateOf(word) != SLOT_ASKED && StateOf(word) != SLOT_ABANDONED) || slot->thread != id)
            continue;
        Release(slot, word);
        Wake(slot); // whoever waits for the thread waits in vain
        FreeIfLost(slot, slot->word);
        return true;
    }
    return false;
}

void QorFreeAbandonedOf(int32_t id) {
    const int32_t used = slotsUsed;
    for (int32_t i = 0; i < used; i++) {
        const uint32_t word = slots[i].word;
        if (StateOf(word) == SLOT_ABANDONED && slots[i].thread == id)
            FreeIfLost(&slots[i], word);
    }
}

uint32_t QorHandlerDepth() {
    return depth;
}
