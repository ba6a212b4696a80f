#include "followRefHackHelper.h"

#include "CollectedHeapHack.h"
#include "platforms/findsymLinSolHPIA64.h"
#include "platforms/memory_maps.h"
#include "qorlog.h"

#include <cstring>

void **gbUniverseCollectedHeap;
void *gbQorStaticCollectedHeap;
void *gbQorCollectedHeapHack;

namespace {

// What set, reset and the object's methods have noted since the last check. Written while the JVM is
// still, on its thread, or by a thread that enters the heap in that span; read and cleared by the worker.
uint64_t heapChecks; // a bit for each number
bool setNoted, resetNoted;

// The capability record as bytes: byte 0 holds owned monitors and the contended monitor, byte 4 the monitors'
// stack depths.
struct CapabilityByte {
    size_t index;
    unsigned char bits;
};
constexpr CapabilityByte LOCK_CAPABILITIES[] = {{0, 0x60}, {4, 0x04}};

// Lines show the low word of an address.
uint32_t LowWord(const void *address) {
    return static_cast<uint32_t>(reinterpret_cast<uintptr_t>(address));
}

bool IsWritable(uint64_t address, size_t size) {
    QorMapping mapping;
    return QorFindMapping(address, &mapping) && mapping.readable && mapping.writable &&
           mapping.end - address >= size;
}

// The record of what is always on is a part of what is offered. Bytes that aren't are another thing, at an
// address that a wrong file gave.
bool LooksLikeRecord(jvmtiEnv *env, const unsigned char *record) {
    jvmtiCapabilities potential = {};
    if (!env || env->GetPotentialCapabilities(&potential) != JVMTI_ERROR_NONE)
        return false;
    unsigned char offered[sizeof potential];
    memcpy(offered, &potential, sizeof offered);
    unsigned char any = 0;
    for (size_t i = 0; i < sizeof offered; i++) {
        if ((record[i] & ~offered[i]) != 0)
            return false;
        any |= record[i];
    }
    return any != 0;
}

void WriteHeapPointer(void *heap) {
    __atomic_store_n(gbUniverseCollectedHeap, heap, __ATOMIC_SEQ_CST);
}

template <typename Value>
bool Take(Value *noted, Value *taken) {
    *taken = __atomic_exchange_n(noted, Value{}, __ATOMIC_SEQ_CST);
    return *taken != Value{};
}

void LogReset() {
    QORLOG(LOG_DETAIL, "reset_FollowRefHack()");
}

void LogNotes() {
    bool noted;
    uint64_t checks;
    if (Take(&setNoted, &noted))
        QORLOG(LOG_DETAIL, "set_FollowRefHack()");
    if (Take(&resetNoted, &noted))
        LogReset();
    if (Take(&heapChecks, &checks))
        for (int32_t number = 1; number < 64; number++)
            if (checks >> number & 1)
                QORLOG(LOG_WARNING, "%d . Check CollectedHeapHack", number);
}

} // namespace

void init_LockCapabilitiesHack(jvmtiEnv *env) {
    const uint64_t address = nsymbols[JTI_ALWAYS_CAPABILITIES];
    auto *record = reinterpret_cast<unsigned char *>(address);
    if (!address || !IsWritable(address, sizeof(jvmtiCapabilities)) || !LooksLikeRecord(env, record)) {
        QORLOG(LOG_NOTE, "LockCapabilitesHack failed");
        return;
    }
    QORLOG(LOG_NOTE, "Initializing LockCapabilitesHack.");
    for (const CapabilityByte &byte : LOCK_CAPABILITIES)
        __atomic_fetch_or(&record[byte.index], byte.bits, __ATOMIC_SEQ_CST);
    QORLOG(LOG_DETAIL, "LockCapabilitesHack: lockAlwaysCapPtr : %x", LowWord(record));
}

void init_FollowRefHack() {
    gbUniverseCollectedHeap = nullptr;
    gbQorCollectedHeapHack = getCollectedHeapHackObject();
    QORLOG(LOG_NOTE, "Initializing FollowRefHack.");
    const uint64_t address = nsymbols[JTI_COLLECTED_HEAP];
    if (address && address % sizeof(void *) == 0 && IsWritable(address, sizeof(void *))) {
        auto **pointer = reinterpret_cast<void **>(address);
        // An object that an earlier start left there must not pass for the JVM's.
        if (*pointer && *pointer != gbQorCollectedHeapHack) {
            gbQorStaticCollectedHeap = *pointer;
            gbUniverseCollectedHeap = pointer;
        }
    }
    QORLOG(LOG_DETAIL,
           "FollowRefHack: gbUniverseCollectedHeap %x, gbQorStaticCollectedHeap %x,gbQorCollectedHeapHack %x",
           LowWord(gbUniverseCollectedHeap), LowWord(gbQorStaticCollectedHeap),
           LowWord(gbQorCollectedHeapHack));
}

void set_FollowRefHack() {
    if (!gbUniverseCollectedHeap)
        return;
    WriteHeapPointer(gbQorCollectedHeapHack);
    __atomic_store_n(&setNoted, true, __ATOMIC_SEQ_CST);
}

void reset_FollowRefHack() {
    if (!gbUniverseCollectedHeap)
        return;
    WriteHeapPointer(gbQorStaticCollectedHeap);
    __atomic_store_n(&resetNoted, true, __ATOMIC_SEQ_CST);
}

void check_FollowRefHack() {
    LogNotes();
    if (!gbUniverseCollectedHeap ||
        __atomic_load_n(gbUniverseCollectedHeap, __ATOMIC_SEQ_CST) == gbQorStaticCollectedHeap)
        return;
    reset_FollowRefHack();
    QORLOG(LOG_ERROR, "FollowRefHack has escaped the scope of its operation");
    LogNotes();
}

void QorNoteHeapCheck(int32_t number) {
    __atomic_fetch_or(&heapChecks, uint64_t{1} << number, __ATOMIC_SEQ_CST);
}
