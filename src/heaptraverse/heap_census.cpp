#include "heap_census.h"

#include "platforms/linux.h"
#include "qorStrUtils.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorutil/vm_offsets.h"
#include "qorutil/vm_reader.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <ctime>

namespace {

constexpr char WHAT[] = "Heap census";
constexpr int64_t POLL_MSEC = 1, NSEC_PER_MSEC = 1000 * 1000;
constexpr uint64_t TALLIES = 1 << 16, MOST_TALLIES = TALLIES / 4 * 3;

// A klass's objects. Written in the copy alone.
struct Tally {
    uint64_t klass, objects, bytes;
};
Tally tallies[TALLIES]; // by address, the next free one on; klass 0 is free
uint64_t tallyCount;

bool byClass;          // what the copy does
QorHeapCensus figures; // in the process, what the last copy found
int32_t forkPipe[2] = {-1, -1};

// A klass that has no room any more isn't counted by itself.
bool TakeClass(const QorHeapObject &object, void *) {
    if (object.type != TYPE_INSTANCE && object.type != TYPE_ARRAY)
        return true;
    uint64_t at = object.klass / VM_WORD_SIZE % TALLIES;
    while (tallies[at].klass != object.klass && tallies[at].klass != 0)
        at = (at + 1) % TALLIES;
    Tally &tally = tallies[at];
    if (tally.klass == 0) {
        if (tallyCount == MOST_TALLIES)
            return true;
        tallyCount++;
        tally.klass = object.klass;
    }
    tally.objects++;
    tally.bytes += object.size;
    return true;
}

// As it is: the process makes it fit for a record.
void ReadName(uint64_t klass, char *name) {
    const uint64_t symbol = QorWordAt(klass + KLASS_PART + offsets[KLASS_NAME]);
    const size_t length = std::min<size_t>(QorUint16At(symbol + SYMBOL_LENGTH), CENSUS_NAME_SIZE - 1);
    name[0] = 0;
    if (QorIsOfType(symbol, TYPE_SYMBOL) && QorPeek(symbol + SYMBOL_BYTES, name, length))
        name[length] = 0;
    else
        name[0] = 0;
}

void TakeLargest(QorHeapCensus *out) {
    out->classCount = static_cast<int32_t>(std::min<uint64_t>(tallyCount, CENSUS_CLASSES));
    std::partial_sort(tallies, tallies + out->classCount, tallies + TALLIES,
                      [](const Tally &a, const Tally &b) { return a.bytes > b.bytes; });
    for (int32_t i = 0; i < out->classCount; i++) {
        out->classes[i].objects = tallies[i].objects;
        out->classes[i].bytes = tallies[i].bytes;
        ReadName(tallies[i].klass, out->classes[i].name);
    }
}

// The copy's work.
int32_t CountInCopy() {
    auto *out = static_cast<QorHeapCensus *>(QorForkResult());
    QorScanPlainly();
    if (QorIsCollecting())
        return FORK_NOT_STILL;
    if (QorMeasureHeap() != 0)
        return EIO;
    for (int32_t i = 0; i < NUM_HEAP_SPACES; i++)
        QorScanSpace(i, &out->content[i], byClass ? TakeClass : nullptr, nullptr);
    if (byClass)
        TakeLargest(out);
    std::copy(heapspace, heapspace + NUM_HEAP_SPACES, out->spaces);
    out->summary = heap;
    return 0;
}

// The copy's end, seen in the process.
void TakeFigures(QorForkState state, int32_t, const void *result) {
    if (state != FORK_DONE)
        return;
    figures = *static_cast<const QorHeapCensus *>(result);
    for (int32_t i = 0; i < figures.classCount; i++) {
        char *name = figures.classes[i].name;
        QorMakeFit(name);
    }
}

void Pause() {
    constexpr timespec PAUSE = {0, POLL_MSEC * NSEC_PER_MSEC};
    nanosleep(&PAUSE, nullptr);
}

const char *FailureText(const char *why) {
    static char text[128];
    snprintf(text, sizeof text, "%s failed, %s", WHAT, why);
    QORLOG(LOG_ERROR, "%s", text);
    return text;
}

// One copy and the wait for it. FORK_NONE when there was none, or it was given up.
QorForkState Attempt(int64_t until, int32_t *error, const char **refusal) {
    const QorForkPlan plan = {-1,
                              {forkPipe[0], forkPipe[1]},
                              sizeof(QorHeapCensus),
                              nullptr,
                              [] { return false; },
                              nullptr,
                              TakeFigures,
                              true};
    QorMeasureHeap();
    QorPrepareScan();
    *refusal = QorForkRefusalText(FORK_REFUSED_BY_SYSTEM);
    if (!QorPrepareFork(plan))
        return FORK_NONE;
    const pid_t pid = QorForkNow(CountInCopy);
    qor_close_handle(&forkPipe[1]); // the copy's death is then the pipe's end
    if (pid > 0 && !QorWaitForFork(forkPipe[0], until)) {
        *refusal = FailureText("no end in time");
        QorEndFork();
        return FORK_NONE;
    }
    const QorForkState state = pid > 0 ? QorForkOutcome(error) : FORK_NONE;
    QorForgetFork();
    return state;
}

} // namespace

int32_t QorCheckDirectFork() {
    QorHeapInUse use = {0, true};
    for (const HeapSpace &space : heapspace) {
        use.bytes += (QorHasFreeLists(space) ? space.end : space.top) - space.bottom;
        use.isPrivate = use.isPrivate && QorIsPrivateMemory(space.bottom);
    }
    return QorCheckFork(FORK_FOR_READING, use);
}

void QorLogSkipped(const HeapSpace *spaces, const QorSpaceCensus *content) {
    for (int32_t i = 0; i < NUM_HEAP_SPACES; i++)
        if (content[i].skippedBytes)
            QORLOG(LOG_DETAIL, "Qor Agent: Skipped %d objects, %d bytes in %s",
                   static_cast<int>(content[i].skippedRuns), static_cast<int>(content[i].skippedBytes),
                   spaces[i].name);
}

bool QorAwaitNoCollection(int64_t until) {
    while (QorIsCollecting()) {
        if (qorLeave || QorForkClock() >= until)
            return false;
        Pause();
    }
    return true;
}

bool QorAwaitCollectionEnd(int64_t until) {
    const uint32_t count = QorCollectionCount();
    while (!QorIsCollecting() && QorCollectionCount() == count && !qorLeave && QorForkClock() < until)
        Pause();
    return QorAwaitNoCollection(until);
}

const QorHeapCensus *QorCountHeap(bool classes, const char **refusal) {
    const int64_t until = QorForkClock() + QorForkPatience();
    byClass = classes;
    if (const int32_t refused = QorCheckDirectFork()) {
        *refusal = QorForkRefusalText(refused);
        return nullptr;
    }
    QorForkState state = FORK_MOVED;
    int32_t error = 0;
    for (int32_t made = 1; made == 1 || QorForkAgain(WHAT, made - 1, until, state, error); made++) {
        if (!qor_create_pipe(forkPipe)) {
            *refusal = QorForkRefusalText(FORK_REFUSED_BY_SYSTEM);
            return nullptr;
        }
        QorAwaitNoCollection(until);
        state = Attempt(until, &error, refusal);
        qor_close_pipe(forkPipe);
        if (state == FORK_DONE) {
            QorLogSkipped(figures.spaces, figures.content);
            return &figures;
        }
        if (state == FORK_NONE)
            return nullptr;
    }
    *refusal = FailureText(QorForkFailureText(state, error));
    return nullptr;
}
