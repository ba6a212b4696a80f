// Whether a copy of the process is made, whether it is made again, how long its maker waits for it, and what
// a reply says of all that. The same for each way to make one; see forked_child.h.
//
// Worker only.
#pragma once

#include "forked_child.h"

#include <cstdint>

// Why no copy was made; otherwise a process id.
enum QorForkRefusal : int32_t {
    FORK_REFUSED_BY_SYSTEM = -1,
    FORK_REFUSED_SHARED_HEAP = -2, // the copy would see what the application goes on writing
    FORK_REFUSED_BUSY = -3,        // an earlier copy still lives
    FORK_REFUSED_BY_JVM = -4,
    FORK_REFUSED_FILE = -5,
    FORK_REFUSED_LOW_MEMORY = -8,
    FORK_REFUSED_MOVED = -10, // the heap was being collected; another try may do better
    FORK_REFUSED_TASKS = -9,  // the system gives this process no further ones
};

// What a reply says of a refusal, unterminated by any separator.
const char *QorForkRefusalText(int32_t refusal);

// Why a copy came to no good end, for the end of a sentence.
const char *QorForkFailureText(QorForkState state, int32_t error);

// Logs the end of a dump's copy; for QorForkPlan::ended.
void QorLogDumpEnd(QorForkState state, int32_t error, const void *result);

// What a copy is made for. A dump puts a tag on each object, a histogram on arrays alone.
enum QorForkUse : int32_t {
    FORK_FOR_HISTOGRAM,
    FORK_FOR_DUMP,
    FORK_FOR_READING, // nothing is written into the heap's pages
};

// The heap that a copy is to show.
struct QorHeapInUse {
    uint64_t bytes;
    bool isPrivate; // each of its parts, as QorIsPrivateMemory says
};

// Whether the mapping that holds `address` is this process's alone. False where there is none. Opens a
// descriptor for a moment, and allocates.
bool QorIsPrivateMemory(uint64_t address);

// Whether the process can bear a copy: 0 or the refusal, logged.
int32_t QorCheckFork(QorForkUse use, const QorHeapInUse &heap);

// The same for those who may choose: null, or why the JVM had better do the work itself. A small heap is a
// reason too; a copy that still lives is none.
const char *QorWhyNoCopy(QorForkUse use, const QorHeapInUse &heap);

// Memory that a copy may take, as a multiple of the heap in use: the pages of all objects, as the walk marks
// or the application changes them; for a dump also tags on the objects, which come to about twice that. Tests
// change it.
extern int32_t gbiForkHeapShares[3]; // by QorForkUse

// Whether a copy that came to no good end is made once more, with a line in the log that says why. The fork
// may catch another thread of the JVM, or malloc, with a lock in its hands that the walk then waits for: a
// copy is made again up to three times, and not after `until`, on QorForkClock. `made`: copies so far.
bool QorForkAgain(const char *what, int32_t made, int64_t until, QorForkState state, int32_t error);

// Now, in milliseconds of a clock that nobody sets.
int64_t QorForkClock();

// Milliseconds that a request's answer may wait for its copy: less than its caller waits for the answer,
// which would otherwise reach the next one who asks.
int64_t QorForkPatience();

// Waits until the copy has said at the pipe that it ends, or has ended. False when the clock has come to
// `until`, or the agent leaves. `pipeEnd`: the end to read from; the parent's other end must have been
// closed.
bool QorWaitForFork(int32_t pipeEnd, int64_t until);
