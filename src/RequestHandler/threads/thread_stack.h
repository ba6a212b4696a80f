// The full stack of one thread, with the lock it waits for and the locks it holds. Worker only.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Appends the stack view of the thread whose key is args[1]. An unknown thread leaves the reply as it is.
void QorShowThreadStackRequest(uint32_t reqid, QorText *reply, char **args);
