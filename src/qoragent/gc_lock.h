// The GC lock around a request.
//
// Only direct reading of the heap needs it. On the JVMTI road, and as long as nothing reads the heap
// directly, a request may always go on and there is nothing to hold.
#pragma once

#include <cstdint>

// Takes the lock; `mode` is the low two bits of the flag word. 0 when the request may go on, 1 when not.
int32_t qor_disable_gc(int32_t mode);

// Gives it back. Always 0.
int32_t qor_enable_gc();
