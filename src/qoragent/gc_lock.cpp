#include "gc_lock.h"

int32_t qor_disable_gc(int32_t) {
    return 0;
}

int32_t qor_enable_gc() {
    return 0;
}
