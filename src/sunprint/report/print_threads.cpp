#include "print_threads.h"

#include "call_stack_trace.h"
#include "collect_thread.h"
#include "qorthreads/running_queue.h"

#include "qorlog.h"
#include "qorrequest.h"
#include "reply/qorformat.h"

#include "Xtier/thread_e2e_info.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "qorutil/vm_threads.h"

#include <cstring>

namespace {

constexpr char ALL_THREADS_WORD[] = "JVMALLTHREADS";
constexpr uint32_t WITH_MONITORS = 0x8 | QORREQ_THREAD_DETAILS | QORREQ_LOCK_HOLDER | QORREQ_SAMPLING;
constexpr int32_t FIRST_OS_STATE = 2; // before it a thread is still being made
constexpr int32_t QUEUE_TRIES = 6, LOOKS_PER_ELEMENT = 12;
constexpr int32_t MAX_ASKED = 16; // kinds of code met on one thread

// Texts of the current thread.
char console_thread_buf[102400], console_call_buf[10240], mon_entry_buf[10240], mon_console_buf[10240];
uint64_t listed[MAX_VM_THREADS];
QorWalkedThread walked; // 3 KB

// The heap just before facts and name of that thread were read.
uint32_t collectionsBefore;
bool collectingBefore;

void StartTexts(QorThreadText *text) {
    *text = {};
    QorTextStart(&text->rows, console_thread_buf, sizeof console_thread_buf);
    QorTextStart(&text->call, console_call_buf, sizeof console_call_buf);
    QorTextStart(&text->waits, mon_entry_buf, sizeof mon_entry_buf);
    QorTextStart(&text->locks, mon_console_buf, sizeof mon_console_buf);
}

// What stays true of a thread when its frames can't be known.
void KeepStateAlone(const QorThreadFacts &facts, QorThreadText *text) {
    StartTexts(text);
    text->state = facts.state;
}

// How often one thread is read again, by reason.
struct Attempts {
    int32_t faults, cuts, collections, asked;
    bool isLast; // there is no later turn: a thread that doesn't stop is shown without frames
};

// Whether objects may have moved since the thread was looked at.
bool HasCollected() {
    return collectingBefore || QorIsCollecting() || QorCollectionCount() != collectionsBefore;
}

// Fills `walked` but for its frames. False when the memory is gone.
bool LookAt(uint64_t thread) {
    collectionsBefore = QorCollectionCount();
    collectingBefore = QorIsCollecting();
    if (!QorReadThreadFacts(thread, &walked.facts))
        return false;
    QorNoteSpaces();
    QorReadThreadName(walked.facts, walked.name);
    QorFormatDirectKey(walked.facts, walked.key);
    return true;
}

// The same for another reading. False also when it has become another thread's.
bool LookAgain() {
    const int32_t id = walked.facts.id;
    return LookAt(walked.facts.address) && walked.facts.id == id;
}

enum Reading { READ, READ_AGAIN, NO_ROW, LEFT_UNDONE, LAST_READ };

Reading AfterFault(Attempts *attempts) {
    if (++attempts->faults <= 1)
        return READ_AGAIN;
    QORLOG(LOG_DETAIL, "QorAgent S-DIAGNOSTIC Code : Thread 0x%lx, %s", walked.facts.address, walked.name);
    return NO_ROW;
}

// A stack that was cut isn't shown: a poll leaves the thread out, other views show it without frames.
Reading AfterCut(const QorDirectSample &sample, Attempts *attempts, QorThreadText *text) {
    if (++attempts->cuts <= 1)
        return READ_AGAIN;
    QORLOG_RATIONED(LOG_WARNING, "Thread 0x%lx was read twice in vain: held for too long",
                    walked.facts.address);
    if (sample.request.reqid & QORREQ_SAMPLING)
        return NO_ROW;
    KeepStateAlone(walked.facts, text);
    return READ;
}

// One reading of the thread, its facts known.
Reading ReadOnce(const QorDirectSample &sample, Attempts *attempts, QorThreadText *text) {
    switch (QorWalkThread(&walked, attempts->faults > 0, sample.request.reqid & WITH_MONITORS)) {
    case WALKED:
        break;
    case WALKED_NONE:
    case WALKED_UNDONE:
        return LEFT_UNDONE;
    case WALKED_LOST:
        if (sample.request.reqid & QORREQ_SAMPLING)
            return LEFT_UNDONE;
        KeepStateAlone(walked.facts, text);
        return READ;
    case WALK_FAILED:
        return AfterFault(attempts);
    case WALK_NOT_HELD:
        if (!attempts->isLast)
            return LEFT_UNDONE;
        break;
    case WALK_CUT:
        return AfterCut(sample, attempts, text);
    case WALK_ASKED:
        return ++attempts->asked < MAX_ASKED ? READ_AGAIN : LEFT_UNDONE;
    case WALK_OVERRUN:
        return NO_ROW;
    }
    const QorReport report = QorReportFrames(walked, sample.request, text);
    if (report == REPORT_UNREADABLE)
        return AfterFault(attempts);
    if (report == REPORT_DROPPED)
        return NO_ROW;
    if (report == REPORT_PORT_FOUND)
        return LAST_READ;
    if (HasCollected()) {
        if (++attempts->collections <= 1)
            return READ_AGAIN;
        KeepStateAlone(walked.facts, text);
    }
    return READ;
}

// Reads the thread in `walked` and adds it to the reply. False when it may be tried once more later, if this
// turn isn't the last.
bool PrintSunThreadStack(QorDirectSample *sample, bool isLast) {
    const QorThreadFacts &facts = walked.facts;
    if (facts.object == 0 || !is_in_heap(facts.object))
        return false;
    if (facts.osState < FIRST_OS_STATE || facts.osState > OS_STATES)
        return false;
    QorThreadText text;
    KeepStateAlone(facts, &text);
    Attempts attempts = {};
    attempts.isLast = isLast;
    Reading reading = (sample->request.reqid & QORREQ_JUST_THREADS) && no_gc ? READ : READ_AGAIN;
    while (reading == READ_AGAIN && !qorLeave) {
        StartTexts(&text);
        reading = ReadOnce(*sample, &attempts, &text);
        if (reading == READ_AGAIN && !LookAgain())
            reading = NO_ROW;
    }
    if (reading == READ && QorStillThatThread(facts))
        QorCollectThread(sample, walked, text);
    sample->ended |= reading == LAST_READ;
    return reading != LEFT_UNDONE;
}

// Whether the thread counts, by a fresh look at it.
bool Counts(const QorDirectSample &sample, uint64_t thread, int32_t *looks) {
    return LookAt(thread) && call_stack_trace(walked, sample.request, looks);
}

void ReadThreadOfList(QorDirectSample *sample, uint64_t thread) {
    if (!Counts(*sample, thread, nullptr))
        return;
    if ((sample->request.reqid & QORREQ_SAMPLING) && walked.facts.lastSp == 0 && !trace_single_thread_details)
        add_queue_elem(thread);
    else
        PrintSunThreadStack(sample, true);
}

void ReadQueued(QorDirectSample *sample, QueueElem *elem) {
    if (PrintSunThreadStack(sample, elem->tries == QUEUE_TRIES - 1)) {
        delete_queue_elem(elem);
    } else if (++elem->tries == QUEUE_TRIES) {
        QORLOG(LOG_DETAIL, "Qor Agent: Could not get details for thread 0x%lx, in %d tries", elem->thread,
               QUEUE_TRIES - 1);
        delete_queue_elem(elem);
    }
}

// Goes round the queue until it is empty. A thread that has turned idle never counts again, which is why the
// looks have a bound.
void ReadQueue(QorDirectSample *sample) {
    int64_t looks = static_cast<int64_t>(QorQueueLength()) * LOOKS_PER_ELEMENT;
    while (QorQueueLength() > 0 && looks > 0) {
        int32_t at = 0;
        while (QueueElem *elem = QorNextInQueue(&at)) {
            if (looks-- <= 0 || sample->ended || qorLeave)
                return;
            if (Counts(*sample, elem->thread, &elem->looks))
                ReadQueued(sample, elem);
        }
    }
}

void ReadThreads(QorDirectSample *sample) {
    QorForgetPages();
    QorClearQueue();
    const int32_t count = QorListThreads(listed);
    for (int32_t i = 0; i < count && !sample->ended && !qorLeave; i++)
        ReadThreadOfList(sample, listed[i]);
    ReadQueue(sample);
    if (qorLeave && !sample->ended)
        qorReplyIsCut = true;
    QorTendHolds();
}

} // namespace

void PrintSunThreads(uint32_t reqid, QorText *reply, char **args) {
    refresh_heap = 1;
    release_thread_e2e_info(nullptr); // nobody asked for those of the sample before
    const bool everyThread = trace_all_threads || (args[0] && strncmp(args[0], ALL_THREADS_WORD,
                                                                      sizeof ALL_THREADS_WORD - 1) == 0);
    QorDirectSample sample = {};
    sample.reply = reply;
    sample.request = {reqid, args, everyThread, 0};
    if ((reqid & QORREQ_LOCK_HOLDER) && args[0])
        sample.request.lock = atoqoraddr(args[0]);
    if (!QorOpenDirectReply(&sample))
        return;
    ReadThreads(&sample);
    QorCloseDirectReply(&sample);
}
