// The all-threads sample: the active threads, the poll, and the poll with details.
//
// One walk over all threads decides for each whether it is worth showing, finds its first user call and
// writes one record for it. While the view filters, a thread that a rule calls idle by its name costs nothing
// but its name, and one that turns out idle costs its frames. A record goes into the reply whole or not at
// all: when the reply is full the walk ends after the last whole record.
//
// Worker only.
#pragma once

#include "reply/qortext.h"

#include <cstdint>

// Appends the sample that `reqid` asks for. args[0] may be "JVMALLTHREADS" (poll of all threads), args[1] is
// the thread key when a single thread is traced.
void QorShowAllThreadRequest(uint32_t reqid, QorText *reply, char **args);
