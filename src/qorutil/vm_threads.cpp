#include "vm_threads.h"

#include "vm_offsets.h"
#include "vm_reader.h"

#include "platforms/findsymLinSolHPIA64.h"

namespace {

// The nodes of the walk in hand, by their address. A place is taken when the node that it names names it in
// turn, so that nothing has to be cleared before a walk.
constexpr uint32_t PLACES = 16384;
uint16_t nodeAt[PLACES];
uint16_t placeOf[MAX_VM_THREADS];

bool IsTaken(uint32_t place, int32_t nodes) {
    return nodeAt[place] < nodes && placeOf[nodeAt[place]] == place;
}

// Enters the next node. False when it has been entered before.
bool Enter(const uint64_t *threads, int32_t nodes, uint64_t thread) {
    auto place = static_cast<uint32_t>((thread >> 4) * 0x9e3779b1) % PLACES;
    for (; IsTaken(place, nodes); place = (place + 1) % PLACES)
        if (threads[nodeAt[place]] == thread)
            return false;
    nodeAt[place] = static_cast<uint16_t>(nodes);
    placeOf[nodes] = static_cast<uint16_t>(place);
    return true;
}

uint64_t listed[MAX_VM_THREADS]; // of QorIsListed

constexpr int32_t LIST_TRIES = 3;

// One walk along the list. False when it ended elsewhere than at the list's end.
bool WalkList(uint64_t *threads, int32_t *nodes) {
    uint64_t link = nsymbols[SYM_THREAD_LIST], thread = 0;
    *nodes = 0;
    while (QorPeekValue(link, &thread)) {
        if (thread == 0)
            return true;
        if (*nodes == MAX_VM_THREADS || !Enter(threads, *nodes, thread))
            return false;
        threads[(*nodes)++] = thread;
        link = thread + offsets[THREAD_NEXT];
    }
    return false;
}

} // namespace

int32_t QorListThreads(uint64_t *threads) {
    int32_t nodes = 0;
    for (int32_t i = 0; i < LIST_TRIES && !WalkList(threads, &nodes); i++)
        QorForgetPages();
    return nodes;
}

bool QorIsListed(uint64_t thread, int32_t kernelId) {
    QorForgetPages();
    const int32_t count = QorListThreads(listed);
    for (int32_t i = 0; i < count; i++)
        if (listed[i] == thread)
            return kernelId != 0 && QorKernelIdOf(thread) == kernelId;
    return false;
}

int32_t QorKernelIdOf(uint64_t thread) {
    const uint64_t osThread = QorWordAt(thread + offsets[THREAD_OSTHREAD]);
    return osThread ? QorInt32At(osThread + offsets[OSTHREAD_ID]) : 0;
}
