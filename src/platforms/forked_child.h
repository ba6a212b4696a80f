// A copy of this process that carries on with what one thread was doing, while the process itself goes on.
//
// The copy is made in the midst of foreign code that runs on one of the JVM's own threads: a callback of a
// heap walk. It is made by the bare system call, which differs from fork() in two ways. The application's
// atfork handlers don't run: one that waits for a Java thread would hang the stopped JVM. And the copy has no
// exit signal: its end raises no SIGCHLD, and no waitpid of the application's sees it, only one with __WALL.
//
// In the copy only the one thread exists. It goes on with the walk, inside the JVM's code, and never
// comes back to the agent's; what the walk's callbacks do is all that the agent sees of it. So a second
// thread is made in the copy, which watches the first one: when that one sleeps and its count of
// steps no longer grows, the walk is over. The second thread then finishes the work and ends the copy.
//
// Where the agent itself does the work, in a JVM that it reads by address, QorForkNow makes the copy: its one
// thread runs a function on a stack made for it, and the second thread only watches.
//
// In the copy nothing is called but what computes, writes to the two descriptors that it keeps, or maps
// memory: other threads' locks, malloc's included, are in whatever state the copying found them. A walker
// that sleeps on one sleeps for ever, so the second thread gives up after a second of that. The copy is the
// first to be killed when memory runs out, ends with its parent, leaves no core and has nothing open but its
// file and its pipe.
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
    FORK_STUCK,  // the walk can't go on: it waits for a lock that nobody holds any more
    FORK_FAULT,  // a fault in the walk
    FORK_MOVED,  // what it was to show had changed before it was made; see FORK_NOT_STILL
};

// What QorForkNow's function returns before it has written anything, when another copy may do better.
enum : int32_t { FORK_NOT_STILL = -1 };

struct QorForkPlan {
    int32_t file; // descriptor that the copy keeps besides its pipe, -1 for none; the parent's is removed too
    int32_t pipe[2];         // the copy writes to the second
    size_t resultSize;       // bytes of QorForkResult
    bool (*walkCanBeOver)(); // in the copy: false as long as something is known to be missing; QorForkHere
    bool (*isWriting)();     // in the copy: the walker sleeps in a write, if it sleeps
    int32_t (*finish)();     // in the copy, when the walk is over: 0 or an error number; QorForkHere
    void (*ended)(QorForkState state, int32_t error, const void *result); // in the parent, once; may be null
    bool ownStack = false;                                                // for QorForkNow
};

// Prepares for a fork: the shared page, the second thread's stack. False when something is unavailable, or a
// copy still lives.
bool QorPrepareFork(const QorForkPlan &plan);

// Makes the copy: 0 in it, its process id in the parent, or -1. In the copy all is set up for the walk to go
// on. Any thread, once for each preparation.
pid_t QorForkHere();

// Makes the copy, whose one thread runs `body` on a stack of 8 MB and ends with its result: 0, an error
// number, or FORK_NOT_STILL. The process id, or -1. Takes no lock and allocates nothing, so that other
// threads may be held meanwhile. Worker, once for each preparation, which asked for the stack.
pid_t QorForkNow(int32_t (*body)());

// The last fork's process id, -1 with errno set when the fork failed, 0 when none was tried.
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

// Kills the copy if it lives, waits for its end, reports that to `ended`, and gives back what belonged to it.
// A file of one that hasn't ended well is emptied.
void QorForgetFork();

// The same without waiting: a later zombie_reaper collects it, and until then there is no other one.
void QorEndFork();

// Looks after a copy that nobody waits for any more: kills it when it makes no progress, forgets it when it
// has ended.
void QorTendFork();

// Collects the copy when it has ended, and nobody else's child: waitpid's result for it, 0 when there is
// none.
int32_t zombie_reaper();

// Old C libraries keep the ids of thread and process side by side in the thread's own memory, and abort() by
// them: in the copy that would end the parent. Corrects the first such pair in `memory`. True if there is
// one.
bool QorCorrectKeptIds(int32_t *memory, size_t count, const int32_t (&parent)[2], const int32_t (&child)[2]);

// The watching thread's body in the copy; never returns.
int start_forked_thread(void *unused);

// Milliseconds that a copy may make no progress, and that its walker may sleep without writing. Tests change
// both.
extern int32_t gbiForkStandstill, gbiForkSleep;
