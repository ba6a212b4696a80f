#include "agent_state.h"

#include <ctime>

int32_t init_status = START_RUNNING;
const char *startFailure;
int32_t doing_init;
char LOG_FILE[4096];
int32_t maxthreads = 64;
void **suspended_threads;

pthread_t thread;
std::atomic<int32_t> ch_pid;
std::atomic<int32_t> prev_ch_pid;
int32_t gbThreadId;
int32_t iNotUsingSignalHandler;
std::atomic<int32_t> workerBusy;

std::atomic<int32_t> callersInside;

void QorTakeBusy() {
    while (!QorTakeBusyWithin(INT32_MAX))
        ;
}

bool QorTakeBusyWithin(int32_t msec) {
    constexpr timespec POLL = {0, 1000 * 1000};
    for (; workerBusy.exchange(1) != 0; msec--) {
        if (msec <= 0)
            return false;
        nanosleep(&POLL, nullptr);
    }
    return true;
}
