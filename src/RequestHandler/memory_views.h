// The memory views: the heap and its collectors, the memory request, the class histogram, system data.
//
// Sizes are shown in KiB. A view is built section by section; what does not fit into the reply is left out,
// row by row. Worker only.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Appends the pools of the heap: name, greatest size, used, percent used, available.
void QorShowHeapSummary(uint32_t reqid, QorText *reply, char **args);

// Appends the collectors: name and count.
void QorShowGCSummary(uint32_t reqid, QorText *reply, char **args);

// Appends every collector bean: name, count, milliseconds.
void QorShowCollectors(QorText *reply);

// Appends pools and collectors: the view of a memory-activity request.
void QorShowMemoryActivity(uint32_t reqid, QorText *reply, char **args);

// Appends one line of processor, heap and collector figures. No request asks for it on this road.
void QorShowSystemData(uint32_t reqid, QorText *reply, char **args);

// Appends the answer to a memory request without a file: the heap in the memory request's own form, then the
// collectors.
void QorShowMemoryDetails(QorText *reply);

// Appends the class histogram: the 302 classes with the most bytes, largest first, each with its instances
// and KiB. The class with the fewest bytes of all is never shown.
void QorShowClassHistogram(QorText *reply);
