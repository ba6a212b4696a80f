// Layouts of what holds references for the VM: of threads, then of the VM as a whole.
#pragma once

#include "layout.h"

namespace simvm {

struct HandleArea { // of a thread that runs in the VM
    Word first, last;
    Word used; // up to here, in the last chunk
};
struct HandleChunk {
    Word gap, next;
    int64_t bytes; // of what follows: handles
};
struct MonitorChunk { // of frames that are being replaced
    Word gap;
    int32_t words, gap1; // from this one on
    Word next;
    // monitors
};
struct PrivilegedElement { // of a thread's privileged calls
    Word klass, context, method, next;
};

struct ObjectMonitor { // 64 to a block; the first of a block links the blocks
    Word header, object, owner, freeNext, gap[4];
};
struct ObjectMonitorBlock {
    Word header, object, owner, next;
};
struct VmOperation { // waits for the VM thread
    Word vtable, thread, priority, timestamp, next, previous;
};
struct VmQueue {
    Word lengths[4], queues[2]; // by priority
};
struct VmTable {
    int32_t size, gap;
    Word buckets; // of pointers to entries
};
struct DictionaryEntry {
    Word hash, next, loader, domains, klass;
};
struct DomainEntry {
    Word next, domain;
};
struct PlaceholderEntry {
    Word next, klass, loader;
};
struct ConstraintEntry {
    Word hash, next, klass, room;
    int32_t loaderCount, gap;
    Word loaders;
};

} // namespace simvm
