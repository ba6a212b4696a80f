// A heap walk in a copy of the process, so that the JVM stands still for the fork alone.
//
// A copy made anywhere else couldn't walk: the thread that does, the JVM's own, would be missing. So the walk
// is begun as any other, and its first callback forks, on that thread and with everything stopped. In the
// parent the callback ends the walk; the JVM goes on. The copy goes on walking. See platforms/forked_child.h
// for what the copy may do.
//
// Worker only, but for the callbacks.
#pragma once

#include "platforms/forked_child.h"

#include <cstdint>
#include <jvmti.h>

// Why no copy was made; otherwise a process id.
enum QorForkRefusal : int32_t {
    FORK_REFUSED_BY_SYSTEM = -1,
    FORK_REFUSED_SHARED_HEAP = -2, // the copy would see what the application goes on writing
    FORK_REFUSED_BUSY = -3,        // an earlier copy still lives
    FORK_REFUSED_BY_JVM = -4,
    FORK_REFUSED_FILE = -5,
    FORK_REFUSED_LOW_MEMORY = -8,
};

// What a reply says of a refusal, unterminated by any separator.
const char *QorForkRefusalText(int32_t refusal);

// Why a copy came to no good end, for the end of a sentence.
const char *QorForkFailureText(QorForkState state, int32_t error);

// How often a copy is made in all when it comes to no end: the fork may catch another thread of the JVM with
// a lock in its hands that the walk then waits for.
constexpr int FORK_ATTEMPTS = 2;

// Whether the process can bear a copy: 0 or the refusal, logged.
int32_t QorCheckFork();

// Memory that a copy may take, as a multiple of the heap in use: the pages of all objects, as the walk marks
// or the application changes them, and tags on the objects, which come to about twice that. Tests make it
// large.
extern int32_t gbiForkHeapShares;

// In a walk's callback, first of all. True where the walk goes on: in the copy. In the parent the callback
// then ends the walk.
inline bool QorWalkOnInChild() {
    if (__builtin_expect(!qorInForkedChild, 0) && (QorForkedPid() != 0 || QorForkHere() != 0))
        return false;
    QorForkStep();
    return true;
}

// What is to be done behind the call that started the walk: in a copy whose walk ran on the very thread that
// called, nothing but waiting for its end. The process id or the refusal.
int32_t QorForkedWalkReturned(jvmtiError error);

// Waits up to `seconds` (0: 5,000) until the copy has said at the pipe that it ends, or has ended: false when
// the time is over. `pipeEnd`: the end to read from; the parent's other end must have been closed.
bool QorWaitForFork(int32_t pipeEnd, int32_t seconds);
