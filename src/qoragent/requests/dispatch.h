// The dispatcher: a request text to the view that answers it.
#pragma once

#include <cstdint>
#include <sys/time.h>

extern int32_t fpid;    // the last dump child's process id; 0 in the child itself, -2 when there was none
extern int32_t arg_num; // argument slots that the request set
extern char recsep;     // separator of the request's fields

extern timeval last_time, cur_time; // start and end of the request
extern uint32_t diff_time;          // microseconds of the last request that was timed

#define QOR_REPLY(...) snprintf(pagebuf, PAGEBUF_SIZE, __VA_ARGS__)

// Answers the request in `buf` into `pagebuf`, cutting `buf` up. Does nothing when no request is in progress.
// Worker, or the thread of a forked dump.
void process_data();

// True when the views of this road can be asked: the JVMTI session is open and the worker has its
// environment, or the direct road's readers are ready.
bool QorCanInspect();
