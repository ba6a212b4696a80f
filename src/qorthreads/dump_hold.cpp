#include "dump_hold.h"

#include "ask_thread.h"
#include "hold_log.h"
#include "task_stat.h"

#include "qorutil/vm_reader.h"
#include "qorutil/vm_threads.h"

#include <algorithm>

std::atomic<int32_t> dump_holds_threads;

namespace {

constexpr int64_t NSEC_PER_MSEC = 1000 * 1000;
// When each round stops waiting, counted from the first: threads that the later ones find are few.
constexpr int64_t ROUND_ENDS_NSEC[] = {30 * NSEC_PER_MSEC, 40 * NSEC_PER_MSEC, 50 * NSEC_PER_MSEC};

struct Asked {
    uint64_t thread;
    QorThreadName name;
    QorHold hold;
    QorRegisters registers;
    bool held;
};
Asked asked[MAX_VM_THREADS];
int32_t askedCount;

struct Candidate {
    uint64_t thread;
    QorThreadName name;
    bool listed; // still
};
Candidate candidates[MAX_VM_THREADS];
uint64_t listed[MAX_VM_THREADS];

const Asked *FindAsked(uint64_t thread) {
    for (int32_t i = 0; i < askedCount; i++)
        if (asked[i].thread == thread)
            return &asked[i];
    return nullptr;
}

// Threads in Java code that haven't been asked, by address.
int32_t ListCandidates() {
    QorForgetPages();
    const int32_t threads = QorListThreads(listed);
    int32_t count = 0;
    for (int32_t i = 0; i < threads; i++) {
        const int32_t id = QorKernelIdOf(listed[i]);
        QorTaskStat task = {};
        if (QorMayHold(id) && QorIsInJavaCode(listed[i], id) && !FindAsked(listed[i]) &&
            QorLookAtTask(id, &task) != TASK_GONE)
            candidates[count++] = {listed[i], {id, task.start}, false};
    }
    std::sort(candidates, candidates + count,
              [](const Candidate &a, const Candidate &b) { return a.thread < b.thread; });
    return count;
}

// A JavaThread that has been freed since may be anything now.
void MarkListed(int32_t count) {
    QorForgetPages();
    const int32_t threads = QorListThreads(listed);
    for (int32_t i = 0; i < threads; i++) {
        Candidate *found =
            std::lower_bound(candidates, candidates + count, listed[i],
                             [](const Candidate &a, uint64_t thread) { return a.thread < thread; });
        if (found != candidates + count && found->thread == listed[i])
            found->listed = QorKernelIdOf(listed[i]) == found->name.id;
    }
}

void AskThem(int32_t count) {
    for (int32_t i = 0; i < count && askedCount < MAX_VM_THREADS; i++) {
        const Candidate &candidate = candidates[i];
        const QorHold hold =
            candidate.listed ? QorAskThread(candidate.thread, candidate.name, HOLD_DUMP, QorIsInJavaCode) : 0;
        if (hold)
            asked[askedCount++] = {candidate.thread, candidate.name, hold, {}, false};
    }
}

void Await(Asked *one, int32_t index, int64_t until) {
    if (!QorAwaitSlot(one->hold, until, &one->registers))
        QorNoteHold({HOLD_DUMP_LAPSED, HOLD_DUMP, index, one->thread});
    else if (QorIsInJavaCode(one->thread, one->name.id))
        one->held = true;
    else
        QorReleaseSlot(one->hold); // it has left Java code on the way
}

} // namespace

int32_t QorHoldForDump(bool (*pointless)()) {
    askedCount = 0;
    QorWaitForLeavers(0);
    dump_holds_threads = 1;
    const int64_t begin = QorMonotonicNsec();
    for (const int64_t end : ROUND_ENDS_NSEC) {
        const int32_t before = askedCount, count = ListCandidates();
        MarkListed(count);
        AskThem(count);
        bool given = false;
        for (int32_t i = before; i < askedCount && !given; i++) {
            given = !QorSlotHeld(asked[i].hold) && pointless();
            if (!given)
                Await(&asked[i], i, begin + end);
        }
        if (askedCount == before || given)
            break;
    }
    return static_cast<int32_t>(
        std::count_if(asked, asked + askedCount, [](const Asked &one) { return one.held; }));
}

void QorResumeAfterDump() {
    for (int32_t i = askedCount; i-- > 0;) {
        const Asked &one = asked[i];
        if (QorReleaseSlot(one.hold))
            QorNoteHold({HOLD_DONE, HOLD_DUMP, one.name.id, one.thread});
    }
    dump_holds_threads = 0;
}

bool QorDumpHoldIsWhole() {
    return std::all_of(asked, asked + askedCount,
                       [](const Asked &one) { return !one.held || QorSlotHeld(one.hold); });
}

bool QorDumpRegisters(uint64_t thread, QorRegisters *out) {
    const Asked *found = FindAsked(thread);
    if (!found || !found->held)
        return false;
    *out = found->registers;
    return true;
}
