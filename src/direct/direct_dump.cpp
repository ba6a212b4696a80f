#include "direct_dump.h"

#include "heaptraverse/dump_file.h"
#include "heaptraverse/heap_census.h"
#include "heaptraverse/heap_usage.h"
#include "heaptraverse/thread_roots.h"
#include "platforms/fork_rules.h"
#include "qorlog.h"
#include "qorrequest.h"
#include "qorthreads/dump_hold.h"
#include "qorutil/vm_heap.h"
#include "qorutil/vm_reader.h"
#include "sunprint/root_lines.h"

#include <cerrno>
#include <cstring>

namespace {

constexpr int64_t QUIET_MSEC = 2000;   // for a collection to end
constexpr int64_t FREQUENT_MSEC = 100; // between collections: there may soon be the end of one
constexpr int32_t MOST_HOLDS = 3;      // for one copy

uint32_t countBefore; // collections, when the spaces were laid out

bool IsOneMoment() {
    return !QorIsCollecting() && QorCollectionCount() == countBefore;
}

// The copy's whole life. The log's lock may be anybody's, so the log is off.
int32_t RunCopy() {
    if (!IsOneMoment() || !QorDumpHoldIsWhole())
        return FORK_NOT_STILL;
    qorloglevel = 0;
    qorLeave = 0;
    QorForgetPages();
    return QorWriteDirectDump(static_cast<QorDirectDumpResult *>(QorForkResult()));
}

bool IsWriting() {
    return logfile.writing;
}

void LogEnd(QorForkState state, int32_t error, const void *result) {
    QorLogDumpEnd(state, error, result);
    if (state == FORK_DONE)
        QorLogDirectDump(*static_cast<const QorDirectDumpResult *>(result));
}

// What takes its time and may be somewhat old. 0 or the refusal.
int32_t Prepare() {
    QorForgetPages();
    if (QorMeasureHeap() != 0)
        return FORK_REFUSED_BY_JVM;
    QorPrepareThreadRoots();
    return QorCheckDirectFork();
}

// The spaces as they are just before the hold: the next collection makes them useless.
bool LayOut() {
    if (!QorAwaitNoCollection(QorForkClock() + QUIET_MSEC))
        return false;
    countBefore = QorCollectionCount();
    QorForgetPages();
    if (QorMeasureHeap() != 0)
        return false;
    QorPrepareScan();
    QorWriteDirectHeader();
    return true;
}

// Holds and forks. From the hold to the resume nothing is logged or allocated.
int32_t ForkHeld() {
    if (!LayOut())
        return FORK_REFUSED_MOVED;
    const int32_t held = QorHoldForDump([] { return !IsOneMoment(); });
    const int32_t pid = IsOneMoment() ? QorForkNow(RunCopy) : FORK_REFUSED_MOVED;
    const int error = errno;
    QorResumeAfterDump();
    QorTendHolds();
    QORLOG(LOG_NOTE, "Heap dump: %d threads were held", held);
    if (pid == -1)
        QORLOG(LOG_ERROR, "No copy of the process: %s", strerror(error));
    return pid;
}

// Where collections are frequent, a try that begins as soon as one has ended has most time.
int32_t ForkStill() {
    int32_t pid = ForkHeld();
    for (int32_t tries = 1; tries < MOST_HOLDS && pid == FORK_REFUSED_MOVED && !qorLeave &&
                            QorAwaitCollectionEnd(QorForkClock() + FREQUENT_MSEC);
         tries++)
        pid = ForkHeld();
    return pid;
}

} // namespace

int32_t QorForkDirectDump(const char *path, const int32_t pipe[2]) {
    const int32_t refusal = Prepare();
    if (refusal)
        return refusal;
    if (initTraverse(path) != 0)
        return FORK_REFUSED_FILE;
    const QorForkPlan plan = {
        logfile.fd, {pipe[0], pipe[1]}, sizeof(QorDirectDumpResult), nullptr, IsWriting, nullptr, LogEnd,
        true};
    if (!QorPrepareFork(plan)) {
        logfile.error = ENOMEM;
        QorDumpClose(&logfile);
        return FORK_REFUSED_BY_SYSTEM;
    }
    const int32_t pid = ForkStill();
    QorDumpAbandon(&logfile); // the copy has its own of what the buffer holds
    if (pid < 0)
        QorForgetFork();
    return pid;
}

const char *QorWhyNoDirectCopy() {
    const int32_t refusal = QorCheckDirectFork();
    return refusal ? QorForkRefusalText(refusal) : nullptr;
}
