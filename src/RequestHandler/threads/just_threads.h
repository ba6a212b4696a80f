// The summary line: threads by state, and the load of machine, process and heap. Worker only.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Appends how many threads are in which state, and the load figures beside them.
void QorShowJustThreadRequest(uint32_t reqid, QorText *reply, char **args);
