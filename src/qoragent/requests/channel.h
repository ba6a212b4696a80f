// The request channel: one shared reply buffer and two pipes between a Java caller and the worker.
//
// The caller posts its request under the next number and writes 20 bytes down `pipe_fd_PP`. The worker moves
// what is posted into `buf`, answers in `pagebuf`, notes the number as answered and writes 20 bytes down
// `pipe_fd_CH`. The pipes only wake up; the two numbers decide whose reply it is, so that
// what a worker says too late, for a caller that has gone, is nobody's reply. Reading or writing the pipes
// never blocks; who waits, polls.
//
// The pipes are replaced by start-up only, when no worker lives and no caller is inside.
#pragma once

#include "qorrequest.h"

#include <atomic>
#include <cstdint>

enum : int32_t {
    HANDSHAKE_SIZE = 20,
    AGENT_SHUTDOWN = 5,
    WAIT_FOR_EVER = -1,
    DEFAULT_WAIT_SECONDS = 5000, // what a time-out of 0 stands for
};

// Ends a request text inside `buf`, and each reply of the relay.
constexpr char END_OF_TRANSMISSION[] = "|\t|\t\t||";
constexpr char WAKE_UP[] = "From Parent to Child";
constexpr char HANDSHAKE[] = "From Child to Parent";
constexpr char READ_RETURNED[] = "Child Read returned = %d"; // logged by either side of its pipe
static_assert(sizeof END_OF_TRANSMISSION == QOREOTLEN + 1, "marker length");
static_assert(sizeof WAKE_UP == HANDSHAKE_SIZE + 1 && sizeof HANDSHAKE == HANDSHAKE_SIZE + 1, "text length");

extern std::atomic<int32_t> pipe_fd_PP[2]; // parent to child: read by the worker, written by the caller
extern std::atomic<int32_t> pipe_fd_CH[2]; // child to parent

// 0, or AGENT_SHUTDOWN from the request to leave until the worker has left.
extern std::atomic<int32_t> agentstatus;

// Makes both pipes, closing what an earlier start left. False, with no pipe at all, when one can't be made.
bool QorOpenChannel();

// Closes the pipes, if they are the agent's still. No worker lives and no caller is inside.
void QorCloseChannel();

// True while the four descriptors are those that were made. A host that closes descriptors at large may have
// given their numbers to files of its own since: then all four are forgotten, and none is read, written or
// closed again.
bool QorChannelIsOurs();

// Waits for input on `fd` up to `seconds`, or for ever, in slices of 10 seconds so that AGENT_SHUTDOWN is
// seen. 1 when there is some; 0 when the time is over or the agent is leaving.
int32_t qor_can_read(int32_t fd, int32_t seconds);

// Sleeps in the same slices, through signals. The last slice is slept whole.
void qor_safe_sleep(int32_t seconds);

// Wakes the worker. False when the 20 bytes did not go.
bool qor_signal_child_to_process();

// Posts a request in place of one that the worker hasn't taken, cut at the end-of-transmission marker; a null
// one asks again what is in `buf`. Its number. Java caller.
uint32_t QorPostRequest(const char *text);

// Takes the posted request back: from here on no worker takes it. Java caller.
void QorWithdrawRequest();

// Moves the posted request into `buf`. False when there is none: it was withdrawn, or taken at an earlier
// wake-up. Worker.
bool QorTakeRequest();

// True once `pagebuf` is the reply to the request of this number. Java caller.
bool QorIsAnswered(uint32_t number);

// Declares `pagebuf` the reply to the request last taken, and wakes its caller. Worker, and its fault
// handler.
bool QorAnswerRequest();

// Wakes a waiting caller, who then looks whether its reply is there. False when the 20 bytes did not go.
bool QorSignalParent();

// Waits for a handshake; 0 seconds stand for 5,000. 1 when one came, -1 when something else came, 0 when the
// time is over or the pipe isn't the agent's any more.
int32_t qor_wait_for_child_reponse(int32_t seconds);
