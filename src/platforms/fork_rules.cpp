#include "fork_rules.h"

#include "linux.h"
#include "memory_headroom.h"
#include "memory_maps.h"

#include "qorlog.h"
#include "qorrequest.h"
#include "qorsettings.h"

#include <algorithm>
#include <cstring>
#include <ctime>

int32_t gbiForkHeapShares[3] = {1, 3, 1};

namespace {

constexpr int MIB_SHIFT = 20;
constexpr int64_t MSEC_PER_SEC = 1000, NSEC_PER_MSEC = 1000 * 1000;
constexpr int32_t MOST_REPEATS = 3;
constexpr uint64_t COPY_TASKS = 2;                  // the copy's two threads
constexpr uint64_t SMALL_HEAP = 64ULL << MIB_SHIFT; // walked in a moment

struct RefusalRow {
    int32_t refusal;
    const char *text;
};
constexpr RefusalRow REFUSALS[] = {
    {FORK_REFUSED_LOW_MEMORY, "System low on Virtual Memory, Unable to start Heap Dump."},
    {FORK_REFUSED_SHARED_HEAP, "Unable to start Heap Dump: the JVM's heap is shared memory."},
    {FORK_REFUSED_BUSY, "Unable to start Heap Dump: an earlier one is still being written."},
    {FORK_REFUSED_BY_JVM, "Unable to start Heap Dump: the JVM refuses the walk."},
    {FORK_REFUSED_FILE, "Unable to start Heap Dump: the file can't be opened."},
    {FORK_REFUSED_TASKS, "Unable to start Heap Dump: no further process is allowed."},
};

// Mappings of a heap that some collectors keep, or are told to keep, in a file.
constexpr const char *HEAP_FILES[] = {"/memfd:java_heap", "/jvmheap."};

// Goes on to the next mapping; *found is set at a heap's.
bool SeekHeapFile(const QorMapping &mapping, void *found) {
    for (const char *word : HEAP_FILES) {
        if (!mapping.shared || !mapping.writable || !strstr(mapping.name, word))
            continue;
        *static_cast<bool *>(found) = true;
        return false;
    }
    return true;
}

bool HasHeapFile() {
    bool found = false;
    return !QorVisitMappings(SeekHeapFile, &found) || found;
}

int32_t CheckProcess(QorForkUse use, const QorHeapInUse &heap) {
    if (HasHeapFile() || !heap.isPrivate) {
        QORLOG(LOG_WARNING, "No copy of the process: the heap is shared memory");
        return FORK_REFUSED_SHARED_HEAP;
    }
    if (QorTaskHeadroom() < COPY_TASKS) {
        QORLOG(LOG_WARNING, "No copy of the process: its control group allows no further task");
        return FORK_REFUSED_TASKS;
    }
    const uint64_t needed = heap.bytes * static_cast<uint64_t>(gbiForkHeapShares[use]),
                   headroom = QorMemoryHeadroom();
    if (needed <= headroom)
        return 0;
    QORLOG(LOG_WARNING, "System low on Virtual Memory, Unable to start heap Dump");
    QORLOG(LOG_WARNING, "A copy of the process may take %llu MiB, %llu MiB are free",
           static_cast<unsigned long long>(needed >> MIB_SHIFT),
           static_cast<unsigned long long>(headroom >> MIB_SHIFT));
    return FORK_REFUSED_LOW_MEMORY;
}

} // namespace

const char *QorForkRefusalText(int32_t refusal) {
    for (const RefusalRow &row : REFUSALS)
        if (row.refusal == refusal)
            return row.text;
    return "Unable to start Heap Dump due to OS Error.";
}

const char *QorForkFailureText(QorForkState state, int32_t error) {
    switch (state) {
    case FORK_FAILED:
        return strerror(error);
    case FORK_STUCK:
        return "its process hung";
    case FORK_FAULT:
        return "a fault in its process";
    case FORK_MOVED:
        return "the heap didn't keep still";
    default:
        return "its process was ended";
    }
}

void QorLogDumpEnd(QorForkState state, int32_t error, const void *) {
    QORLOG(LOG_NOTE, "Heap dump: the copy of the process has ended: %s",
           state == FORK_DONE ? "the file is whole" : QorForkFailureText(state, error));
}

bool QorIsPrivateMemory(uint64_t address) {
    QorMapping mapping;
    return QorFindMapping(address, &mapping) && !mapping.shared;
}

int32_t QorCheckFork(QorForkUse use, const QorHeapInUse &heap) {
    return QorForkedChildLives() ? FORK_REFUSED_BUSY : CheckProcess(use, heap);
}

const char *QorWhyNoCopy(QorForkUse use, const QorHeapInUse &heap) {
    if (heap.bytes <= SMALL_HEAP)
        return "64 MiB of heap in use or less";
    const int32_t refusal = CheckProcess(use, heap);
    return refusal ? QorForkRefusalText(refusal) : nullptr;
}

bool QorForkAgain(const char *what, int32_t made, int64_t until, QorForkState state, int32_t error) {
    if (state == FORK_DONE || state == FORK_FAILED || made > MOST_REPEATS || QorForkClock() >= until)
        return false;
    QORLOG(LOG_WARNING, "%s: the copy of the process is made once more: %s", what,
           QorForkFailureText(state, error));
    return true;
}

int64_t QorForkClock() {
    timespec now;
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec * MSEC_PER_SEC + now.tv_nsec / NSEC_PER_MSEC;
}

int64_t QorForkPatience() {
    constexpr int64_t ENDLESS = 5000, LEAST = MSEC_PER_SEC, LEAST_REST = 2 * MSEC_PER_SEC, REST_SHARE = 10;
    const int64_t limit = (qor_max_timeout > 0 ? qor_max_timeout : ENDLESS) * MSEC_PER_SEC;
    const int64_t rest = std::max(LEAST_REST, limit / REST_SHARE);
    return std::max(LEAST, limit - rest);
}

bool QorWaitForFork(int32_t pipeEnd, int64_t until) {
    constexpr int64_t LOOK_MSEC = 100;
    while (!QorCanReadWithin(pipeEnd, std::min(LOOK_MSEC, until - QorForkClock()))) {
        if (!QorForkedChildLives())
            return true;
        if (QorForkClock() >= until || qorLeave)
            return false;
    }
    return true;
}
