// A copy of this process that carries on with what one thread was doing, while the process itself goes on.
//
// The fork happens in the midst of foreign code that runs on one of the JVM's own threads: a callback of a
// heap walk. In the copy only that thread exists. It goes on with the walk, inside the JVM's code, and never
// comes back to the agent's; what the walk's callbacks do is all that the agent sees of it. So a second
// thread is made in the copy, which watches the first one: when that one sleeps and has sleeping left its
// count of steps where it was, the walk is over. The second thread then finishes the work and ends the copy.
//
// In the copy nothing is called but what computes, writes to the two descriptors that it keeps, or maps
// memory: other threads' locks are in whatever state the fork found them. It is the first to be killed when
// memory runs out, ends with its parent, leaves no core and has nothing open but its file and its pipe.
//
// The parent sees a shared page. Whoever waits calls QorForkedChildLives about once a second: a copy that the
// system doesn't run any more is killed there. One copy lives at a time. All functions: worker, unless a line
// says otherwise.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <sys/types.h>

constexpr char FORK_HANDSHAKE[] = "Fork Child to Parent"; // what the copy writes to its pipe at its end
enum : int32_t { FORK_HANDSHAKE_SIZE = sizeof FORK_HANDSHAKE - 1 };

enum QorForkState : int32_t {
    FORK_NONE,    // no copy was made
    FORK_RUNNING, // or ended without a word: killed, for one
    FORK_DONE,
    FORK_FAILED, // by its own word, with an error number
    FORK_STUCK,  // the walk stood still
    FORK_FAULT,  // a fault in the walk
};

struct QorForkPlan {
    int32_t file; // descriptor that the copy keeps besides its pipe, -1 for none; the parent's goes with it
    int32_t pipe[2];         // the copy writes to the second
    size_t resultSize;       // bytes of QorForkResult
    bool (*walkCanBeOver)(); // in the copy: false as long as something is known to be missing
    int32_t (*finish)();     // in the copy, when the walk is over: 0 or an error number
};

// Prepares for a fork: the shared page, the second thread's stack. False when something can't be had, or a
// copy still lives.
bool QorPrepareFork(const QorForkPlan &plan);

// Forks: 0 in the copy, its process id in the parent, or -1. In the copy all is set up for the walk to go on.
// Any thread, once for each preparation.
pid_t QorForkHere();

// The last fork's process id, -1 with errno set when there was none to be had, 0 when none was tried.
pid_t QorForkedPid();

// True in the copy.
extern bool qorInForkedChild;

// Counts a step of the walk. In the copy.
extern volatile uint64_t *qorForkSteps;
inline void QorForkStep() {
    *qorForkSteps = *qorForkSteps + 1;
}

// Zeroed memory that the copy writes and the parent reads, from the preparation to QorForgetFork.
void *QorForkResult();

// How it went, with the error number of FORK_FAILED.
QorForkState QorForkOutcome(int32_t *error);

// False when no copy lives. Kills one that has stood still for too long.
bool QorForkedChildLives();

// Kills the copy if it lives, waits for its end, and gives back what belonged to it. A file of one that has
// not ended well is emptied.
void QorForgetFork();

// Gives back what belongs to the copy and leaves it to itself. Until it has ended there is no other one.
void QorLeaveFork();

// Looks after a copy that nobody waits for any more: kills it when it stands still, forgets it when it has
// ended.
void QorTendFork();

// The watching thread's body in the copy; never returns.
int start_forked_thread(void *unused);

// Milliseconds that a copy may stand still. Tests make it small.
extern int32_t gbiForkStandstill;
