// The view of virtual threads that no carrier runs: how many there are, and groups of the same stack.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Appends the view. args: most groups, most threads, milliseconds, a text that a frame must hold, most
// threads whose data of other tiers is read; absent ones and zeros are the defaults, the last of which is the
// first member of each group. Where there are no virtual threads to be seen, the count is -1 with the reason.
// Worker only.
void QorShowVirtualThreadsRequest(uint32_t reqid, QorText *reply, char **args);
