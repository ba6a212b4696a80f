// The signal that holds a thread: its action, and whose each one is.
//
// Number 31 may be the JVM's or the application's as well. The agent's action is in force only while threads
// are asked for, and what isn't the agent's goes to the action before, under the mask that it would have had.
// One that the agent sent names slot and generation in its value, so that a late one is known for what it is.
#pragma once

#include "held_slots.h"

#include <atomic>
#include <csignal>

// The action that ours replaced last; null before. The handler reads it, which may run late, so that a record
// is never written while it may be read.
extern std::atomic<const struct sigaction *> susp_old;

// What the handler has seen, for the log; counted up only.
struct QorSuspCounts {
    std::atomic<uint32_t> forwarded, dropped, nameless;
};
extern QorSuspCounts qorSuspCounts;

// Async-signal-safe, any thread. Holds the thread where the signal is the agent's ask; otherwise passes it
// on. Without an earlier handler one that the kernel sent (a system call refused by seccomp) takes the
// default action, which ends the process as it would without the agent; one that a process sent is dropped.
void sig_susp_handler(int signal, siginfo_t *info, void *context);

// Puts our action in force where it isn't. False when the system refuses, and when somebody replaced it while
// it was in force: their handler may call ours as the one before, and two that call each other never end.
// Worker, one at a time.
bool QorInstallSuspAction();

// Puts the old action back where ours is in force. No slot may be other than FREE. Worker, one at a time.
void QorRestoreSuspAction();

// Sends the signal for a hold. 0, or the error.
int32_t QorSendSuspSignal(QorHold hold, int32_t id);
