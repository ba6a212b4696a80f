// The worker: the one thread that inspects the JVM.
//
// It sleeps on `pipe_fd_PP`, takes the request out of `buf`, lets the dispatcher answer into `pagebuf` and
// writes the handshake. Each worker carries the number of its start. One whose number is no longer current is
// outdated: it finishes what it is in, then leaves by itself and touches no global of its successor. No
// thread is ever cancelled: a worker may hold the JVM's locks or be on its way through Java code. It also
// leaves when the host has closed or replaced the channel's descriptors.
#pragma once

#include "agent_state.h"

#include <cstdint>
#include <pthread.h>

// Starts a detached worker, unless one has registered in `ch_pid` or the JVM is not supported: then nothing
// happens, which counts as success. 0 or the error number. Java thread.
int32_t qor_create_child_thread(pthread_t *handle);

// Gives up a worker that did not answer in time: it becomes outdated and is not replaced. Direct road, on the
// Java caller.
void qor_terminate_child_thread();

// Makes every worker of an earlier start leave and waits up to `seconds` for it. True when none is left; else
// the one that serves goes on serving when it is done with what keeps it. Start-up.
bool QorRetireWorkers(int32_t seconds);

// True while a worker lives, be it one that serves or one that was given up.
bool QorWorkerLives();

// Counts the calling worker as gone, which a fault ends. Fault handler.
void QorWorkerGone();

// Starts a worker in place of the calling one, which a fault ends and which counts as gone from here on. 0 or
// the error number. Fault handler.
int32_t QorReplaceWorker();

// The thread's body; the argument is the start number.
void *qor_child_thread(void *startNumber);
