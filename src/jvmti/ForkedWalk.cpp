#include "ForkedWalk.h"

#include "JniCalls.h"
#include "MemorySystem.h"
#include "Session.h"
#include "platforms/linux.h"
#include "platforms/memory_headroom.h"
#include "platforms/memory_maps.h"
#include "qorlog.h"

#include <cerrno>
#include <cstring>
#include <unistd.h>

int32_t gbiForkHeapShares = 3;

namespace {

constexpr int MIB_SHIFT = 20;

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

// Whether the heap is this process's alone. A new object shows where the heap is: a local reference points to
// a place that holds the object's address, as the collector has it. What can't be found counts as shared.
bool HeapIsPrivate() {
    QorLocalFrame frame(jvmtijni_env, 1);
    jstring object = QorNewStringUTF(jvmtijni_env, "");
    if (!frame.pushed || !object)
        return false;
    uint64_t address = 0;
    memcpy(&address, static_cast<const void *>(object), sizeof address);
    QorMapping heap;
    return QorFindMapping(address, &heap) && !heap.shared;
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
        return "its process stood still";
    case FORK_FAULT:
        return "a fault in its process";
    default:
        return "its process was ended";
    }
}

int32_t QorCheckFork() {
    if (QorForkedChildLives())
        return FORK_REFUSED_BUSY;
    if (HasHeapFile() || !HeapIsPrivate()) {
        QORLOG(LOG_WARNING, "No copy of the process: the heap is shared memory");
        return FORK_REFUSED_SHARED_HEAP;
    }
    const uint64_t needed = QorGetUsedMemory() * static_cast<uint64_t>(gbiForkHeapShares),
                   headroom = QorMemoryHeadroom();
    if (needed <= headroom)
        return 0;
    QORLOG(LOG_WARNING, "System low on Virtual Memory, Unable to start heap Dump");
    QORLOG(LOG_WARNING, "A copy of the process may take %llu MiB, %llu MiB are free",
           static_cast<unsigned long long>(needed >> MIB_SHIFT),
           static_cast<unsigned long long>(headroom >> MIB_SHIFT));
    return FORK_REFUSED_LOW_MEMORY;
}

int32_t QorForkedWalkReturned(jvmtiError error) {
    while (qorInForkedChild)
        pause();
    QorClearException(jvmtijni_env);
    const pid_t pid = QorForkedPid();
    if (pid > 0)
        return pid;
    if (pid == 0) {
        QORLOG(LOG_ERROR, "The JVM refuses heap walks: error %d", error);
        return FORK_REFUSED_BY_JVM;
    }
    QORLOG(LOG_ERROR, "No copy of the process: %s", strerror(errno));
    return FORK_REFUSED_BY_SYSTEM;
}

bool QorWaitForFork(int32_t pipeEnd, int32_t seconds) {
    constexpr int32_t ENDLESS = 5000;
    for (int32_t left = seconds ? seconds : ENDLESS; left > 0; left--)
        if (qor_can_read_internal(pipeEnd, 1) || !QorForkedChildLives())
            return true;
    return false;
}
