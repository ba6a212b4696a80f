// The direct road's answers to requests about threads: samples, counts, one thread's stack, a lock's holder.
//
// A sample goes once through the JVM's list of threads. Each thread that counts is read by itself: its stack,
// held if it has to be, then the names of its frames while it runs on. What is read may change meanwhile, so
// a thread is read again when memory was gone, when it left before its stack was whole, when a collection
// began, and dropped when it is another one by then.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Appends the answer to `reply`. `args`: slots 0 and 1 of the request, each null or a text: a thread's name
// and key, or a lock's address and the key of who waits for it. Worker.
void PrintSunThreads(uint32_t reqid, QorText *reply, char **args);
