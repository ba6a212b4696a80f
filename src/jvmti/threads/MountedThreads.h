// Virtual threads that run on a platform thread at the moment, on JVMs of 21 and later.
//
// GetAllStackTraces reports no virtual thread. Where the JVM offers can_support_virtual_threads and an
// extension function that names the virtual thread on a carrier, a snapshot is of platform and mounted
// threads together: one list, one call, one pause. Elsewhere it is GetAllStackTraces, as ever.
//
// Worker only.
#pragma once

#include <cstdint>
#include <jvmti.h>

// What a thread of a snapshot is. A carrier's virtual thread is the one after it.
enum QorThreadKind : int8_t {
    THREAD_PLATFORM,
    THREAD_CARRIER,       // the next one runs on it
    THREAD_MOUNTED,       // runs on the one before
    THREAD_MOUNTED_ALONE, // its carrier has ended since
    THREAD_UNMOUNTED,     // a walk of one virtual thread that no carrier ran when it was looked for
};

// Whether mounted threads can be seen. The first call of a session finds out, and logs why not on JVMs that
// have virtual threads.
bool QorCanSeeMounted();

// Why not, where it answered that on such a JVM.
const char *QorWhyMountedAreUnseen();

// The virtual thread on a platform thread, a local reference; null for none, and where they can't be seen.
jthread QorMountedOn(jthread carrier);

// Stacks of all threads, of `depth` frames at most, into an array for the caller to deallocate and the kinds
// of the first `kindCount` of them. References come into the caller's local frame. On failure both outputs
// are cleared.
jvmtiError QorTakeStacks(jint depth, jvmtiStackInfo **stacks, jint *count, QorThreadKind *kinds,
                         int32_t kindCount);

// The next QorCanSeeMounted finds out anew. The end of the session calls it.
void QorForgetMounted();
