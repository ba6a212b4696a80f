// The look-up of a thread by the client port of its database connection. Worker only.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Replaces the reply by name and key of the thread whose connection has the local port args[0], as text; the
// connections are those that this or an earlier sample has seen.
void QorShowDBXtierThreadInfo(uint32_t reqid, QorText *reply, char **args);
