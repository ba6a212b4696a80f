// A heap walk in a copy of the process, so that the JVM stands still for the fork alone.
//
// A copy made anywhere else couldn't walk: the thread that does, the JVM's own, would be missing. So the walk
// is begun as any other, and its first callback makes the copy, on that thread and with everything stopped.
// In the parent the callback ends the walk; the JVM goes on. The copy goes on walking. See
// platforms/forked_child.h for what the copy may do.
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
    FORK_REFUSED_TASKS = -9, // the system gives this process no further ones
};

// What a reply says of a refusal, unterminated by any separator.
const char *QorForkRefusalText(int32_t refusal);

// Why a copy came to no good end, for the end of a sentence.
const char *QorForkFailureText(QorForkState state, int32_t error);

// Whether the request in hand is answered by a copy: as its flags say, else as the setting does.
bool QorWantsCopy();

// What a copy is made for. A dump puts a tag on each object, a histogram on arrays alone.
enum QorForkUse : int32_t {
    FORK_FOR_HISTOGRAM,
    FORK_FOR_DUMP,
};

// Whether the process can bear a copy: 0 or the refusal, logged.
int32_t QorCheckFork(QorForkUse use);

// The same for those who may choose: null, or why the JVM had better do the work itself. A small heap is a
// reason too; a copy that still lives is none.
const char *QorWhyNoCopy(QorForkUse use);

// Memory that a copy may take, as a multiple of the heap in use: the pages of all objects, as the walk marks
// or the application changes them; for a dump also tags on the objects, which come to about twice that. Tests
// change it.
extern int32_t gbiForkHeapShares[2]; // by QorForkUse

// Whether a copy that came to no good end is made once more, with a line in the log that says why. The fork
// may catch another thread of the JVM, or malloc, with a lock in its hands that the walk then waits for: a
// copy is made again up to three times, and not after `until`, on QorForkClock. `made`: copies so far.
bool QorForkAgain(const char *what, int32_t made, int64_t until, QorForkState state, int32_t error);

// In a walk's callback, first of all. True where the walk goes on: in the copy. In the parent the callback
// then ends the walk.
inline bool QorWalkOnInChild() {
    if (__builtin_expect(!qorInForkedChild, 0) && (QorForkedPid() != 0 || QorForkHere() != 0))
        return false;
    QorForkStep();
    return true;
}

// What is to be done after the call that started the walk: in a copy whose walk ran on the very thread that
// called, nothing but waiting for its end. The process id or the refusal.
int32_t QorForkedWalkReturned(jvmtiError error);

// Now, in milliseconds of a clock that nobody sets.
int64_t QorForkClock();

// Milliseconds that a request's answer may wait for its copy: less than its caller waits for the answer,
// which would otherwise reach the next one who asks.
int64_t QorForkPatience();

// Waits until the copy has said at the pipe that it ends, or has ended. False when the clock has come to
// `until`, or the agent leaves. `pipeEnd`: the end to read from; the parent's other end must have been
// closed.
bool QorWaitForFork(int32_t pipeEnd, int64_t until);
