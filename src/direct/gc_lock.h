// The GC lock around a request.
//
// Only direct reading of the heap needs it. It doesn't keep the JVM from collecting: it waits for a running
// collection to end and notes that it did. One that begins right afterwards is noticed by the readers, by the
// number of collections. On the JVMTI road a request may always go on and there is nothing to hold.
#pragma once

#include <cstdint>

// How a request takes a running collection: the low two bits of its flag word.
enum GcMode : int32_t {
    GC_WAIT_AS_ZERO = 0, // as GC_WAIT
    GC_WAIT_BOUNDED = 1, // about a second, then `qormaxbackoff` seconds
    GC_REFUSE = 2,       // doesn't wait; a request for memory activity goes on without the lock
    GC_WAIT = 3,         // until the collection is over
};

// Takes the lock: 0 when the request may go on, 1 when not, also when the worker is asked to leave meanwhile.
// May set `no_gc` for this request. Worker, or the initialisation thread.
int32_t qor_disable_gc(int32_t mode);

// Gives it back. Always 0; twice in a row does no harm. Any thread.
int32_t qor_enable_gc();
